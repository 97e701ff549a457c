// The keyed-coding bridge and the class registry of FastCoding.
//
// FastCoding writes an object of a registered class in one of two ways:
//
//  * by keys: the object implements encodeWithCoder(), writing (value, key) pairs through an
//    FCNSCoder, and its class registers a keyed initialiser that rebuilds it from an
//    FCNSDecoder (type 43 in the byte stream);
//  * by properties: its class registers a plain factory and the names of the properties it
//    declares; the writer reads them with Object::valueForKey() and the reader sets them with
//    Object::setValueForKey() (types 29 to 32).
//
// ClassRegistry stands in for a runtime that can find a class by name. Registration normally
// happens once at start-up; lookups may come from any thread afterwards.
//
// FCNSCoder and FCNSDecoder exist only while one FastCoder call runs on one thread; an object
// must not keep them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "corvane/foundation/bytes.h"
#include "corvane/foundation/mutex.h"
#include "corvane/foundation/value.h"

namespace corvane {

namespace detail {
class FastWriter;
class FastReader;
}  // namespace detail

// The coder handed to encodeWithCoder(). Each call appends one (value, key) pair to the
// stream; numbers take the smallest code that holds them.
class FCNSCoder {
 public:
  FCNSCoder(const FCNSCoder&) = delete;
  FCNSCoder& operator=(const FCNSCoder&) = delete;

  bool allowsKeyedCoding() const { return true; }

  // Writes nothing when `object` is nil.
  void encodeObject(const Value& object, std::string_view key);
  // The same with a key of any kind (a nil key writes Nil), for pairs read from a stream.
  void encodeObjectWithKeyValue(const Value& object, const Value& key);
  // Writes the pair only when `object` was already written into this stream (as an alias).
  void encodeConditionalObject(const Value& object, std::string_view key);
  void encodeBool(bool v, std::string_view key);
  void encodeInt(int v, std::string_view key);
  void encodeInt32(int32_t v, std::string_view key);
  void encodeInteger(int64_t v, std::string_view key);  // the platform integer (64-bit)
  void encodeInt64(int64_t v, std::string_view key);
  void encodeFloat(float v, std::string_view key);
  void encodeDouble(double v, std::string_view key);
  void encodeBytes(ByteView bytes, std::string_view key);

  // Runs object.encodeWithCoder() against a coder that records the pairs instead of writing
  // them; used to show coded objects (dump) without a byte stream.
  static std::vector<std::pair<Value, Value>> recordPairs(const class FastCodingObject& object);

 private:
  friend class detail::FastWriter;
  explicit FCNSCoder(detail::FastWriter* writer) : writer_(writer) {}
  explicit FCNSCoder(std::vector<std::pair<Value, Value>>* record) : record_(record) {}
  void put(const Value& object, std::string_view key);

  detail::FastWriter* writer_ = nullptr;
  std::vector<std::pair<Value, Value>>* record_ = nullptr;
};

// The decoder handed to a keyed initialiser. It answers from the (key, value) pairs read for
// the object being built; nested coded objects each see their own pairs.
class FCNSDecoder {
 public:
  using Pairs = std::vector<std::pair<Value, Value>>;  // (key, value) in stream order

  // A decoder over given pairs, for building an object outside a byte stream (the JSON
  // notation does this).
  explicit FCNSDecoder(const Pairs* properties) : properties_(properties) {}
  FCNSDecoder(const FCNSDecoder&) = delete;
  FCNSDecoder& operator=(const FCNSDecoder&) = delete;

  bool allowsKeyedCoding() const { return true; }

  bool containsValueForKey(std::string_view key) const;
  Value decodeObjectForKey(std::string_view key) const;  // nil when missing
  bool decodeBoolForKey(std::string_view key) const;
  int decodeIntForKey(std::string_view key) const;
  int64_t decodeIntegerForKey(std::string_view key) const;
  int32_t decodeInt32ForKey(std::string_view key) const;
  int64_t decodeInt64ForKey(std::string_view key) const;
  float decodeFloatForKey(std::string_view key) const;
  double decodeDoubleForKey(std::string_view key) const;
  // The bytes of a data value (empty when missing); *length receives their count.
  ByteView decodeBytesForKey(std::string_view key, size_t* length = nullptr) const;

  const Pairs& properties() const;

 private:
  friend class detail::FastReader;
  const Value* find(std::string_view key) const;
  const Pairs* properties_ = nullptr;
};

// An Object subclass derives from this to take part in FastCoding beyond the defaults. A
// plain Object is written by properties with the defaults below.
class FastCodingObject : public Object {
 public:
  // True for classes that code themselves by keys (encodeWithCoder plus a keyed initialiser).
  virtual bool supportsKeyedCoding() const { return false; }
  virtual void encodeWithCoder(FCNSCoder& coder) const;

