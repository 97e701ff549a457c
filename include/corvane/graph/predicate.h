// corvane::Predicate — a condition on objects that answer valueForKey (managed objects, a
// store's fetch candidates, any corvane::Object; dictionaries through the Value overload).
//
// A predicate is a callable. Write one in code:
//
//   Predicate p([](const Object& o) { return o.valueForKey("done").boolValue(); });
//
// or parse the text form, which is what fetch requests built at run time and the command-line
// tool use:
//
//   auto p = Predicate::parse("title BEGINSWITH[c] %@ AND (priority >= 2 OR tags.name CONTAINS 'x')",
//                             {Value("Re")}, &error);
//
// Text form: comparisons = == != <> < <= > >=; AND (&&), OR (||), NOT (!); parentheses;
// BEGINSWITH, ENDSWITH, CONTAINS, LIKE (with ? and *), MATCHES is not supported; the [c]
// (case-insensitive), [d] (diacritic-insensitive) and [cd] modifiers; IN with an aggregate
// {a, b, c} or an argument; BETWEEN {low, high}; ANY / ALL / NONE over to-many key paths; key
// paths with dots and @count; string literals in single or double quotes with backslash
// escapes, numbers, TRUE/YES, FALSE/NO, NIL/NULL, TRUEPREDICATE, FALSEPREDICATE, dates as
// CAST(<seconds since 2001>, "NSDate") or CAST('2024-01-31T12:00:00Z', "NSDate"), and %@
// (also %K for a key path) arguments taken in order. Keywords are case-insensitive.
// Text that does not parse is refused with an error naming the byte position. The parser
// is bounded: nesting deeper than 200 levels and texts longer than 1 MiB are refused.
//
// Threads: a Predicate is immutable once made and may be evaluated on any thread, as far as
// the objects it looks at may be read there.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"

namespace corvane {

class Predicate {
 public:
  using Function = std::function<bool(const Object& object)>;

  // The predicate that accepts everything.
  Predicate();
  explicit Predicate(Function function, std::string format = {});

  static std::optional<Predicate> parse(std::string_view text, const std::vector<Value>& arguments = {},
                                        Error* error = nullptr);
  static Predicate truePredicate();
  static Predicate falsePredicate();
  // Combinations, as AND / OR / NOT would build them.
  static Predicate andPredicate(std::vector<Predicate> parts);
  static Predicate orPredicate(std::vector<Predicate> parts);
  static Predicate notPredicate(Predicate part);

  bool evaluate(const Object& object) const { return function_(object); }
  // Evaluates against a dictionary (its entries answer the keys) or an object value.
  bool evaluate(const Value& value) const;
  bool operator()(const Object& object) const { return function_(object); }
  // The text the predicate was parsed from, or the format given in code ("" when none).
  const std::string& format() const { return format_; }
  // The first key of every key path the predicate compares, for parsed predicates (stores
  // use it to decide which values a candidate needs). Empty for predicates made in code.
  const std::vector<std::string>& keys() const { return keys_; }

 private:
  Function function_;
  std::string format_;
  std::vector<std::string> keys_;
};

// Follows a dotted key path: each step asks the current object's valueForKey (or a
// dictionary's entry); through a collection, each element is asked and the answers are
// collected (flattened one level). "@count" answers the number of elements. Nil when a step
// finds nothing.
Value valueForKeyPath(const Object& root, std::string_view keyPath);
Value valueForKeyPath(const Value& root, std::string_view keyPath);

// A dictionary seen as an object answering valueForKey with its entries.
class DictionaryObject final : public Object {
 public:
  explicit DictionaryObject(Value dictionary) : dictionary_(std::move(dictionary)) {}
  std::string className() const override { return "NSDictionary"; }
  Value valueForKey(std::string_view key) const override { return dictionary_[key]; }

 private:
  Value dictionary_;
};

}  // namespace corvane
