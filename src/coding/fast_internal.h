// Private pieces of the FastCoding writer and reader: the flat hash tables the writer aliases
// with, the wire constants, and the two engines behind FCNSCoder and FCNSDecoder.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "corvane/coding/coding.h"
#include "corvane/coding/fast_coder.h"
#include "corvane/foundation/bytes.h"
#include "corvane/foundation/value.h"

static_assert(std::endian::native == std::endian::little, "FastCoding is written with little-endian stores");

namespace corvane::detail {

inline constexpr uint32_t kFastIdentifier = 0x46415354;
inline constexpr uint16_t kFastMajor = 3;
inline constexpr uint16_t kFastMinor = 3;
inline constexpr size_t kFastHeaderSize = 20;
// Deeper graphs than this are refused rather than risking the stack on hostile input.
inline constexpr int kFastMaxDepth = 2000;

enum FastType : uint8_t {
  kNil = 0,
  kNull,
  kAlias8,
  kAlias16,
  kAlias32,
  kStringAlias8,
  kStringAlias16,
  kStringAlias32,
  kString,
  kDictionary,
  kArray,
  kSet,
  kOrderedSet,
  kTrue,
  kFalse,
  kInt8,
  kInt16,
  kInt32,
  kInt64,
  kFloat32,
  kFloat64,
  kData,
  kLegacyDate,
  kMutableString,
  kMutableDictionary,
  kMutableArray,
  kMutableSet,
  kMutableOrderedSet,
  kMutableData,
  kClassDefinition,
  kObject8,
  kObject16,
  kObject32,
  kURL,
  kPoint,
  kSize,
  kRect,
  kRange,
  kVector,
  kAffineTransform,
  kTransform3D,
  kMutableIndexSet,
  kIndexSet,
  kCodedObject,
  kDecimalNumber,
  kOne,
  kZero,
  kKeyedArchive,
  kDate,
  kFastTypeCount
};

[[noreturn]] void throwEOF(size_t offset);
[[noreturn]] void throwUnknownType(unsigned type);
[[noreturn]] void throwBadIndex(uint64_t index, uint64_t count);
[[noreturn]] void throwTooDeep();
[[noreturn]] void throwCycle(uint64_t index);

// What a parse accepts beyond well-formed bytes.
struct ReadRules {
  bool propertyListOnly = false;  // refuse objects of classes and nil values
  bool refuseCycles = false;      // refuse a container that holds itself
};

// The object-table slots of the containers whose content a reader is still reading, innermost
// last (so in ascending order). An alias to one of them would put that container inside
// itself: a cycle reference counting never frees. Readers of stored data refuse it.
class OpenContainers {
 public:
  explicit OpenContainers(bool refuse) : refuse_(refuse) {}

  class [[nodiscard]] Scope {
   public:
    explicit Scope(std::vector<uint64_t>* slots) : slots_(slots) {}
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope() {
      if (slots_ != nullptr) slots_->pop_back();
    }

   private:
    std::vector<uint64_t>* slots_;
  };

  // `slot` stays open while the returned scope lives.
  Scope open(uint64_t slot) {
    if (!refuse_) return Scope(nullptr);
    slots_.push_back(slot);
    return Scope(&slots_);
  }
  void checkAlias(uint64_t index) const {
    if (refuse_ && std::binary_search(slots_.begin(), slots_.end(), index)) throwCycle(index);
  }

 private:
  bool refuse_;
  std::vector<uint64_t> slots_;
};

// The read position in a stream, shared by both readers: every read either fits in the
// input or throws the end-of-data exception, so no reader can run past the end. Values are
// little-endian, as this host's (see the static_assert above).
struct ByteCursor {
  const uint8_t* data;
  size_t size;
  size_t pos;

