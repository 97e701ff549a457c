#include "corvane/graph/predicate.h"
#include "corvane/foundation/date_format.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>

#include "corvane/graph/managed_object.h"
#include "graph/text_fold.h"

namespace corvane {

using graph_internal::compareFolded;
using graph_internal::foldText;
using graph_internal::likeMatch;

// ---- Key paths -----------------------------------------------------------------------------

namespace {

Value countOf(const Value& v) {
  if (v.isCollection() || v.isDictionary()) return Value(static_cast<long long>(v.count()));
  return Value();
}

Value stepValue(const Value& current, std::string_view key) {
  if (key == "@count") return countOf(current);
  if (current.isObject()) return current.objectPointer()->valueForKey(key);
  if (current.isDictionary()) return current[key];
  if (current.isCollection()) {
    std::vector<Value> out;
    for (const Value& element : current.elements()) {
      Value v = stepValue(element, key);
      if (v.isCollection()) {
        out.insert(out.end(), v.elements().begin(), v.elements().end());
      } else if (!v.isNil()) {
        out.push_back(v);
      }
    }
    return Value::array(std::move(out));
  }
  return Value();
}

Value followPath(Value current, std::string_view rest) {
  while (!rest.empty() && !current.isNil()) {
    size_t dot = rest.find('.');
    current = stepValue(current, rest.substr(0, dot));
    rest = dot == std::string_view::npos ? std::string_view() : rest.substr(dot + 1);
  }
  return current;
}

}  // namespace

Value valueForKeyPath(const Object& root, std::string_view keyPath) {
  size_t dot = keyPath.find('.');
  std::string_view first = keyPath.substr(0, dot);
  Value v = first == "@count" ? Value() : root.valueForKey(first);
  if (dot == std::string_view::npos) return v;
  return followPath(std::move(v), keyPath.substr(dot + 1));
}

Value valueForKeyPath(const Value& root, std::string_view keyPath) { return followPath(root, keyPath); }

// ---- Predicate -----------------------------------------------------------------------------

Predicate::Predicate() : function_([](const Object&) { return true; }), format_("TRUEPREDICATE") {}

Predicate::Predicate(Function function, std::string format)
    : function_(std::move(function)), format_(std::move(format)) {
  if (!function_) function_ = [](const Object&) { return true; };
}

Predicate Predicate::truePredicate() { return Predicate(); }

Predicate Predicate::falsePredicate() {
  return Predicate([](const Object&) { return false; }, "FALSEPREDICATE");
}

namespace {
std::string joinFormats(const std::vector<Predicate>& parts, const char* glue) {
  std::string text;
  for (const auto& p : parts) {
    if (!text.empty()) text += glue;
    text += "(" + p.format() + ")";
  }
  return text;
}
}  // namespace

Predicate Predicate::andPredicate(std::vector<Predicate> parts) {
  std::string format = joinFormats(parts, " AND ");
  Predicate p(
      [parts = std::move(parts)](const Object& o) {
        for (const auto& part : parts) {
          if (!part.evaluate(o)) return false;
        }
        return true;
      },
      std::move(format));
  return p;
}

Predicate Predicate::orPredicate(std::vector<Predicate> parts) {
  std::string format = joinFormats(parts, " OR ");
  return Predicate(
      [parts = std::move(parts)](const Object& o) {
        for (const auto& part : parts) {
          if (part.evaluate(o)) return true;
        }
        return false;
      },
      std::move(format));
}

Predicate Predicate::notPredicate(Predicate part) {
  std::string format = "NOT (" + part.format() + ")";
  return Predicate([part = std::move(part)](const Object& o) { return !part.evaluate(o); }, std::move(format));
}

bool Predicate::evaluate(const Value& value) const {
  if (value.isObject()) return function_(*value.objectPointer());
  DictionaryObject object(value);
  return function_(object);
}

// ---- Comparison ----------------------------------------------------------------------------

namespace {

enum class Op {
  Equal,
  NotEqual,
  Less,
  LessEqual,
  Greater,
  GreaterEqual,
  BeginsWith,
  EndsWith,
  Contains,
  Like,
  In,
  Between
};
enum class Quantifier { None, Any, All, NoneOf };

struct Options {
  bool caseless = false;
  bool diacriticless = false;
  bool folds() const { return caseless || diacriticless; }
};

// The ID of a managed object or of an ID value; null for anything else. Objects of different
// contexts are the same object when their IDs are equal, which is what a predicate built in
// one context and evaluated by a store or a parent context needs.
ObjectID identityOf(const Value& v) {
  if (!v.isObject()) return ObjectID();
  if (const auto* mo = dynamic_cast<const ManagedObject*>(v.objectPointer())) return mo->objectID();
  return ObjectID::fromValue(v);
}

bool isNothing(const Value& v) { return v.isNil() || v.isNull(); }
bool isNumeric(const Value& v) { return v.isNumber() || v.isDecimal(); }

bool equalValues(const Value& a, const Value& b, const Options& o) {
  if (isNothing(a) || isNothing(b)) return isNothing(a) && isNothing(b);
  if (a.isString() && b.isString()) {
    return o.folds() ? compareFolded(a.str(), b.str(), o.caseless, o.diacriticless) == 0 : a.str() == b.str();
  }
  if (a.isObject() || b.isObject()) {
    ObjectID ia = identityOf(a), ib = identityOf(b);
    if (ia && ib) return ia == ib;
  }
  return a == b;
}

// <0, 0, >0, or nullopt when the two cannot be ordered.
std::optional<int> orderValues(const Value& a, const Value& b, const Options& o) {
  if (a.isNumber() && b.isNumber() && !a.isUnsigned() && !b.isUnsigned()) {
    // The common cases without the general comparison's conversions.
    if (!a.isFloatingPoint() && !b.isFloatingPoint()) {
      int64_t x = a.longLongValue(), y = b.longLongValue();
      return x < y ? -1 : x > y ? 1 : 0;
    }
    if (a.isFloatingPoint() && b.isFloatingPoint()) {
      double x = a.doubleValue(), y = b.doubleValue();
      if (x == x && y == y) return x < y ? -1 : x > y ? 1 : 0;
    }
  }
  if (isNumeric(a) && isNumeric(b)) return Value::compare(a, b);
  if (a.isString() && b.isString()) return compareFolded(a.str(), b.str(), o.caseless, o.diacriticless);
  if (a.isDate() && b.isDate()) return Value::compare(a, b);
  return std::nullopt;
}

bool containsMember(const Value& collection, const Value& v, const Options& o) {
  if (collection.isDictionary()) {
    for (const auto& [key, value] : collection.entries()) {
      if (equalValues(value, v, o)) return true;
    }
    return false;
  }
  for (const Value& element : collection.elements()) {
    if (equalValues(element, v, o)) return true;
  }
  return false;
}

bool stringOp(Op op, const std::string& l, const std::string& r, const Options& o) {
  if (!o.folds() && op != Op::Like) {
    std::string_view lv(l), rv(r);
    switch (op) {
      case Op::BeginsWith:
        return lv.substr(0, rv.size()) == rv;
      case Op::EndsWith:
        return lv.size() >= rv.size() && lv.substr(lv.size() - rv.size()) == rv;
      case Op::Contains:
        return lv.find(rv) != std::string_view::npos;
      default:
        return false;
    }
  }
  std::u32string fl = foldText(l, o.caseless, o.diacriticless);
  std::u32string fr = foldText(r, o.caseless, o.diacriticless);
  switch (op) {
    case Op::BeginsWith:
      return fl.compare(0, fr.size(), fr) == 0 && fl.size() >= fr.size();
    case Op::EndsWith:
      return fl.size() >= fr.size() && fl.compare(fl.size() - fr.size(), fr.size(), fr) == 0;
    case Op::Contains:
      return fl.find(fr) != std::u32string::npos;
    case Op::Like:
      return likeMatch(fl, fr);
    default:
      return false;
  }
}

bool compareOne(Op op, const Value& l, const Value& r, const Options& o) {
  switch (op) {
    case Op::Equal:
      return equalValues(l, r, o);
    case Op::NotEqual:
      return !equalValues(l, r, o);
    case Op::Less:
    case Op::LessEqual:
    case Op::Greater:
    case Op::GreaterEqual: {
      auto c = orderValues(l, r, o);
      if (!c) return false;
      if (op == Op::Less) return *c < 0;
      if (op == Op::LessEqual) return *c <= 0;
      if (op == Op::Greater) return *c > 0;
      return *c >= 0;
    }
    case Op::BeginsWith:
    case Op::EndsWith:
    case Op::Like:
      return l.isString() && r.isString() && stringOp(op, l.str(), r.str(), o);
    case Op::Contains:
      if (l.isCollection() || l.isDictionary()) return containsMember(l, r, o);
      return l.isString() && r.isString() && stringOp(op, l.str(), r.str(), o);
    case Op::In:
      if (r.isCollection() || r.isDictionary()) return containsMember(r, l, o);
      return l.isString() && r.isString() && stringOp(Op::Contains, r.str(), l.str(), o);
    case Op::Between: {
      if (!r.isCollection() || r.count() != 2) return false;
      auto low = orderValues(l, r.at(0), o), high = orderValues(l, r.at(1), o);
      return low && high && *low >= 0 && *high <= 0;
    }
  }
  return false;
}

// ---- Parsed operands -----------------------------------------------------------------------

struct Operand {
  enum class Kind { Constant, KeyPath, Aggregate } kind = Kind::Constant;
  bool aggregate = false;  // written as {...} (a folded constant keeps this)
  bool singleKey = false;  // a key path of one key
  Value constant;
  std::string path;
  std::vector<Operand> items;

