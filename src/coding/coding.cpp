// The keyed-coding bridge (FCNSCoder, FCNSDecoder), the class registry and the two stand-in
// classes for coded objects of unknown classes and for keyed archives.
#include "corvane/coding/coding.h"

#include <algorithm>
#include <mutex>

#include "coding/fast_internal.h"

namespace corvane {

// ---- FCNSCoder ----------------------------------------------------------------------------

void FCNSCoder::put(const Value& object, std::string_view key) {
  if (record_ != nullptr) {
    record_->emplace_back(object, Value(key));
    return;
  }
  writer_->writeHandedOver(object);
  writer_->writeImmutableString(key);
}

void FCNSCoder::encodeObject(const Value& object, std::string_view key) {
  if (object.isNil()) return;
  put(object, key);
}

void FCNSCoder::encodeObjectWithKeyValue(const Value& object, const Value& key) {
  if (object.isNil()) return;
  if (record_ != nullptr) {
    record_->emplace_back(object, key);
    return;
  }
  writer_->writeHandedOver(object);
  writer_->writeHandedOver(key);
}

void FCNSCoder::encodeConditionalObject(const Value& object, std::string_view key) {
  if (record_ != nullptr) {
    // Nothing has been written when recording, so nothing qualifies.
    return;
  }
  if (!writer_->isInObjectTable(object)) return;
  writer_->writeObjectAlias(object);
  writer_->writeImmutableString(key);
}

void FCNSCoder::encodeBool(bool v, std::string_view key) {
  if (record_ != nullptr) return put(Value::boolean(v), key);
  writer_->writeNumberOfKind(NumberKind::Bool, v ? 1 : 0, 0);
  writer_->writeImmutableString(key);
}

void FCNSCoder::encodeInt(int v, std::string_view key) { encodeInt32(v, key); }

void FCNSCoder::encodeInt32(int32_t v, std::string_view key) {
  if (record_ != nullptr) return put(Value::number(NumberKind::Int, v), key);
  writer_->writeNumberOfKind(NumberKind::Int, v, 0);
  writer_->writeImmutableString(key);
}

void FCNSCoder::encodeInteger(int64_t v, std::string_view key) { encodeInt64(v, key); }

void FCNSCoder::encodeInt64(int64_t v, std::string_view key) {
  if (record_ != nullptr) return put(Value::number(NumberKind::LongLong, v), key);
  writer_->writeNumberOfKind(NumberKind::LongLong, v, 0);
  writer_->writeImmutableString(key);
}

void FCNSCoder::encodeFloat(float v, std::string_view key) {
  if (record_ != nullptr) return put(Value::floatNumber(v), key);
  writer_->writeNumberOfKind(NumberKind::Float, 0, v);
  writer_->writeImmutableString(key);
}

void FCNSCoder::encodeDouble(double v, std::string_view key) {
  if (record_ != nullptr) return put(Value::doubleNumber(v), key);
  writer_->writeNumberOfKind(NumberKind::Double, 0, v);
  writer_->writeImmutableString(key);
}

void FCNSCoder::encodeBytes(ByteView bytes, std::string_view key) {
  if (record_ != nullptr) return put(Value::data(bytes), key);
  writer_->writeFreshData(bytes);
  writer_->writeImmutableString(key);
}

std::vector<std::pair<Value, Value>> FCNSCoder::recordPairs(const FastCodingObject& object) {
  std::vector<std::pair<Value, Value>> pairs;
  FCNSCoder coder(&pairs);
  object.encodeWithCoder(coder);
  return pairs;
}

// ---- FCNSDecoder --------------------------------------------------------------------------

const FCNSDecoder::Pairs& FCNSDecoder::properties() const {
  static const Pairs none;
  return properties_ != nullptr ? *properties_ : none;
}

const Value* FCNSDecoder::find(std::string_view key) const {
  if (properties_ == nullptr) return nullptr;
  // A later pair with the same key wins, as storing into a dictionary would.
  for (auto it = properties_->rbegin(); it != properties_->rend(); ++it)
    if (it->first.isString() && it->first.str() == key) return &it->second;
  return nullptr;
}

bool FCNSDecoder::containsValueForKey(std::string_view key) const { return find(key) != nullptr; }

Value FCNSDecoder::decodeObjectForKey(std::string_view key) const {
  const Value* v = find(key);
  return v != nullptr ? *v : Value();
}

bool FCNSDecoder::decodeBoolForKey(std::string_view key) const {
  const Value* v = find(key);
  return v != nullptr && v->boolValue();
}

int FCNSDecoder::decodeIntForKey(std::string_view key) const { return decodeInt32ForKey(key); }

int64_t FCNSDecoder::decodeIntegerForKey(std::string_view key) const { return decodeInt64ForKey(key); }

int32_t FCNSDecoder::decodeInt32ForKey(std::string_view key) const {
  const Value* v = find(key);
  return v != nullptr ? v->intValue() : 0;
}

int64_t FCNSDecoder::decodeInt64ForKey(std::string_view key) const {
  const Value* v = find(key);
  return v != nullptr ? v->longLongValue() : 0;
}

float FCNSDecoder::decodeFloatForKey(std::string_view key) const {
  const Value* v = find(key);
  return v != nullptr ? v->floatValue() : 0.0f;
}

double FCNSDecoder::decodeDoubleForKey(std::string_view key) const {
  const Value* v = find(key);
  return v != nullptr ? v->doubleValue() : 0.0;
}

ByteView FCNSDecoder::decodeBytesForKey(std::string_view key, size_t* length) const {
  const Value* v = find(key);
  ByteView bytes = v != nullptr ? v->bytes() : ByteView();
  if (length != nullptr) *length = bytes.size();
  return bytes;
}

// ---- Objects ------------------------------------------------------------------------------

void FastCodingObject::encodeWithCoder(FCNSCoder&) const {}

void UnknownCodedObject::encodeWithCoder(FCNSCoder& coder) const {
  for (const auto& [key, value] : pairs_) coder.encodeObjectWithKeyValue(value, key);
}

Value UnknownCodedObject::valueForKey(std::string_view key) const {
  for (auto it = pairs_.rbegin(); it != pairs_.rend(); ++it)
    if (it->first.isString() && it->first.str() == key) return it->second;
  return Value();
}

std::optional<Bytes> KeyedArchiveObject::keyedArchive() const {
  if (!archive_.isData()) return std::nullopt;
  ByteView b = archive_.bytes();
  return Bytes(b.begin(), b.end());
}

void KeyedArchiveObject::encodeWithCoder(FCNSCoder& coder) const { coder.encodeObject(archive_, "archive"); }

Value KeyedArchiveObject::valueForKey(std::string_view key) const { return key == "archive" ? archive_ : Value(); }

// ---- ClassRegistry ------------------------------------------------------------------------

ClassRegistry& ClassRegistry::shared() {
  static ClassRegistry* registry = [] {
    auto* r = new ClassRegistry();
    ClassInfo archive;
    archive.name = kKeyedArchiveClassName;
    archive.createWithCoder = [](FCNSDecoder& decoder) {
      return Value::object(new KeyedArchiveObject(decoder.decodeObjectForKey("archive")));
    };
    r->registerClass(std::move(archive));
    return r;
  }();
  return *registry;
}

void ClassRegistry::registerClass(ClassInfo info) {
  WriterMutexLock lock(&mutex_);
  auto owned = std::make_unique<ClassInfo>(std::move(info));
  byName_[owned->name] = owned.get();
  all_.push_back(std::move(owned));
  aggregated_.clear();  // a new superclass may change what subclasses aggregate
}

const ClassInfo* ClassRegistry::find(std::string_view name) const {
  ReaderMutexLock lock(&mutex_);
  auto it = byName_.find(std::string(name));
  return it != byName_.end() ? it->second : nullptr;
}

std::vector<std::string> ClassRegistry::aggregatePropertyKeys(std::string_view name) const {
  {
    ReaderMutexLock lock(&mutex_);
    auto it = byName_.find(std::string(name));
    if (it == byName_.end()) return {};
    auto cached = aggregated_.find(it->second);
    if (cached != aggregated_.end()) return cached->second;
  }
  WriterMutexLock lock(&mutex_);
  auto it = byName_.find(std::string(name));
  if (it == byName_.end()) return {};
  std::vector<std::string> keys;
  const ClassInfo* info = it->second;
  // Subclass first; a broken chain (a cycle of superclass names) stops at the first repeat.
  std::vector<const ClassInfo*> seen;
  while (info != nullptr && std::find(seen.begin(), seen.end(), info) == seen.end()) {
    seen.push_back(info);
    keys.insert(keys.end(), info->fastCodingKeys.begin(), info->fastCodingKeys.end());
    if (info->superclassName.empty()) break;
    auto super = byName_.find(info->superclassName);
    info = super != byName_.end() ? super->second : nullptr;
  }
  aggregated_[it->second] = keys;
  return keys;
}

}  // namespace corvane
