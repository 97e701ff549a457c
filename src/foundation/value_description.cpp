// Text forms of values: the platform-style description used in logs, checksums of non-string
// values and the command-line tool.
#include <charconv>
#include <cmath>
#include <cstdio>
#include <string>

#include <fmt/format.h>

#include "foundation/value_internal.h"

namespace corvane {

namespace value_detail {

// The shortest digits that read back to the same value, laid out the way printf's %g lays
// out a 16- or 17-digit (7- or 9-digit for single precision) conversion: plain notation for
// moderate exponents, "1e+21" style beyond. So 0.1 -> "0.1", 1.0 -> "1", 1e21 -> "1e+21".
std::string shortestNumberText(double v, bool singlePrecision) {
  if (std::isnan(v)) return "nan";
  if (std::isinf(v)) return v < 0 ? "-inf" : "inf";
  if (v == 0) return std::signbit(v) ? "-0" : "0";
  char buf[64];
  const auto r = singlePrecision
                     ? std::to_chars(buf, buf + sizeof buf, static_cast<float>(v), std::chars_format::scientific)
                     : std::to_chars(buf, buf + sizeof buf, v, std::chars_format::scientific);
  const std::string_view sci(buf, static_cast<size_t>(r.ptr - buf));
  // sci is "-d.ddde+XX"
  size_t pos = 0;
  const bool negative = sci[0] == '-';
  if (negative) pos = 1;
  std::string digits;
  const size_t ePos = sci.find('e');
  for (size_t i = pos; i < ePos; ++i) {
    if (sci[i] != '.') digits.push_back(sci[i]);
  }
  int exponent = 0;
  std::from_chars(sci.data() + ePos + (sci[ePos + 1] == '+' ? 2 : 1), sci.data() + sci.size(), exponent);
  const int precision = singlePrecision ? (digits.size() <= 7 ? 7 : 9) : (digits.size() <= 16 ? 16 : 17);
  std::string out;
  if (negative) out.push_back('-');
  if (exponent < -4 || exponent >= precision) {
    out.push_back(digits[0]);
    if (digits.size() > 1) {
      out.push_back('.');
      out.append(digits, 1, std::string::npos);
    }
    out.push_back('e');
    out.push_back(exponent < 0 ? '-' : '+');
    const int magnitude = exponent < 0 ? -exponent : exponent;
    if (magnitude < 10) out.push_back('0');
    out += std::to_string(magnitude);
  } else if (exponent >= 0) {
    const size_t whole = static_cast<size_t>(exponent) + 1;
    if (digits.size() <= whole) {
      out += digits;
      out.append(whole - digits.size(), '0');
    } else {
      out.append(digits, 0, whole);
      out.push_back('.');
      out.append(digits, whole, std::string::npos);
    }
  } else {
    out += "0.";
    out.append(static_cast<size_t>(-exponent - 1), '0');
    out += digits;
  }
  return out;
}

// "yyyy-MM-dd HH:mm:ss +0000" in UTC.
std::string dateText(double secondsSince2001) {
  const double unixSeconds = std::floor(secondsSince2001 + 978307200.0);
  if (!std::isfinite(unixSeconds) || std::fabs(unixSeconds) > 1e15) return "(invalid date)";
  const auto total = static_cast<int64_t>(unixSeconds);
  int64_t days = total / 86400;
  int64_t rest = total % 86400;
  if (rest < 0) {
    rest += 86400;
    --days;
  }
  // Civil date from days since 1970-01-01 (proleptic Gregorian calendar).
  const int64_t z = days + 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  const int64_t day = doy - (153 * mp + 2) / 5 + 1;
  const int64_t month = mp < 10 ? mp + 3 : mp - 9;
  const int64_t year = yoe + era * 400 + (month <= 2 ? 1 : 0);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", year, month, day, rest / 3600, (rest / 60) % 60,
                     rest % 60);
}

}  // namespace value_detail

namespace {

using detail::StructureNode;

bool isPlainWord(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s) {
    const bool alnum = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (!alnum) return false;
  }
  return true;
}

void appendQuoted(std::string_view s, std::string& out) {
  if (isPlainWord(s)) {
    out += s;
    return;
  }
  out.push_back('"');
  for (char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          out += fmt::format("\\U{:04x}", static_cast<unsigned>(c));
        } else {
          out.push_back(c);
        }
    }
  }
  out.push_back('"');
}

std::string numberText(const Value& v) {
  switch (v.numberKind()) {
    case NumberKind::Bool:
      return ValueAccess::i(v) != 0 ? "1" : "0";
    case NumberKind::Float:
      return value_detail::shortestNumberText(ValueAccess::d(v), true);
    case NumberKind::Double:
      return value_detail::shortestNumberText(ValueAccess::d(v), false);
    default:
      if (v.isUnsigned()) return std::to_string(ValueAccess::u(v));
      return std::to_string(ValueAccess::i(v));
  }
}

std::string dataText(ByteView bytes) {
  std::string out = fmt::format("{{length = {}, bytes = 0x", bytes.size());
  auto hex = [&out](uint8_t b) {
    static constexpr char kDigits[] = "0123456789abcdef";
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 15]);
  };
  if (bytes.size() <= 24) {
    for (uint8_t b : bytes) hex(b);
  } else {
    for (size_t i = 0; i < 16; ++i) hex(bytes[i]);
    out += " ... ";
    for (size_t i = bytes.size() - 8; i < bytes.size(); ++i) hex(bytes[i]);
  }
  out.push_back('}');
  return out;
}