  size_t remaining() const { return pos < size ? size - pos : 0; }
  void need(size_t width) const {
    if (pos > size || width > size - pos) throwEOF(pos);
  }
  void alignTo(size_t a) {
    size_t r = pos % a;
    if (r != 0) pos += a - r;
  }
  template <class T>
  T take() {
    need(sizeof(T));
    T v;
    std::memcpy(&v, data + pos, sizeof(T));
    pos += sizeof(T);
    return v;
  }
  template <class T>
  T takeAligned() {
    alignTo(sizeof(T));
    return take<T>();
  }
  uint8_t takeByte() {
    if (pos >= size) throwEOF(pos);
    return data[pos++];
  }
  // Skips `width` bytes and answers where they start.
  const uint8_t* takeBytes(size_t width) {
    need(width);
    const uint8_t* start = data + pos;
    pos += width;
    return start;
  }
  // The bytes from here up to the next NUL (which must exist), without moving.
  std::string_view peekCString() const {
    if (pos >= size) throwEOF(pos);
    const void* nul = std::memchr(data + pos, 0, size - pos);
    if (nul == nullptr) throwEOF(pos);
    return std::string_view(reinterpret_cast<const char*>(data + pos), static_cast<const uint8_t*>(nul) - (data + pos));
  }
};

inline uint64_t mixHash(uint64_t h) {
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdULL;
  h ^= h >> 33;
  return h;
}

inline uint64_t hashBytes(std::string_view s) {
  uint64_t h = 0x9E3779B97F4A7C15ULL ^ s.size();
  const char* p = s.data();
  size_t n = s.size();
  while (n >= 8) {
    uint64_t w;
    std::memcpy(&w, p, 8);
    h = (h ^ w) * 0x100000001B3ULL;
    h ^= h >> 29;
    p += 8;
    n -= 8;
  }
  uint64_t w = 0;
  std::memcpy(&w, p, n);
  h = (h ^ w) * 0x100000001B3ULL;
  return mixHash(h);
}

// Open-addressing map from a node's address to its table index; addresses are never removed.
class PointerIndexMap {
 public:
  PointerIndexMap() { slots_.resize(64); }
  // The index stored for key, or -1.
  int64_t find(const void* key) const {
    size_t mask = slots_.size() - 1;
    for (size_t i = slot(key) & mask;; i = (i + 1) & mask) {
      const Slot& s = slots_[i];
      if (s.key == key) return s.index;
      if (s.key == nullptr) return -1;
    }
  }
  // Stores key -> index unless the key is there already.
  void insert(const void* key, uint32_t index) {
    if ((size_ + 1) * 4 > slots_.size() * 3) grow();
    size_t mask = slots_.size() - 1;
    for (size_t i = slot(key) & mask;; i = (i + 1) & mask) {
      Slot& s = slots_[i];
      if (s.key == key) return;
      if (s.key == nullptr) {
        s.key = key;
        s.index = index;
        ++size_;
        return;
      }
    }
  }

 private:
  struct Slot {
    const void* key = nullptr;
    uint32_t index = 0;
  };
  static size_t slot(const void* key) { return mixHash(reinterpret_cast<uintptr_t>(key)); }
  void grow() {
    std::vector<Slot> old(slots_.size() * 2);
    old.swap(slots_);
    size_ = 0;
    for (const Slot& s : old)
      if (s.key != nullptr) insert(s.key, s.index);
  }
  std::vector<Slot> slots_;
  size_t size_ = 0;
};

// Open-addressing map from string contents to a table index. Keys are copied into an arena,
// so the strings may go away while the map lives. A 16-byte slot holds part of the hash, the
// index and where the text lies, so a lookup touches one slot and, on a match, the text.
class StringIndexMap {
 public:
  StringIndexMap() { slots_.resize(1024); }
  int64_t find(std::string_view key, uint64_t hash) const {
    size_t mask = slots_.size() - 1;
    auto tag = static_cast<uint32_t>(hash >> 32) | 1;  // never 0, which marks an empty slot
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
      const Slot& s = slots_[i];
      if (s.tag == 0) return -1;
      if (s.tag == tag && s.length == key.size() && std::memcmp(arena_.data() + s.offset, key.data(), key.size()) == 0)
        return s.index;
    }
  }
  // Returns false, storing nothing, when the arena would pass 4 GiB; the caller then simply
  // writes later equal strings again.
  bool insert(std::string_view key, uint64_t hash, uint32_t index) {
    if (arena_.size() + key.size() > UINT32_MAX) return false;
    if ((size_ + 1) * 4 > slots_.size() * 3) grow();
    place(Slot{static_cast<uint32_t>(hash >> 32) | 1, index, static_cast<uint32_t>(arena_.size()),
               static_cast<uint32_t>(key.size())},
          hash);
    arena_.append(key);
    ++size_;
    return true;
  }

