#include "corvane/foundation/decimal.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace corvane {
namespace {

__extension__ using Int128 = __int128;

using Mantissa = Decimal::Mantissa;

constexpr int kMinExponent = -128;
constexpr int kMaxExponent = 127;

struct Pow10Table {
  // 10^0 ... 10^38; 10^38 still fits the 128-bit mantissa type, 10^39 does not.
  Mantissa p[39];
  constexpr Pow10Table() : p() {
    Mantissa v = 1;
    for (Mantissa& power : p) {
      power = v;
      v *= 10;
    }
  }
};
constexpr Pow10Table kPow10;

// Number of decimal digits of m (1 for zero). A 128-bit value has at most 39.
int digitCount(Mantissa m) {
  int n = 1;
  while (n < 39 && m >= kPow10.p[n]) ++n;
  return n;
}

std::string mantissaDigits(Mantissa m) {
  char buf[40];
  char* end = buf + sizeof buf;
  char* p = end;
  do {
    *--p = static_cast<char>('0' + static_cast<int>(m % 10));
    m /= 10;
  } while (m != 0);
  return std::string(p, end);
}

// Compares a * 10^(ea) with b * 10^(eb) for non-zero mantissas, without overflow.
int compareMagnitude(Mantissa a, int ea, Mantissa b, int eb) {
  const int adjA = digitCount(a) + ea;
  const int adjB = digitCount(b) + eb;
  if (adjA != adjB) return adjA < adjB ? -1 : 1;
  if (ea == eb) return a < b ? -1 : (a > b ? 1 : 0);
  // Same magnitude: the one with the larger exponent has fewer digits. Divide the longer
  // mantissa down instead of multiplying the shorter one up, which could overflow.
  if (ea > eb) {
    const Mantissa scale = kPow10.p[ea - eb];
    const Mantissa q = b / scale;
    if (a != q) return a < q ? -1 : 1;
    return (b % scale) != 0 ? -1 : 0;
  }
  const Mantissa scale = kPow10.p[eb - ea];
  const Mantissa q = a / scale;
  if (q != b) return q < b ? -1 : 1;
  return (a % scale) != 0 ? 1 : 0;
}

// The whole value m * 10^e when it is an integer below 2^128; false otherwise.
bool integralValue(Mantissa m, int e, Mantissa* out) {
  if (m == 0) {
    *out = 0;
    return true;
  }
  if (e >= 0) {
    if (e > 38) return false;
    const Mantissa scale = kPow10.p[e];
    if (m > std::numeric_limits<Mantissa>::max() / scale) return false;
    *out = m * scale;
    return true;
  }
  if (-e > 38) return false;  // m < 10^39 cannot be a multiple of 10^39 or more
  const Mantissa scale = kPow10.p[-e];
  if (m % scale != 0) return false;
  *out = m / scale;
  return true;
}

}  // namespace

Decimal::Decimal(Mantissa mantissa, int exponent, bool negative) {
  int e = exponent;
  Mantissa m = mantissa;
  // At most one digit too many: 2^128 - 1 has 39 digits. Round half up.
  if (m >= kPow10.p[38]) {
    const int dropped = static_cast<int>(m % 10);
    m /= 10;
    ++e;
    if (dropped >= 5) ++m;
    if (m == kPow10.p[38]) {
      m /= 10;
      ++e;
    }
  }
  if (m == 0) return;  // zero: exponent 0, never negative (negative zero would read as NaN)
  while (m % 10 == 0 && e < kMaxExponent) {
    m /= 10;
    ++e;
  }
  // A large exponent can still be representable with more mantissa digits.
  while (e > kMaxExponent && m < kPow10.p[37]) {
    m *= 10;
    --e;
  }
  if (e > kMaxExponent || e < kMinExponent) {
    *this = notANumber();
    return;
  }
  mantissa_ = m;
  exponent_ = static_cast<int8_t>(e);
  negative_ = negative;
  compact_ = true;
}

Decimal Decimal::notANumber() {
  Decimal d;
  d.nan_ = true;
  d.negative_ = true;
  d.compact_ = false;
  return d;
}