  // NO by default: keyed classes go by their keys unless they ask for properties.
  virtual bool preferFastCoding() const { return false; }
  // By default only an object whose class for coding is "NSColorSpace" asks for a keyed archive.
  virtual bool preferKeyedArchiver() const { return classForCoding() == "NSColorSpace"; }
  // The archive written when preferKeyedArchiver() holds; nullopt writes a Nil in its place.
  virtual std::optional<Bytes> keyedArchive() const { return std::nullopt; }
  // The class name written for this object (empty: none).
  virtual std::string classForCoding() const { return className(); }
  // The class whose property keys the property path writes.
  virtual std::string classForFastCoding() const { return classForCoding(); }
  // Called after the reader has set every property; a different object returned here takes
  // this one's place in the graph. The default keeps the receiver (returns nil).
  virtual Value awakeAfterFastCoding() { return Value(); }
};

// What a registered class tells the runtime stand-in.
struct ClassInfo {
  std::string name;
  std::string superclassName;  // empty for a root class
  // The keys of the properties this class itself declares, in declaration order. The
  // property path writes those of the class, then of its superclass, and so on.
  std::vector<std::string> fastCodingKeys;
  // The plain initialiser (property path); may be empty for keyed-only classes.
  std::function<Value()> create;
  // The keyed-decoding initialiser (type 43); may be empty for property-coded classes.
  std::function<Value(FCNSDecoder&)> createWithCoder;
};

class ClassRegistry {
 public:
  static ClassRegistry& shared();

  // Adds or replaces the class of that name. Pointers handed out earlier stay valid.
  void registerClass(ClassInfo info);
  // The class of that name, or nullptr.
  const ClassInfo* find(std::string_view name) const;
  // The fastCodingKeys of the class, then of its superclass, and so on; empty for an
  // unknown class. Cached per class after the first call.
  std::vector<std::string> aggregatePropertyKeys(std::string_view name) const;

 private:
  mutable SharedMutex mutex_;
  // Never shrinks, so pointers stay valid.
  std::vector<std::unique_ptr<ClassInfo>> all_ CORVANE_GUARDED_BY(mutex_);
  std::unordered_map<std::string, const ClassInfo*> byName_ CORVANE_GUARDED_BY(mutex_);
  mutable std::unordered_map<const ClassInfo*, std::vector<std::string>> aggregated_ CORVANE_GUARDED_BY(mutex_);
};

// Registers a class for the keyed path: T has a constructor T(FCNSDecoder&).
template <class T>
void registerKeyedClass(std::string name, std::string superclassName = {}) {
  ClassInfo info;
  info.name = std::move(name);
  info.superclassName = std::move(superclassName);
  info.createWithCoder = [](FCNSDecoder& decoder) { return Value::object(new T(decoder)); };
  ClassRegistry::shared().registerClass(std::move(info));
}

// Registers a class for the property path: T is default-constructible and answers
// valueForKey()/setValueForKey() for `keys`.
template <class T>
void registerPropertyClass(std::string name, std::vector<std::string> keys, std::string superclassName = {}) {
  ClassInfo info;
  info.name = std::move(name);
  info.superclassName = std::move(superclassName);
  info.fastCodingKeys = std::move(keys);
  info.create = [] { return Value::object(new T()); };
  ClassRegistry::shared().registerClass(std::move(info));
}

// A coded object (type 43) whose class is not registered. It keeps its class name and pairs
// and writes them back unchanged.
class UnknownCodedObject final : public FastCodingObject {
 public:
  UnknownCodedObject(std::string name, FCNSDecoder::Pairs pairs) : name_(std::move(name)), pairs_(std::move(pairs)) {}
  std::string className() const override { return name_; }
  bool supportsKeyedCoding() const override { return true; }
  void encodeWithCoder(FCNSCoder& coder) const override;
  Value valueForKey(std::string_view key) const override;
  const FCNSDecoder::Pairs& pairs() const { return pairs_; }

 private:
  std::string name_;
  FCNSDecoder::Pairs pairs_;  // (key, value)
};

// An object that arrived as a keyed archive (type 47). There is no platform archiver here, so
// it keeps the archive's bytes and writes them back as they came. Its class name is
// kKeyedArchiveClassName; its one property "archive" is the data.
inline constexpr const char* kKeyedArchiveClassName = "FCKeyedArchive";
class KeyedArchiveObject final : public FastCodingObject {
 public:
  explicit KeyedArchiveObject(Value archive) : archive_(std::move(archive)) {}
  std::string className() const override { return kKeyedArchiveClassName; }
  bool supportsKeyedCoding() const override { return true; }
  bool preferKeyedArchiver() const override { return true; }
  std::optional<Bytes> keyedArchive() const override;
  void encodeWithCoder(FCNSCoder& coder) const override;
  Value valueForKey(std::string_view key) const override;
  const Value& archive() const { return archive_; }

 private:
  Value archive_;  // data, or nil when the archive was missing
};

}  // namespace corvane