 private:
  struct Slot {
    uint32_t tag = 0;  // the hash's high 32 bits with the lowest set; 0: empty
    uint32_t index = 0;
    uint32_t offset = 0;
    uint32_t length = 0;
  };
  void place(const Slot& n, uint64_t hash) {
    size_t mask = slots_.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
      if (slots_[i].tag == 0) {
        slots_[i] = n;
        return;
      }
    }
  }
  void grow() {
    std::vector<Slot> old(slots_.size() * 2);
    old.swap(slots_);
    for (const Slot& s : old)
      if (s.tag != 0) place(s, hashBytes(std::string_view(arena_.data() + s.offset, s.length)));
  }
  std::vector<Slot> slots_;
  std::string arena_;
  size_t size_ = 0;
};

// The writer: one per dataWithRootObject call. FCNSCoder forwards to it.
class FastWriter {
 public:
  explicit FastWriter(const Value& root);
  Bytes finish();

  void write(const Value& v);
  // Writes a value that user code handed over (a getter's result, a coder argument, what a
  // key path found). The table keys nodes by address, so such a node is retained until the
  // end, as the platform's autorelease scope keeps objects alive: a node freed during the walk
  // must not pass its address, and so its index, to a later node.
  void writeHandedOver(const Value& v) {
    if (v.identity() != nullptr) retained_.push_back(v);
    write(v);
  }
  void writeImmutableString(std::string_view s);
  void writeFreshData(ByteView bytes);  // a data object nothing else can alias
  void writeNumberOfKind(NumberKind kind, int64_t i, double d);
  bool isInObjectTable(const Value& v) const { return v.identity() != nullptr && objects_.find(v.identity()) >= 0; }
  void writeObjectAlias(const Value& v);  // v must be in the table

 private:
  struct DictClass {  // the class definition of "$class" dictionaries of one name
    std::string name;
    std::vector<std::string> keys;
  };
  struct ClassEntry {
    uint32_t index;
    std::vector<std::string> keys;
  };

  // Growing output; space past len_ is zero-filled by resize().
  uint8_t* grow(size_t n) {
    if (len_ + n > buf_.size()) buf_.resize(std::max(buf_.size() * 2, len_ + n));
    uint8_t* p = buf_.data() + len_;
    len_ += n;
    return p;
  }
  void byte(uint8_t b) { *grow(1) = b; }
  void align(size_t a) {
    size_t r = len_ % a;
    if (r != 0) std::memset(grow(a - r), 0, a - r);
  }
  template <class T>
  void raw(T v) {
    std::memcpy(grow(sizeof(T)), &v, sizeof(T));
  }
  void cstring(std::string_view s) {
    uint8_t* p = grow(s.size() + 1);
    std::memcpy(p, s.data(), s.size());
    p[s.size()] = 0;
  }

