// Attribute value transformers: the converters between the JSON-friendly values of change
// files and the model values kept in the cache and in objects.
//
// One transformer exists per value class of the model, found by name, so that a later format
// version can bring its own converter for a class while older change files keep theirs. The
// forward direction (transformedValue) turns a change-file value into a model value; the reverse
// direction (reverseTransformedValue) turns a model value into what a change file holds.
//
//   CorvaneNSStringValueTransformer        strings, copied both ways
//   CorvaneNSNumberValueTransformer        numbers travel as decimal text, come back as exact
//   CorvaneNSDecimalNumberValueTransformer   decimal numbers (0.1 stays 0.1)
//   CorvaneNSNumber800ValueTransformer     Booleans (attribute type 800), passed through
//   CorvaneNSDateValueTransformer          dates as "yyyy-MM-dd'T'HH:mm:ss.SSSZ" in GMT
//   CorvaneNSDateValueTransformer2         the same pattern in the device's zone (version 2)
//   CorvaneNSDataValueTransformer          binary values: only the name of their data file
//   CorvaneChangeCountValueTransformer     display only: "Inserted n, Updated n, Deleted n"
//
// Threads: transformers are immutable once made, and the registry is locked; everything here
// may be used from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "corvane/foundation/date_format.h"
#include "corvane/foundation/mutex.h"
#include "corvane/foundation/value.h"

namespace corvane {

class AttributeDescription;
class Env;

// The exception raised when an attribute's value class has no transformer.
inline constexpr const char* kNoTransformerException = "No Transformer";

class ValueTransformer {
 public:
  virtual ~ValueTransformer();
  virtual Value transformedValue(const Value& value) const = 0;
  // The default gives nil: a one-way transformer has no reverse.
  virtual Value reverseTransformedValue(const Value& value) const;
  virtual bool allowsReverseTransformation() const { return true; }
};

// The table of named transformers. A transformer is made from its registered factory on the
// first request for its name and kept; setValueTransformer() installs a ready instance (a
// host's own converter, or a test's date transformer on a fake clock).
class ValueTransformerRegistry {
 public:
  using Factory = std::function<std::shared_ptr<ValueTransformer>()>;

  // The process-wide registry, holding every transformer listed above.
  static ValueTransformerRegistry& shared();

  void registerFactory(std::string name, Factory factory);
  // Installs `transformer` under `name` (nullptr removes the instance; the factory, if any,
  // then makes a fresh one on the next request).
  void setValueTransformer(std::shared_ptr<ValueTransformer> transformer, std::string name);
  // The transformer of that name, or nullptr when none is registered.
  std::shared_ptr<ValueTransformer> valueTransformerForName(std::string_view name);