std::string structureText(const Value& v) {
  const auto* node = ValueAccess::as<StructureNode>(v);
  auto num = [node](int i) { return value_detail::shortestNumberText(node->doubles[i], false); };
  switch (node->kind) {
    case StructureKind::Point:
      return fmt::format("NSPoint: {{{}, {}}}", num(0), num(1));
    case StructureKind::Size:
      return fmt::format("NSSize: {{{}, {}}}", num(0), num(1));
    case StructureKind::Rect:
      return fmt::format("NSRect: {{{{{}, {}}}, {{{}, {}}}}}", num(0), num(1), num(2), num(3));
    case StructureKind::Range:
      return fmt::format("NSRange: {{{}, {}}}", node->range.location, node->range.length);
    case StructureKind::Vector:
      return fmt::format("CGVector: {{{}, {}}}", num(0), num(1));
    case StructureKind::AffineTransform:
      return fmt::format("CGAffineTransform: {{{{{}, {}, {}, {}}}, {{{}, {}}}}}", num(0), num(1), num(2), num(3),
                         num(4), num(5));
    case StructureKind::Transform3D: {
      std::string out = "CATransform3D: {";
      for (int i = 0; i < 16; ++i) {
        out += i == 0 ? "" : ", ";
        out += num(i);
      }
      return out + "}";
    }
  }
  return {};
}

std::string indexSetText(const Value& v) {
  const auto& ranges = v.indexRanges();
  std::string list;
  for (const IndexRange& r : ranges) {
    if (!list.empty()) list.push_back(' ');
    if (r.length == 1) {
      list += std::to_string(r.location);
    } else {
      list += fmt::format("{}-{}", r.location, r.location + r.length - 1);
    }
  }
  return fmt::format("[number of indexes: {} (in {} ranges), indexes: ({})]", v.count(), ranges.size(), list);
}

// Nodes being printed further up the stack; meeting one again is a cycle.
thread_local std::vector<const void*> tlPrinting;

class PrintGuard {
 public:
  explicit PrintGuard(const void* node) {
    for (const void* p : tlPrinting) {
      if (p == node) {
        cycle_ = true;
        return;
      }
    }
    tlPrinting.push_back(node);
  }
  ~PrintGuard() {
    if (!cycle_) tlPrinting.pop_back();
  }
  PrintGuard(const PrintGuard&) = delete;
  PrintGuard& operator=(const PrintGuard&) = delete;
  bool cycle() const noexcept { return cycle_; }

 private:
  bool cycle_ = false;
};

void indent(int level, std::string& out) { out.append(static_cast<size_t>(level) * 4, ' '); }

void describe(const Value& v, int level, bool nested, std::string& out);

void describeSequence(const Value& v, int level, const char* open, const char* close, std::string& out) {
  out += open;
  out.push_back('\n');
  const auto& items = v.elements();
  for (size_t i = 0; i < items.size(); ++i) {
    indent(level + 1, out);
    describe(items[i], level + 1, true, out);
    if (i + 1 < items.size()) out.push_back(',');
    out.push_back('\n');
  }
  indent(level, out);
  out += close;
}

std::string leafText(const Value& v) {
  switch (v.kind()) {
    case ValueKind::Nil:
      return "(null)";
    case ValueKind::Null:
      return "<null>";
    case ValueKind::Number:
      return numberText(v);
    case ValueKind::Decimal:
      return ValueAccess::as<detail::DecimalNode>(v)->value.toString();
    case ValueKind::String:
      return v.str();
    case ValueKind::Data:
      return dataText(v.bytes());
    case ValueKind::Date:
      return value_detail::dateText(v.dateValue());
    case ValueKind::URL: {
      const auto* node = ValueAccess::as<detail::URLNode>(v);
      std::string out = node->relative.str();
      if (node->base.isURL()) out += " -- " + node->base.urlAbsoluteString();
      return out;
    }
    case ValueKind::Structure:
      return structureText(v);
    case ValueKind::IndexSet:
      return indexSetText(v);
    case ValueKind::Object:
      return v.objectPointer()->description();
    default:
      return {};
  }
}

void describe(const Value& v, int level, bool nested, std::string& out) {
  const bool container = v.isCollection() || v.isDictionary();
  if (!container) {
    // Inside a container every leaf that is not a plain word is quoted, as the platform does
    // ("-1", "1.5", "<null>", dates), so that the text reads back as a property list.
    if (nested) {
      appendQuoted(leafText(v), out);
    } else {
      out += leafText(v);
    }
    return;
  }
  PrintGuard guard(v.identity());
  if (guard.cycle()) {
    out += "(cycle)";
    return;
  }
  switch (v.kind()) {
    case ValueKind::Array:
      describeSequence(v, level, "(", ")", out);
      return;
    case ValueKind::Set:
    case ValueKind::OrderedSet:
      describeSequence(v, level, "{(", ")}", out);
      return;
    default:
      break;
  }
  out += "{\n";
  for (const auto& [key, value] : v.entries()) {
    indent(level + 1, out);
    describe(key, level + 1, true, out);
    out += " = ";
    describe(value, level + 1, true, out);
    out += ";\n";
  }
  indent(level, out);
  out.push_back('}');
}

}  // namespace

std::string Value::description() const {
  if (!isCollection() && !isDictionary()) return leafText(*this);
  std::string out;
  describe(*this, 0, false, out);
  return out;
}

std::string Object::description() const { return fmt::format("<{}: {}>", className(), static_cast<const void*>(this)); }

}  // namespace corvane