  // Writes an alias when v's node is in the object table. A node can be met twice only
  // through two handles, or through one that user code hands over twice, and such handles
  // are retained (writeHandedOver), so a node that no other handle holds is not looked up.
  bool objectAlias(const Value& v) {
    if (static_cast<const detail::Node*>(v.identity())->refCount() < 2) return false;
    int64_t i = objects_.find(v.identity());
    if (i < 0) return false;
    writeIndexedAlias(kAlias8, static_cast<uint32_t>(i));
    return true;
  }
  void registerObject(const Value& v) { objects_.insert(v.identity(), objectCount_++); }
  // Takes an object index for something that is never referred to again.
  void registerSlot() { ++objectCount_; }
  void writeIndexedAlias(uint8_t code8, uint32_t index);
  void writeNumber(const Value& v);
  void writeInteger32(int32_t v, bool boolean);
  void writeInteger64(int64_t v);
  void writeString(const Value& v);
  void writeData(const Value& v);
  void writeCollection(const Value& v, uint8_t immutableCode, uint8_t mutableCode);
  void writeDictionary(const Value& v);
  void writeAliasDictionary(const Value& path);
  void writeClassDictionary(const Value& v);
  void writeObject(const Value& v);
  void writeClassIndex(uint32_t index);
  void writeIndexSet(const Value& v);
  void writeURL(const Value& v);
  void writeStructure(const Value& v);

  const Value& root_;
  Bytes buf_;
  size_t len_ = 0;
  int depth_ = 0;
  PointerIndexMap objects_;
  uint32_t objectCount_ = 0;
  std::vector<Value> retained_;
  StringIndexMap strings_;
  // Shared string nodes (dictionary keys) resolve by address before their text is hashed.
  struct StringNodeSlot {
    const void* node = nullptr;
    uint32_t index = 0;
  };
  std::array<StringNodeSlot, 1024> stringNodes_{};
  std::unordered_map<Value, uint32_t, ValueHash> urls_;
  uint32_t stringCount_ = 0;
  std::unordered_map<std::string, ClassEntry> classes_;  // classes of registered objects
  std::unordered_map<const DictClass*, uint32_t> dictClassIndex_;
  std::unordered_map<std::string, DictClass*> dictClassesByName_;
  std::vector<std::unique_ptr<DictClass>> dictClasses_;
  uint32_t classCount_ = 0;
};

// The reader of major version 3: one per parse. FCNSDecoder answers from its pairs.
class FastReader {
 public:
  FastReader(ByteView data, ReadRules rules);
  // Reads the counts and the root; may throw corvane::Exception.
  Value parse();

  Value readObject();
  // Every node this parse registered (objects, strings, URLs).
  std::vector<Value> nodes() const;

 private:
  using Constructor = Value (*)(FastReader&);
  struct ClassDef {
    std::string name;
    std::vector<Value> keys;  // immutable strings, shared by every object of the class
    const ClassInfo* info = nullptr;
    bool resolved = false;
  };

  std::string_view takeCString();
  uint32_t capacityFor(uint64_t count, size_t bytesPerItem) const;

  Value aliasFrom(const std::vector<Value>& table, uint64_t index) const;
  Value readStringValue(bool mutableNode);
  Value readDictionary(bool mutableNode);
  Value readCollection(ValueKind kind, bool mutableNode);
  Value readDataPayload(bool mutableNode);
  Value readClassDefinition();
  Value readCustomObject(uint32_t classIndex);
  Value readURL();
  Value readIndexSet(bool mutableNode);
  Value readCodedObject();
  Value readKeyedArchive();
  Value readDecimal();