std::optional<Decimal> Decimal::fromString(std::string_view text) {
  if (text == "NaN") return notANumber();
  size_t pos = 0;
  const size_t n = text.size();
  bool negative = false;
  if (pos < n && (text[pos] == '+' || text[pos] == '-')) {
    negative = text[pos] == '-';
    ++pos;
  }
  Mantissa m = 0;
  int kept = 0;           // significant digits in m
  int firstDropped = -1;  // first digit that did not fit, for rounding
  long exponent = 0;      // adjustment from digits dropped or after the point
  bool sawDigit = false;
  auto takeDigit = [&](int d, bool afterPoint) {
    sawDigit = true;
    if (m == 0 && d == 0) {
      if (afterPoint) --exponent;
      return;
    }
    if (kept < kMaxDigits) {
      m = m * 10 + static_cast<Mantissa>(d);
      ++kept;
      if (afterPoint) --exponent;
    } else {
      if (firstDropped < 0) firstDropped = d;
      if (!afterPoint) ++exponent;
    }
  };
  while (pos < n && text[pos] >= '0' && text[pos] <= '9') takeDigit(text[pos++] - '0', false);
  if (pos < n && text[pos] == '.') {
    ++pos;
    while (pos < n && text[pos] >= '0' && text[pos] <= '9') takeDigit(text[pos++] - '0', true);
  }
  if (!sawDigit) return std::nullopt;
  if (pos < n && (text[pos] == 'e' || text[pos] == 'E')) {
    ++pos;
    bool expNegative = false;
    if (pos < n && (text[pos] == '+' || text[pos] == '-')) {
      expNegative = text[pos] == '-';
      ++pos;
    }
    if (pos >= n || text[pos] < '0' || text[pos] > '9') return std::nullopt;
    long e = 0;
    while (pos < n && text[pos] >= '0' && text[pos] <= '9') {
      if (e < 1000000) e = e * 10 + (text[pos] - '0');  // beyond any representable value
      ++pos;
    }
    exponent += expNegative ? -e : e;
  }
  if (pos != n) return std::nullopt;
  if (firstDropped >= 5) {
    ++m;
    if (m == kPow10.p[38]) {
      m /= 10;
      ++exponent;
    }
  }
  if (m == 0) return Decimal();
  if (exponent > 100000 || exponent < -100000) return notANumber();
  return Decimal(m, static_cast<int>(exponent), negative);
}

Decimal Decimal::fromInt64(int64_t v) {
  const bool negative = v < 0;
  const Mantissa m = negative ? static_cast<Mantissa>(-(static_cast<Int128>(v))) : static_cast<Mantissa>(v);
  return Decimal(m, 0, negative);
}

Decimal Decimal::fromUInt64(uint64_t v) { return Decimal(static_cast<Mantissa>(v), 0, false); }

Decimal Decimal::fromDouble(double v) {
  if (!std::isfinite(v)) return notANumber();
  char buf[64];
  const auto result = std::to_chars(buf, buf + sizeof buf, v);
  auto parsed = fromString(std::string_view(buf, static_cast<size_t>(result.ptr - buf)));
  return parsed ? *parsed : notANumber();
}

Decimal Decimal::fromRecord(std::span<const uint8_t, 20> record) {
  const uint32_t word = static_cast<uint32_t>(record[0]) | (static_cast<uint32_t>(record[1]) << 8) |
                        (static_cast<uint32_t>(record[2]) << 16) | (static_cast<uint32_t>(record[3]) << 24);
  Decimal d;
  d.exponent_ = static_cast<int8_t>(static_cast<uint8_t>(word & 0xFF));
  unsigned length = (word >> 8) & 0xF;
  if (length > 8) length = 8;
  d.negative_ = ((word >> 12) & 1) != 0;
  d.compact_ = ((word >> 13) & 1) != 0;
  Mantissa m = 0;
  for (unsigned i = length; i-- > 0;) {
    const unsigned lo = record[4 + 2 * i];
    const unsigned hi = record[5 + 2 * i];
    m = (m << 16) | static_cast<Mantissa>(lo | (hi << 8));
  }
  d.mantissa_ = m;
  d.nan_ = length == 0 && d.negative_;
  return d;
}