  Value evaluate(const Object& o) const {
    switch (kind) {
      case Kind::Constant:
        return constant;
      case Kind::KeyPath:
        return singleKey ? o.valueForKey(path) : valueForKeyPath(o, path);
      case Kind::Aggregate: {
        std::vector<Value> values;
        values.reserve(items.size());
        for (const auto& item : items) values.push_back(item.evaluate(o));
        return Value::array(std::move(values));
      }
    }
    return Value();
  }
};

struct Comparison {
  Quantifier quantifier = Quantifier::None;
  Op op = Op::Equal;
  Options options;
  Operand lhs, rhs;

  bool evaluate(const Object& o) const {
    Value l = lhs.evaluate(o);
    Value r = rhs.evaluate(o);
    Quantifier q = quantifier;
    if (q == Quantifier::None && l.isCollection() && op != Op::Contains &&
        !(r.isCollection() && (op == Op::Equal || op == Op::NotEqual))) {
      // A to-many key path compared with one value means "any of them", as stores do.
      q = Quantifier::Any;
    }
    if (q == Quantifier::None) return compareOne(op, l, r, options);
    if (!l.isCollection()) l = isNothing(l) ? Value::array() : Value::array({l});
    for (const Value& element : l.elements()) {
      bool hit = compareOne(op, element, r, options);
      if (q == Quantifier::Any && hit) return true;
      if (q == Quantifier::All && !hit) return false;
      if (q == Quantifier::NoneOf && hit) return false;
    }
    return q != Quantifier::Any;
  }
};

// ---- Parser --------------------------------------------------------------------------------

constexpr size_t kMaxPredicateLength = 1 << 20;
constexpr int kMaxDepth = 200;

struct ParseFailure {
  size_t position;
  std::string reason;
};

// "2024-01-31", "2024-01-31T12:00:00Z", "2024-01-31T12:00:00.250+02:00" → seconds since 2001.
std::optional<double> parseISODate(std::string_view s) {
  auto num = [&](size_t pos, size_t len, int* out) {
    if (pos + len > s.size()) return false;
    int v = 0;
    for (size_t i = pos; i < pos + len; ++i) {
      if (!std::isdigit(static_cast<unsigned char>(s[i]))) return false;
      v = v * 10 + (s[i] - '0');
    }
    *out = v;
    return true;
  };
  int y, mo, d, h = 0, mi = 0, sec = 0;
  if (!num(0, 4, &y) || s.size() < 10 || s[4] != '-' || !num(5, 2, &mo) || s[7] != '-' || !num(8, 2, &d)) {
    return std::nullopt;
  }
  if (mo < 1 || mo > 12 || d < 1 || d > 31) return std::nullopt;
  size_t pos = 10;
  double fraction = 0;
  int offset = 0;
  if (pos < s.size()) {
    if ((s[pos] != 'T' && s[pos] != ' ') || !num(pos + 1, 2, &h) || pos + 3 >= s.size() || s[pos + 3] != ':' ||
        !num(pos + 4, 2, &mi)) {
      return std::nullopt;
    }
    pos += 6;
    if (pos < s.size() && s[pos] == ':') {
      if (!num(pos + 1, 2, &sec)) return std::nullopt;
      pos += 3;
      if (pos < s.size() && s[pos] == '.') {
        size_t start = ++pos;
        double scale = 0.1;
        while (pos < s.size() && std::isdigit(static_cast<unsigned char>(s[pos]))) {
          fraction += (s[pos++] - '0') * scale;
          scale /= 10;
        }
        if (pos == start) return std::nullopt;
      }
    }
    if (h > 23 || mi > 59 || sec > 60) return std::nullopt;
    if (pos < s.size()) {
      if (s[pos] == 'Z' && pos + 1 == s.size()) {
        ++pos;
      } else if ((s[pos] == '+' || s[pos] == '-') && pos + 6 == s.size() && s[pos + 3] == ':') {
        int oh, om;
        if (!num(pos + 1, 2, &oh) || !num(pos + 4, 2, &om)) return std::nullopt;
        offset = (oh * 3600 + om * 60) * (s[pos] == '-' ? -1 : 1);
        pos = s.size();
      } else {
        return std::nullopt;
      }
    }
  }
  double unixSeconds =
      static_cast<double>(daysFromCivil(y, mo, d)) * 86400.0 + h * 3600.0 + mi * 60.0 + sec + fraction - offset;
  return unixSeconds - 978307200.0;
}

class Parser {
 public:
  Parser(std::string_view text, const std::vector<Value>& arguments) : s_(text), args_(arguments) {}