  static const Constructor* table(bool propertyListOnly);
  static Value c_nil(FastReader&);
  static Value c_null(FastReader&);
  static Value c_alias8(FastReader&);
  static Value c_alias16(FastReader&);
  static Value c_alias32(FastReader&);
  static Value c_stringAlias8(FastReader&);
  static Value c_stringAlias16(FastReader&);
  static Value c_stringAlias32(FastReader&);
  static Value c_string(FastReader&);
  static Value c_dictionary(FastReader&);
  static Value c_array(FastReader&);
  static Value c_set(FastReader&);
  static Value c_orderedSet(FastReader&);
  static Value c_true(FastReader&);
  static Value c_false(FastReader&);
  static Value c_int8(FastReader&);
  static Value c_int16(FastReader&);
  static Value c_int32(FastReader&);
  static Value c_int64(FastReader&);
  static Value c_float32(FastReader&);
  static Value c_float64(FastReader&);
  static Value c_data(FastReader&);
  static Value c_legacyDate(FastReader&);
  static Value c_mutableString(FastReader&);
  static Value c_mutableDictionary(FastReader&);
  static Value c_mutableArray(FastReader&);
  static Value c_mutableSet(FastReader&);
  static Value c_mutableOrderedSet(FastReader&);
  static Value c_mutableData(FastReader&);
  static Value c_classDefinition(FastReader&);
  static Value c_object8(FastReader&);
  static Value c_object16(FastReader&);
  static Value c_object32(FastReader&);
  static Value c_url(FastReader&);
  static Value c_point(FastReader&);
  static Value c_size(FastReader&);
  static Value c_rect(FastReader&);
  static Value c_range(FastReader&);
  static Value c_vector(FastReader&);
  static Value c_affineTransform(FastReader&);
  static Value c_transform3D(FastReader&);
  static Value c_mutableIndexSet(FastReader&);
  static Value c_indexSet(FastReader&);
  static Value c_codedObject(FastReader&);
  static Value c_decimal(FastReader&);
  static Value c_one(FastReader&);
  static Value c_zero(FastReader&);
  static Value c_keyedArchive(FastReader&);
  static Value c_date(FastReader&);

  // Scratch vectors for immutable containers, one per nesting level, kept for the whole
  // parse so that building a container costs no allocation beyond its own node.
  template <class T>
  class Scratch {
   public:
    std::vector<T>& acquire() {
      if (depth_ == levels_.size()) levels_.emplace_back();
      std::vector<T>& v = levels_[depth_++];
      v.clear();
      return v;
    }
    void release() { --depth_; }

   private:
    std::deque<std::vector<T>> levels_;  // a deque keeps outer levels in place as it grows
    size_t depth_ = 0;
  };

  ByteCursor in_;
  const Constructor* constructors_;
  Scratch<Value> scratchItems_;
  Scratch<std::pair<Value, Value>> scratchEntries_;
  int depth_ = 0;
  OpenContainers open_;
  std::vector<Value> objects_;
  std::vector<Value> strings_;
  std::vector<ClassDef> classes_;
  std::vector<std::unique_ptr<FCNSDecoder::Pairs>> pool_;
  FCNSDecoder decoder_{nullptr};
  // Coded objects of one class usually name it through the same string node: look it up once.
  const void* lastCodedName_ = nullptr;
  const ClassInfo* lastCodedClass_ = nullptr;
};

// Shared by both readers.
bool isValidUTF8(std::string_view s);
// The object a keyed initialiser makes for `className` (whose class is `info`, null when not
// registered), or an UnknownCodedObject.
Value constructCodedObject(const ClassInfo* info, const Value& className, FCNSDecoder& decoder,
                           const FCNSDecoder::Pairs& pairs);
const ClassInfo* findCodedClass(const Value& className);
// The instance (or "$class" dictionary) for a property-coded class; info may be null.
Value constructPropertyObject(const ClassInfo* info, const std::string& name);
// Sets one property on what constructPropertyObject made.
void setPropertyValue(const Value& target, const Value& key, const Value& value);
// Applies awakeAfterFastCoding; returns the replacement or `object` itself.
Value awakeObject(const Value& object);

// Reads a stream of major version 2. Throws corvane::Exception on malformed input.
Value parseLegacyFastCoding(ByteView data, ReadRules rules, std::vector<Value>* nodes = nullptr);

// Mutable containers may hold themselves, and reference counting never frees such a cycle.
// Emptying every mutable container among `nodes` breaks them all; used for the partial graph
// of a failed parse, and by tests and the fuzz target for whole graphs.
void breakCycles(const std::vector<Value>& nodes);

// objectWithData / propertyListWithData that also hand out every node the parse registered,
// so that a caller can break cycles the root cannot reach (entries dropped for a nil key).
Value parseFastCoding(ByteView data, ReadRules rules, Error* error, std::vector<Value>* nodes);

}  // namespace corvane::detail