std::array<uint8_t, 20> Decimal::toRecord() const noexcept {
  std::array<uint8_t, 20> out{};
  unsigned length = 0;
  if (!nan_) {
    for (unsigned i = 0; i < 8; ++i) {
      const auto word = static_cast<uint16_t>(mantissa_ >> (16 * i));
      out[4 + 2 * i] = static_cast<uint8_t>(word & 0xFF);
      out[5 + 2 * i] = static_cast<uint8_t>(word >> 8);
      if (word != 0) length = i + 1;
    }
  }
  const bool negative = nan_ ? true : negative_;
  const uint32_t header = static_cast<uint32_t>(static_cast<uint8_t>(exponent_)) | (length << 8) |
                          (static_cast<uint32_t>(negative) << 12) | (static_cast<uint32_t>(compact_) << 13);
  out[0] = static_cast<uint8_t>(header);
  out[1] = static_cast<uint8_t>(header >> 8);
  out[2] = static_cast<uint8_t>(header >> 16);
  out[3] = static_cast<uint8_t>(header >> 24);
  return out;
}

bool Decimal::toInt64(int64_t* out) const noexcept {
  if (nan_) return false;
  Mantissa whole = 0;
  if (!integralValue(mantissa_, exponent_, &whole)) return false;
  if (negative_) {
    if (whole > static_cast<Mantissa>(std::numeric_limits<int64_t>::max()) + 1) return false;
    *out = static_cast<int64_t>(-static_cast<Int128>(whole));
  } else {
    if (whole > static_cast<Mantissa>(std::numeric_limits<int64_t>::max())) return false;
    *out = static_cast<int64_t>(whole);
  }
  return true;
}

bool Decimal::toUInt64(uint64_t* out) const noexcept {
  if (nan_) return false;
  Mantissa whole = 0;
  if (!integralValue(mantissa_, exponent_, &whole)) return false;
  if (negative_ && whole != 0) return false;
  if (whole > std::numeric_limits<uint64_t>::max()) return false;
  *out = static_cast<uint64_t>(whole);
  return true;
}

std::string Decimal::toString() const {
  if (nan_) return "NaN";
  if (mantissa_ == 0) return "0";
  // The text shows the value, not the representation: a non-compact record holding 1000e-3
  // prints as "1", like its compact twin.
  Mantissa m = mantissa_;
  int e = exponent_;
  while (m % 10 == 0) {
    m /= 10;
    ++e;
  }
  std::string digits = mantissaDigits(m);
  std::string out;
  out.reserve(digits.size() + 140);
  if (negative_) out.push_back('-');
  if (e >= 0) {
    out += digits;
    out.append(static_cast<size_t>(e), '0');
  } else {
    const size_t fraction = static_cast<size_t>(-e);
    if (digits.size() > fraction) {
      out.append(digits, 0, digits.size() - fraction);
      out.push_back('.');
      out.append(digits, digits.size() - fraction, std::string::npos);
    } else {
      out += "0.";
      out.append(fraction - digits.size(), '0');
      out += digits;
    }
  }
  return out;
}

double Decimal::toDouble() const noexcept {
  if (nan_) return std::numeric_limits<double>::quiet_NaN();
  if (mantissa_ == 0) return negative_ ? -0.0 : 0.0;
  // Both factors exact in a double: one correctly rounded operation gives the exact result.
  static constexpr double kExactPow10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                           1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  if (mantissa_ < (static_cast<Mantissa>(1) << 53) && exponent_ >= -22 && exponent_ <= 22) {
    const auto m = static_cast<double>(static_cast<uint64_t>(mantissa_));
    const double v = exponent_ >= 0 ? m * kExactPow10[exponent_] : m / kExactPow10[-exponent_];
    return negative_ ? -v : v;
  }
  // Otherwise let the library's correctly rounding parser read the exact digits.
  std::string text = negative_ ? "-" : "";
  text += mantissaDigits(mantissa_);
  text += 'e';
  text += std::to_string(static_cast<int>(exponent_));
  double v = 0;
  std::from_chars(text.data(), text.data() + text.size(), v);  // out of range leaves 0 or sets inf
  return v;
}

int Decimal::compare(const Decimal& other) const noexcept {
  if (nan_ || other.nan_) {
    if (nan_ && other.nan_) return 0;
    return nan_ ? -1 : 1;
  }
  const int signA = mantissa_ == 0 ? 0 : (negative_ ? -1 : 1);
  const int signB = other.mantissa_ == 0 ? 0 : (other.negative_ ? -1 : 1);
  if (signA != signB) return signA < signB ? -1 : 1;
  if (signA == 0) return 0;
  const int magnitude = compareMagnitude(mantissa_, exponent_, other.mantissa_, other.exponent_);
  return signA > 0 ? magnitude : -magnitude;
}

}  // namespace corvane
