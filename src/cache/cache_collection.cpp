#include "corvane/cache/cache_collection.h"

#include <unordered_set>

#include "corvane/cache/cache_store_services.h"
#include "corvane/coding/fast_coder.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/error.h"

namespace corvane {

namespace {

void requireKind(const Value& root, ValueKind kind, const char* what) {
  if (root.kind() != kind) {
    throw Exception("NSInvalidArgumentException", std::string("the file does not hold ") + what);
  }
}

// True when nobody but the collection holds the node, so it may be changed in place.
bool isUnshared(const Value& v) {
  const auto* node = static_cast<const detail::Node*>(v.identity());
  return node != nullptr && node->refCount() == 1;
}

// The elements of `content` that `collection` (an array, set or ordered set) does not hold, in
// one pass: removing them one at a time would re-index a large set once per removal.
std::vector<Value> withoutMembers(const Value& content, const Value& collection) {
  const std::unordered_set<Value, ValueHash> gone(collection.elements().begin(), collection.elements().end());
  std::vector<Value> kept;
  kept.reserve(content.count());
  for (const Value& v : content.elements()) {
    if (!gone.contains(v)) kept.push_back(v);
  }
  return kept;
}

// Appends the elements of `collection`; containers hold no nil.
void appendAll(Value& content, const Value& collection) {
  for (const Value& v : collection.elements()) {
    if (!v.isNil()) content.append(v);
  }
}

}  // namespace

// ---- Base ------------------------------------------------------------------------------------

CorvaneCacheCollection::CorvaneCacheCollection(CorvaneCacheStoreServices* store, std::string url)
    : store_(store), url_(std::move(url)) {}

CorvaneCacheCollection::~CorvaneCacheCollection() = default;

Value CorvaneCacheCollection::loadTransformer(const Value& root) const { return root; }
Value CorvaneCacheCollection::saveTransformer(const Value& content) const { return content; }

void CorvaneCacheCollection::loadIfNeeded() {
  RecursiveMutexLock lock(&mutex_);
  if (!content_.isNil()) return;
  CorvaneCacheItem::registerClass();
  Bytes bytes;
  Env* env = store_->env();
  if (!url_.empty() && env->readFile(filePath(), &bytes, nullptr)) {
    try {
      // A block that cannot be deciphered decodes as nothing, like an empty file.
      std::optional<Bytes> plain = store_->decrypt(bytes);
      Value root = plain ? FastCoder::acyclicObjectWithData(*plain) : Value();
      if (root.isNil()) {
        handleCorruption("FastCoder returned nil");
      } else {
        content_ = loadTransformer(root);
      }
    } catch (const Exception& e) {
      handleCorruption(e.reason());
    }
  }
  if (content_.isNil()) initContent();
}

std::optional<Bytes> CorvaneCacheCollection::encodedContent() {
  std::optional<Bytes> bytes = FastCoder::dataWithRootObject(saveTransformer(content_));
  if (!bytes) return std::nullopt;
  return store_->encrypt(*bytes);
}

bool CorvaneCacheCollection::saveIfNeeded() {
  RecursiveMutexLock lock(&mutex_);
  if (!invalid_ || url_.empty()) return true;  // a cache without a folder keeps its changes in memory
  Env* env = store_->env();
  std::optional<Bytes> bytes;
  try {
    bytes = encodedContent();
  } catch (const Exception&) {
    bytes.reset();  // a value the writer cannot encode: treated as a failed write
  }
  Error error;
  if (bytes && env->writeFileAtomically(filePath(), *bytes, &error)) {
    invalid_ = false;
    return true;
  }
  if (!error.empty()) store_->logError(error, "CorvaneCacheCollection");
  // Never leave a stale file behind that a later run would read as current.
  return !env->fileExists(filePath()) || env->removeItem(filePath(), nullptr);
}

bool CorvaneCacheCollection::removeSavedFile() {
  RecursiveMutexLock lock(&mutex_);
  invalid_ = true;
  if (url_.empty()) return true;
  Env* env = store_->env();
  return !env->fileExists(filePath()) || env->removeItem(filePath(), nullptr);
}

void CorvaneCacheCollection::saveInBundle() {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  std::optional<Bytes> bytes;
  try {
    bytes = encodedContent();
  } catch (const Exception&) {
    return;
  }
  if (!bytes || url_.empty()) return;
  std::string target = pathJoin(store_->cacheURL(), pathLastComponent(url_)) + ".fast";
  // The package's copy is a convenience for recovery, not a record: a failure is only logged.
  Error error;
  if (!store_->env()->writeFileAtomically(target, *bytes, &error)) store_->logError(error, "CorvaneCacheCollection");
}

void CorvaneCacheCollection::invalidate() {
  RecursiveMutexLock lock(&mutex_);
  invalid_ = true;
}

void CorvaneCacheCollection::removeFile() {
  // The path without the extension: the ".fast" file that failed stays, to be overwritten by
  // the next save (the collection is marked dirty right after this).
  if (!url_.empty() && store_->env()->fileExists(url_)) (void)store_->env()->removeItem(url_, nullptr);
}

void CorvaneCacheCollection::initContent() {
  RecursiveMutexLock lock(&mutex_);
  content_ = emptyContent();
}

void CorvaneCacheCollection::handleCorruption(const std::string& message) {
  RecursiveMutexLock lock(&mutex_);
  store_->log("Cache corruption detected in " + pathLastComponent(url_) + ": " + message, kCorvaneLogTypeError);
  removeFile();
  initContent();
  invalid_ = true;
  corruptionDetected_ = true;
}

bool CorvaneCacheCollection::isLoaded() const {
  RecursiveMutexLock lock(&mutex_);
  return !content_.isNil();
}

bool CorvaneCacheCollection::invalid() const {
  RecursiveMutexLock lock(&mutex_);
  return invalid_;
}

bool CorvaneCacheCollection::fromBundle() const {
  RecursiveMutexLock lock(&mutex_);
  return fromBundle_;
}

void CorvaneCacheCollection::setFromBundle(bool fromBundle) {
  RecursiveMutexLock lock(&mutex_);
  fromBundle_ = fromBundle;
}

bool CorvaneCacheCollection::corruptionDetected() const {
  RecursiveMutexLock lock(&mutex_);
  return corruptionDetected_;
}

size_t CorvaneCacheCollection::count() {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  return content_.count();
}

// ---- Dictionary ------------------------------------------------------------------------------

std::shared_ptr<CorvaneCacheDictionary> CorvaneCacheDictionary::dictionaryWithStore(CorvaneCacheStoreServices* store,
                                                                                    std::string url) {
  return std::shared_ptr<CorvaneCacheDictionary>(new CorvaneCacheDictionary(store, std::move(url)));
}

Value CorvaneCacheDictionary::loadTransformer(const Value& root) const {
  requireKind(root, ValueKind::Dictionary, "a dictionary");
  // The reader's fresh mutable dictionary is nobody else's; copying it would only cost time.
  return root.isMutable() && isUnshared(root) ? root : root.mutableCopy();
}

Value CorvaneCacheDictionary::emptyContent() const { return Value::mutableDictionary(); }

Value CorvaneCacheDictionary::content() {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  return content_;
}

Value CorvaneCacheDictionary::valueForKey(const Value& key) {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  return content_.get(key);
}

CorvaneCacheItemPtr CorvaneCacheDictionary::itemForKey(std::string_view uid) {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  return CorvaneCacheItemPtr::fromValue(content_.lookup(uid));
}

Value& CorvaneCacheDictionary::writableContent() {
  if (!isUnshared(content_)) content_ = content_.mutableCopy();
  return content_;
}

void CorvaneCacheDictionary::setValue(const Value& value, const Value& key) {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  writableContent().set(key.copy(), value);
  invalid_ = true;
}

void CorvaneCacheDictionary::removeObjectForKey(const Value& key) {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  writableContent().remove(key);
  invalid_ = true;
}

// ---- Array -----------------------------------------------------------------------------------

std::shared_ptr<CorvaneCacheArray> CorvaneCacheArray::arrayWithStore(CorvaneCacheStoreServices* store,
                                                                     std::string url) {
  return std::shared_ptr<CorvaneCacheArray>(new CorvaneCacheArray(store, std::move(url)));
}

Value CorvaneCacheArray::loadTransformer(const Value& root) const {
  requireKind(root, ValueKind::Array, "an array");
  return root.isMutable() && isUnshared(root) ? root : root.mutableCopy();
}

Value CorvaneCacheArray::emptyContent() const { return Value::mutableArray(); }

Value CorvaneCacheArray::content() {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  return content_.copy();
}

void CorvaneCacheArray::setContent(const Value& array) {
  RecursiveMutexLock lock(&mutex_);
  content_ = array.isCollection() ? Value::mutableArray(array.elements()) : Value::mutableArray();
  invalid_ = true;
}

void CorvaneCacheArray::addObject(const Value& object) {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  content_.append(object);
  invalid_ = true;
}

void CorvaneCacheArray::addObjects(const Value& array) {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  appendAll(content_, array);
  invalid_ = true;
}

void CorvaneCacheArray::removeObject(const Value& object) {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  content_.remove(object);
  invalid_ = true;
}

void CorvaneCacheArray::removeObjects(const Value& collection) {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  content_ = Value::mutableArray(withoutMembers(content_, collection));
  invalid_ = true;
}

// ---- Set -------------------------------------------------------------------------------------

std::shared_ptr<CorvaneCacheSet> CorvaneCacheSet::setWithStore(CorvaneCacheStoreServices* store, std::string url) {
  return std::shared_ptr<CorvaneCacheSet>(new CorvaneCacheSet(store, std::move(url)));
}

Value CorvaneCacheSet::loadTransformer(const Value& root) const {
  requireKind(root, ValueKind::Array, "an array");
  return Value::mutableSet(root.elements());
}

Value CorvaneCacheSet::saveTransformer(const Value& content) const { return Value::array(content.elements()); }

Value CorvaneCacheSet::emptyContent() const { return Value::mutableSet(); }

Value CorvaneCacheSet::content() {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  return content_.copy();
}

void CorvaneCacheSet::setContent(const Value& collection) {
  RecursiveMutexLock lock(&mutex_);
  content_ = Value::mutableSet(collection.elements());
  invalid_ = true;
}

void CorvaneCacheSet::addObject(const Value& object) {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  if (!object.isNil()) content_.append(object);
  invalid_ = true;
}

void CorvaneCacheSet::addObjects(const Value& collection) {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  appendAll(content_, collection);
  invalid_ = true;
}

void CorvaneCacheSet::removeObject(const Value& object) {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  content_.remove(object);
  invalid_ = true;
}

void CorvaneCacheSet::removeObjects(const Value& collection) {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  content_ = Value::mutableSet(withoutMembers(content_, collection));
  invalid_ = true;
}

bool CorvaneCacheSet::containsObject(const Value& object) {
  RecursiveMutexLock lock(&mutex_);
  loadIfNeeded();
  return content_.contains(object);
}

}  // namespace corvane