  Predicate::Function parse(std::vector<std::string>* keys) {
    keys_ = keys;
    auto f = parseOr(0);
    skipSpace();
    if (pos_ < s_.size()) fail("unexpected text after the end of the predicate");
    if (nextArg_ < args_.size()) fail("more arguments than %@ and %K placeholders");
    return f;
  }

 private:
  [[noreturn]] void fail(std::string reason) { throw ParseFailure{pos_, std::move(reason)}; }

  void skipSpace() {
    while (pos_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[pos_]))) ++pos_;
  }

  static bool identStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_' || c == '$'; }
  static bool identChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '$'; }

  // The keyword at the cursor (letters only), upper-cased, without consuming it.
  std::string peekWord() {
    skipSpace();
    size_t end = pos_;
    while (end < s_.size() && identChar(s_[end])) ++end;
    std::string word(s_.substr(pos_, end - pos_));
    for (auto& c : word) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return word;
  }

  bool acceptWord(std::string_view word) {
    if (peekWord() != word) return false;
    size_t end = pos_ + word.size();
    if (end < s_.size() && s_[end] == '.') return false;  // a key path that starts like a keyword
    pos_ = end;
    return true;
  }

  bool acceptSymbol(std::string_view symbol) {
    skipSpace();
    if (s_.substr(pos_, symbol.size()) != symbol) return false;
    pos_ += symbol.size();
    return true;
  }

  void enter(int depth) {
    if (depth > kMaxDepth) fail("the predicate is nested too deeply");
  }

  Predicate::Function parseOr(int depth) {
    enter(depth);
    auto left = parseAnd(depth + 1);
    while (acceptWord("OR") || acceptSymbol("||")) {
      auto right = parseAnd(depth + 1);
      left = [l = std::move(left), r = std::move(right)](const Object& o) { return l(o) || r(o); };
    }
    return left;
  }

  Predicate::Function parseAnd(int depth) {
    enter(depth);
    auto left = parseNot(depth + 1);
    while (acceptWord("AND") || acceptSymbol("&&")) {
      auto right = parseNot(depth + 1);
      left = [l = std::move(left), r = std::move(right)](const Object& o) { return l(o) && r(o); };
    }
    return left;
  }

  Predicate::Function parseNot(int depth) {
    enter(depth);
    skipSpace();
    if (acceptWord("NOT") || (s_.substr(pos_, 2) != "!=" && acceptSymbol("!"))) {
      auto inner = parseNot(depth + 1);
      return [i = std::move(inner)](const Object& o) { return !i(o); };
    }
    return parsePrimary(depth + 1);
  }

  Predicate::Function parsePrimary(int depth) {
    enter(depth);
    skipSpace();
    if (pos_ >= s_.size()) fail("the predicate ends where a condition was expected");
    if (acceptSymbol("(")) {
      auto inner = parseOr(depth + 1);
      if (!acceptSymbol(")")) fail("expected ')'");
      return inner;
    }
    if (acceptWord("TRUEPREDICATE")) return [](const Object&) { return true; };
    if (acceptWord("FALSEPREDICATE")) return [](const Object&) { return false; };
    return parseComparison(depth + 1);
  }

  Predicate::Function parseComparison(int depth) {
    auto c = std::make_shared<Comparison>();
    if (acceptWord("ANY") || acceptWord("SOME")) {
      c->quantifier = Quantifier::Any;
    } else if (acceptWord("ALL")) {
      c->quantifier = Quantifier::All;
    } else if (acceptWord("NONE")) {
      c->quantifier = Quantifier::NoneOf;
    }
    c->lhs = parseOperand(depth + 1);
    if (c->quantifier != Quantifier::None && c->lhs.kind != Operand::Kind::KeyPath) {
      fail("ANY, ALL and NONE need a key path");
    }
    c->op = parseOperator();
    parseModifiers(&c->options);
    c->rhs = parseOperand(depth + 1);
    if (c->op == Op::Between && c->rhs.aggregate && c->rhs.items.size() != 2) {
      fail("BETWEEN needs two values");
    }
    return [c](const Object& o) { return c->evaluate(o); };
  }

  Op parseOperator() {
    skipSpace();
    size_t at = pos_;
    static const std::pair<std::string_view, Op> symbols[] = {
        {"==", Op::Equal},     {"!=", Op::NotEqual},     {"<>", Op::NotEqual},     {"<=", Op::LessEqual},
        {"=<", Op::LessEqual}, {">=", Op::GreaterEqual}, {"=>", Op::GreaterEqual}, {"=", Op::Equal},
        {"<", Op::Less},       {">", Op::Greater},
    };
    for (const auto& [text, op] : symbols) {
      if (acceptSymbol(text)) return op;
    }
    static const std::pair<std::string_view, Op> words[] = {
        {"BEGINSWITH", Op::BeginsWith},
        {"ENDSWITH", Op::EndsWith},
        {"CONTAINS", Op::Contains},
        {"LIKE", Op::Like},
        {"IN", Op::In},
        {"BETWEEN", Op::Between},
    };
    for (const auto& [text, op] : words) {
      if (acceptWord(text)) return op;
    }
    pos_ = at;
    if (peekWord() == "MATCHES") fail("MATCHES is not supported");
    fail("expected a comparison operator");
  }

  void parseModifiers(Options* options) {
    if (pos_ >= s_.size() || s_[pos_] != '[') return;  // no space allowed between operator and [
    size_t at = pos_++;
    while (pos_ < s_.size() && s_[pos_] != ']') {
      char c = static_cast<char>(std::tolower(static_cast<unsigned char>(s_[pos_])));
      if (c == 'c') {
        options->caseless = true;
      } else if (c == 'd') {
        options->diacriticless = true;
      } else if (c != 'n') {
        fail("unknown comparison modifier");
      }
      ++pos_;
    }
    if (pos_ >= s_.size()) {
      pos_ = at;
      fail("unterminated comparison modifier");
    }
    ++pos_;
  }

  Operand constant(Value v) {
    Operand o;
    o.constant = std::move(v);
    return o;
  }

  const Value& nextArgument() {
    if (nextArg_ >= args_.size()) fail("missing argument for placeholder");
    return args_[nextArg_++];
  }

  Operand keyPathOperand(std::string path) {
    if (keys_ != nullptr) {
      std::string first = path.substr(0, path.find('.'));
      bool known = false;
      for (const auto& k : *keys_) known = known || k == first;
      if (!known && !first.empty() && first[0] != '@') keys_->push_back(first);
    }
    Operand o;
    o.kind = Operand::Kind::KeyPath;
    o.singleKey = path.find('.') == std::string::npos && path[0] != '@';
    o.path = std::move(path);
    return o;
  }

  Operand parseOperand(int depth) {
    enter(depth);
    skipSpace();
    if (pos_ >= s_.size()) fail("the predicate ends where a value was expected");
    char c = s_[pos_];
    if (c == '%') {
      if (s_.substr(pos_, 2) == "%@") {
        const Value& argument = nextArgument();
        pos_ += 2;
        return constant(argument);
      }
      if (s_.substr(pos_, 2) == "%K") {
        const Value& key = nextArgument();
        if (!key.isString() || key.str().empty()) fail("the argument for %K must be a key path");
        pos_ += 2;
        return keyPathOperand(key.str());
      }
      fail("unknown placeholder");
    }
    if (c == '\'' || c == '"') return constant(Value(parseString()));
    if (c == '{') return parseAggregate(depth + 1);
    if (std::isdigit(static_cast<unsigned char>(c)) || c == '-' || c == '+' || c == '.') return constant(parseNumber());
    if (c == '#') {
      ++pos_;
      if (pos_ >= s_.size() || !identStart(s_[pos_])) fail("expected a key after '#'");
      return keyPathOperand(parseKeyPath());
    }
    if (c == '@' || identStart(c)) {
      std::string word = peekWord();
      if ((word == "TRUE" || word == "YES") && acceptWord(word)) return constant(Value(true));
      if ((word == "FALSE" || word == "NO") && acceptWord(word)) return constant(Value(false));
      if ((word == "NIL" || word == "NULL") && acceptWord(word)) return constant(Value());
      if (word == "CAST") {
        size_t at = pos_;
        acceptWord(word);
        if (acceptSymbol("(")) return parseCast(at);
        pos_ = at;
      }
      return keyPathOperand(parseKeyPath());
    }
    fail("expected a value or a key path");
  }

  std::string parseKeyPath() {
    size_t start = pos_;
    for (;;) {
      if (pos_ < s_.size() && s_[pos_] == '@') ++pos_;
      if (pos_ >= s_.size() || !identStart(s_[pos_])) fail("expected a key");
      while (pos_ < s_.size() && identChar(s_[pos_])) ++pos_;
      if (pos_ + 1 < s_.size() && s_[pos_] == '.' && (identStart(s_[pos_ + 1]) || s_[pos_ + 1] == '@')) {
        ++pos_;
        continue;
      }
      break;
    }
    return std::string(s_.substr(start, pos_ - start));
  }

  std::string parseString() {
    char quote = s_[pos_];
    size_t start = pos_++;
    std::string out;
    while (pos_ < s_.size() && s_[pos_] != quote) {
      char c = s_[pos_++];
      if (c != '\\') {
        out.push_back(c);
        continue;
      }
      if (pos_ >= s_.size()) break;
      char e = s_[pos_++];
      switch (e) {
        case 'n':
          out.push_back('\n');
          break;
        case 't':
          out.push_back('\t');
          break;
        case 'r':
          out.push_back('\r');
          break;
        case '0':
          out.push_back('\0');
          break;
        default:
          out.push_back(e);
          break;
      }
    }
    if (pos_ >= s_.size()) {
      pos_ = start;
      fail("unterminated string");
    }
    ++pos_;
    return out;
  }

  Value parseNumber() {
    size_t start = pos_;
    if (s_[pos_] == '-' || s_[pos_] == '+') ++pos_;
    bool isFloat = false;
    size_t digits = 0;
    while (pos_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[pos_]))) ++pos_, ++digits;
    if (pos_ < s_.size() && s_[pos_] == '.') {
      isFloat = true;
      ++pos_;
      while (pos_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[pos_]))) ++pos_, ++digits;
    }
    if (digits == 0) {
      pos_ = start;
      fail("expected a number");
    }
    if (pos_ < s_.size() && (s_[pos_] == 'e' || s_[pos_] == 'E')) {
      size_t at = pos_++;
      if (pos_ < s_.size() && (s_[pos_] == '-' || s_[pos_] == '+')) ++pos_;
      size_t expDigits = 0;
      while (pos_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[pos_]))) ++pos_, ++expDigits;
      if (expDigits == 0) {
        pos_ = at;
        fail("expected digits of an exponent");
      }
      isFloat = true;
    }
    if (pos_ < s_.size() && identChar(s_[pos_])) fail("unexpected character after a number");
    std::string text(s_.substr(start, pos_ - start));
    if (!text.empty() && text[0] == '+') text.erase(0, 1);
    if (!isFloat) {
      long long v = 0;
      auto [p, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
      if (ec == std::errc() && p == text.data() + text.size()) return Value(v);
    }
    return Value(std::strtod(text.c_str(), nullptr));
  }

  Operand parseAggregate(int depth) {
    enter(depth);
    ++pos_;  // '{'
    Operand o;
    o.kind = Operand::Kind::Aggregate;
    o.aggregate = true;
    if (acceptSymbol("}")) return o;
    for (;;) {
      if (o.items.size() > 100000) fail("too many values in an aggregate");
      o.items.push_back(parseOperand(depth + 1));
      if (acceptSymbol("}")) break;
      if (!acceptSymbol(",")) fail("expected ',' or '}'");
    }
    // An aggregate of constants is itself a constant, evaluated once.
    bool allConstant = true;
    for (const auto& item : o.items) allConstant = allConstant && item.kind == Operand::Kind::Constant;
    if (allConstant) {
      std::vector<Value> values;
      for (auto& item : o.items) values.push_back(item.constant);
      Operand folded = constant(Value::array(std::move(values)));
      folded.aggregate = true;
      folded.items = std::move(o.items);
      return folded;
    }
    return o;
  }

  // CAST(<number or date string or %@>, "NSDate")
  Operand parseCast(size_t at) {
    skipSpace();
    Value source;
    if (pos_ < s_.size() && (s_[pos_] == '\'' || s_[pos_] == '"')) {
      source = Value(parseString());
    } else if (acceptSymbol("%@")) {
      source = nextArgument();
    } else if (pos_ < s_.size() && (std::isdigit(static_cast<unsigned char>(s_[pos_])) || s_[pos_] == '-' ||
                                    s_[pos_] == '+' || s_[pos_] == '.')) {
      source = parseNumber();
    } else {
      fail("CAST needs a number or a date string");
    }
    if (!acceptSymbol(",")) fail("expected ',' in CAST");
    skipSpace();
    if (pos_ >= s_.size() || (s_[pos_] != '\'' && s_[pos_] != '"')) fail("expected a class name in CAST");
    std::string className = parseString();
    if (!acceptSymbol(")")) fail("expected ')' after CAST");
    if (className != "NSDate") {
      pos_ = at;
      fail("CAST only makes dates (\"NSDate\")");
    }
    if (source.isDate()) return constant(source);
    if (source.isNumber() && !source.isBoolean()) return constant(Value::date(source.doubleValue()));
    if (source.isString()) {
      auto seconds = parseISODate(source.str());
      if (!seconds) {
        pos_ = at;
        fail("the date is not in the form 2024-01-31T12:00:00Z");
      }
      return constant(Value::date(*seconds));
    }
    pos_ = at;
    fail("CAST needs a number or a date string");
  }

  std::string_view s_;
  const std::vector<Value>& args_;
  size_t pos_ = 0;
  size_t nextArg_ = 0;
  std::vector<std::string>* keys_ = nullptr;
};

}  // namespace

std::optional<Predicate> Predicate::parse(std::string_view text, const std::vector<Value>& arguments, Error* error) {
  auto refuse = [&](size_t position, const std::string& reason) -> std::optional<Predicate> {
    setError(error, Error(kCorvaneErrorDomain, -1,
                          "Unable to parse the predicate at position " + std::to_string(position) + ": " + reason, {},
                          dict({{"position", Value(static_cast<long long>(position))}})));
    return std::nullopt;
  };
  if (text.size() > kMaxPredicateLength) return refuse(0, "the predicate is too long");
  std::vector<std::string> keys;
  try {
    Parser parser(text, arguments);
    Predicate p(parser.parse(&keys), std::string(text));
    p.keys_ = std::move(keys);
    return p;
  } catch (const ParseFailure& failure) {
    return refuse(failure.position, failure.reason);
  }
}

}  // namespace corvane