 private:
  ValueTransformerRegistry();
  Mutex mutex_;
  std::unordered_map<std::string, Factory> factories_ CORVANE_GUARDED_BY(mutex_);
  std::unordered_map<std::string, std::shared_ptr<ValueTransformer>> instances_ CORVANE_GUARDED_BY(mutex_);
};

// The transformer for an attribute: with c its value class name, t its attribute type number
// and v the version's description ("" for nil), the first registered of
// "Corvane<c><t>ValueTransformer<v>", "Corvane<c><t>ValueTransformer",
// "Corvane<c>ValueTransformer<v>", "Corvane<c>ValueTransformer". Throws
// Exception("No Transformer", "Not found: <last name tried>") when none is.
std::shared_ptr<ValueTransformer> CorvaneValueTransformerForAttribute(const AttributeDescription& attribute,
                                                                      const Value& version = Value());

// ---- The transformers --------------------------------------------------------------------

// Both ways the value as it stands, whatever its kind: a string attribute that another device
// sent as the number 123 stays the number 123 in the cache and in the object, so that saving
// the object again writes what was received. The host reads such a value through
// ManagedObject::stringValue, which gives the number's text ("123", "0.25"), or through
// Value::description(); Value::str() is "" for anything but a string. Nothing here converts,
// so no value can make this transformer fail.
class CorvaneNSStringValueTransformer : public ValueTransformer {
 public:
  Value transformedValue(const Value& value) const override;
  Value reverseTransformedValue(const Value& value) const override;
};

// Forward: the decimal number read from the value's text (a text that is no number gives
// not-a-number). Reverse: the value's text. Integer, floating-point and decimal attributes
// thus lose no digits on their way through JSON.
//
// Forward, value by value (the value's text is its description()):
//   "12.50", 12.5                     the decimal 12.5, exactly
//   "99999999999999999999999", "1e5"  the decimal of that value, whatever the attribute's type
//   "12abc", "twelve", "", a date     not-a-number (the text is no number as a whole)
//   true / false                      1 / 0 (a Boolean's text is "1" or "0")
//   "1e300", 1e-300                   a double: a well-formed number whose exponent is beyond
//                                     the decimal's range is a number all the same
// The cache keeps exactly this, so nothing a device sent is lost there.
//
// The type of an integer attribute applies when the object is given its value (the store's
// conversion to the attribute's number kind): the whole part, truncated toward zero, clamped
// to the type's range. So for an Integer16 attribute "99999999999999999999999" and "1e5" show
// 32767, -2.7 shows -2, true shows 1, not-a-number ("12abc") shows 0, and Integer32 shows
// "1e5" as 100000. Clamping, not wrapping and not keeping the wider number: the host was
// promised a value of the attribute's width and stores it in one; a wrapped value would flip
// sign and magnitude (99999999999999999999999 used to show as -1), while the clamped one is
// the nearest value the type can hold and keeps the order of values (a larger number never
// shows smaller). The exact value stays in the cache, so a model that widens the type later
// shows it in full.
class CorvaneNSNumberValueTransformer : public ValueTransformer {
 public:
  Value transformedValue(const Value& value) const override;
  Value reverseTransformedValue(const Value& value) const override;
};

class CorvaneNSDecimalNumberValueTransformer : public CorvaneNSNumberValueTransformer {};

// Booleans pass through as they are, in whatever form a change file holds them (true, 1,
// "YES"); the host's boolValue reads each (a nonzero number, or a text starting like "YES",
// "true" or a digit 1-9).
class CorvaneNSNumber800ValueTransformer : public ValueTransformer {
 public:
  Value transformedValue(const Value& value) const override;
  Value reverseTransformedValue(const Value& value) const override;
};

// Dates as text with their zone offset, so either formatter reads the other's text. A text
// that does not parse gives nil, which the cache item treats as a missing value.
class CorvaneNSDateValueTransformer : public ValueTransformer {
 public:
  CorvaneNSDateValueTransformer();
  Value transformedValue(const Value& value) const override;
  Value reverseTransformedValue(const Value& value) const override;

 protected:
  explicit CorvaneNSDateValueTransformer(DateTimeZone zone);

 private:
  DateFormatter formatter_;
};

// The version-2 date transformer: the writing device's zone is kept in the text.
class CorvaneNSDateValueTransformer2 : public CorvaneNSDateValueTransformer {
 public:
  // `env` gives the device's zone (nullptr: the default Env).
  explicit CorvaneNSDateValueTransformer2(Env* env = nullptr);
};

// Forward: the data file's name as it stands. Reverse: a new UUID string, the name under which
// the store writes the bytes; each call gives a new name.
class CorvaneNSDataValueTransformer : public ValueTransformer {
 public:
  explicit CorvaneNSDataValueTransformer(Env* env = nullptr);
  Value transformedValue(const Value& value) const override;
  Value reverseTransformedValue(const Value& value) const override;

 private:
  Env* env_;
};

// For the user interface: a change record as "Inserted 2, Updated 0, Deleted 1", counting the
// UIDs of every entity under "insert", "update" and "delete" of its "changes". One way only.
class CorvaneChangeCountValueTransformer : public ValueTransformer {
 public:
  Value transformedValue(const Value& value) const override;
  bool allowsReverseTransformation() const override { return false; }
};

}  // namespace corvane
