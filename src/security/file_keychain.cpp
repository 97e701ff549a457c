// The file keychain: items in keychain.json, passwords sealed with AES-256-GCM under
// keychain.key. See file_keychain.h for what this does and does not protect.
#include "corvane/security/file_keychain.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include <openssl/evp.h>

#include "corvane/foundation/json.h"
#include "corvane/foundation/mutex.h"
#include "corvane/security/digest.h"

namespace corvane {
namespace {

constexpr size_t kKeyLength = 32;
constexpr size_t kNonceLength = 12;
constexpr size_t kTagLength = 16;
constexpr const char* kStoreName = "keychain.json";
constexpr const char* kKeyName = "keychain.key";
constexpr const char* kLockName = "keychain.lock";

struct StoredItem {
  KeychainAttributes attributes;
  Bytes sealed;  // nonce, ciphertext, tag
};

bool matches(const KeychainAttributes& attributes, const KeychainAttributes& match) {
  for (const auto& [key, value] : match) {
    auto it = attributes.find(key);
    if (it == attributes.end() || it->second != value) return false;
  }
  return true;
}

Value attributesValue(const KeychainAttributes& attributes) {
  std::vector<std::pair<Value, Value>> entries;
  for (const auto& [key, value] : attributes) entries.emplace_back(Value(key), Value(value));
  return Value::dictionary(std::move(entries));
}

// The associated data that ties a sealed password to its item's attributes.
Bytes associatedData(const KeychainAttributes& attributes) {
  Bytes out;
  for (const auto& [key, value] : attributes) {
    out.insert(out.end(), key.begin(), key.end());
    out.push_back(0);
    out.insert(out.end(), value.begin(), value.end());
    out.push_back(0);
  }
  return out;
}

std::optional<Bytes> fromHex(std::string_view hex) {
  if (hex.size() % 2 != 0) return std::nullopt;
  auto digit = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  Bytes out(hex.size() / 2);
  for (size_t i = 0; i < out.size(); ++i) {
    const int hi = digit(hex[2 * i]), lo = digit(hex[2 * i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out[i] = static_cast<uint8_t>(hi * 16 + lo);
  }
  return out;
}

struct CipherContext {
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  ~CipherContext() { EVP_CIPHER_CTX_free(ctx); }
};

std::optional<Bytes> seal(Env* env, ByteView key, ByteView aad, std::string_view plaintext) {
  Bytes out(kNonceLength + plaintext.size() + kTagLength);
  if (!env->randomBytes(out.data(), kNonceLength)) return std::nullopt;
  CipherContext c;
  int len = 0, total = 0;
  if (c.ctx == nullptr || EVP_EncryptInit_ex(c.ctx, EVP_aes_256_gcm(), nullptr, key.data(), out.data()) != 1 ||
      EVP_EncryptUpdate(c.ctx, nullptr, &len, aad.data(), static_cast<int>(aad.size())) != 1 ||
      EVP_EncryptUpdate(c.ctx, out.data() + kNonceLength, &len, reinterpret_cast<const uint8_t*>(plaintext.data()),
                        static_cast<int>(plaintext.size())) != 1) {
    return std::nullopt;
  }
  total = len;
  if (EVP_EncryptFinal_ex(c.ctx, out.data() + kNonceLength + total, &len) != 1 ||
      EVP_CIPHER_CTX_ctrl(c.ctx, EVP_CTRL_GCM_GET_TAG, kTagLength, out.data() + kNonceLength + plaintext.size()) != 1) {
    return std::nullopt;
  }
  return out;
}

std::optional<std::string> open(ByteView key, ByteView aad, ByteView sealed) {
  if (sealed.size() < kNonceLength + kTagLength) return std::nullopt;
  const size_t n = sealed.size() - kNonceLength - kTagLength;
  std::string plaintext(n, '\0');
  Bytes tag(sealed.end() - kTagLength, sealed.end());
  CipherContext c;
  int len = 0;
  if (c.ctx == nullptr || EVP_DecryptInit_ex(c.ctx, EVP_aes_256_gcm(), nullptr, key.data(), sealed.data()) != 1 ||
      EVP_DecryptUpdate(c.ctx, nullptr, &len, aad.data(), static_cast<int>(aad.size())) != 1 ||
      EVP_DecryptUpdate(c.ctx, reinterpret_cast<uint8_t*>(plaintext.data()), &len, sealed.data() + kNonceLength,
                        static_cast<int>(n)) != 1 ||
      EVP_CIPHER_CTX_ctrl(c.ctx, EVP_CTRL_GCM_SET_TAG, kTagLength, tag.data()) != 1 ||
      EVP_DecryptFinal_ex(c.ctx, reinterpret_cast<uint8_t*>(plaintext.data()) + len, &len) != 1) {
    return std::nullopt;
  }
  return plaintext;
}

// flock on the lock file for the life of the object; released by closing.
class FileLock {
 public:
  FileLock(const std::string& path, bool exclusive) {
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) {
      errno_ = errno;
      return;
    }
    while (::flock(fd_, exclusive ? LOCK_EX : LOCK_SH) != 0) {
      if (errno == EINTR) continue;
      errno_ = errno;
      ::close(fd_);
      fd_ = -1;
      return;
    }
  }
  ~FileLock() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  bool held() const { return fd_ >= 0; }
  int error() const { return errno_; }

 private:
  int fd_ = -1;
  int errno_ = 0;
};

class FileKeychain final : public KeychainBackend {
 public:
  FileKeychain(Env* env, std::string folder) : env_(env), folder_(std::move(folder)) {}

  std::string name() const override { return "file"; }

  bool add(const KeychainAttributes& attributes, const std::string& password, Error* error) override {
    return transact(true, error, [&](Session& s) {
      const KeychainAttributes key = keychainPrimaryKey(attributes);
      for (const StoredItem& item : s.items) {
        if (keychainPrimaryKey(item.attributes) == key) {
          return setError(error,
                          keychainError(kKeychainErrorDuplicateItem, "The item already exists in the keychain."));
        }
      }
      StoredItem item{attributes, {}};
      if (!sealInto(s, &item, password, error)) return false;
      s.items.push_back(std::move(item));
      return true;
    });
  }

  bool update(const KeychainAttributes& match, const KeychainAttributes& changes,
              const std::optional<std::string>& password, Error* error) override {
    return transact(true, error, [&](Session& s) {
      bool found = false;
      for (StoredItem& item : s.items) {
        if (!matches(item.attributes, match)) continue;
        found = true;
        std::optional<std::string> secret = password;
        if (!secret && !(secret = unseal(s, item, error))) return false;
        for (const auto& [key, value] : changes) item.attributes[key] = value;
        if (!sealInto(s, &item, *secret, error)) return false;
      }
      return found || notFound(error);
    });
  }

  std::optional<std::vector<KeychainRecord>> find(const KeychainAttributes& match, bool all, bool withPasswords,
                                                  Error* error) override {
    std::vector<KeychainRecord> records;
    const bool ok = transact(false, error, [&](Session& s) {
      for (const StoredItem& item : s.items) {
        if (!matches(item.attributes, match)) continue;
        KeychainRecord record{item.attributes, std::nullopt};
        if (withPasswords && !(record.password = unseal(s, item, error))) return false;
        records.push_back(std::move(record));
        if (!all) break;
      }
      return !records.empty() || notFound(error);
    });
    if (!ok) return std::nullopt;
    return records;
  }

  bool remove(const KeychainAttributes& match, Error* error) override {
    return transact(true, error, [&](Session& s) {
      const size_t before = s.items.size();
      std::erase_if(s.items, [&](const StoredItem& item) { return matches(item.attributes, match); });
      return s.items.size() != before || notFound(error);
    });
  }

  bool lock(Error*) override {
    MutexLock guard(&mutex_);
    locked_ = true;
    return true;
  }

  bool unlock(Error*) override {
    MutexLock guard(&mutex_);
    locked_ = false;
    return true;
  }

 private:
  struct Session {
    std::vector<StoredItem> items;
    std::optional<Bytes> key;  // loaded or made on first need
    bool storeExisted = false;
  };

  std::string pathOf(const char* name) const { return pathJoin(folder_, name); }

  static bool notFound(Error* error) {
    return setError(error, keychainError(kKeychainErrorItemNotFound, "The item could not be found in the keychain."));
  }

  static bool ioFailure(Error* error, const Error& cause) {
    return setError(error, keychainError(kKeychainErrorIO, cause.localizedDescription));
  }

  // Runs `body` on the items under the mutex and the lock file, and writes them back when
  // `write` is set and the body succeeded. Nothing is written after a failure.
  template <typename Body>
  bool transact(bool write, Error* error, Body&& body) CORVANE_EXCLUDES(mutex_) {
    MutexLock guard(&mutex_);
    if (locked_) {
      return setError(error, keychainError(kKeychainErrorInteractionNotAllowed, "The keychain is locked."));
    }
    bool isDirectory = false;
    const bool folderExists = env_->fileExists(folder_, &isDirectory) && isDirectory;
    if (!folderExists && !write) {
      Session empty;
      return body(empty);
    }
    if (write && !prepareFolder(error)) return false;
    FileLock fileLock(pathOf(kLockName), write);
    if (!fileLock.held()) return ioFailure(error, Error::fromErrno(fileLock.error(), pathOf(kLockName)));
    Session session;
    if (!load(&session, error)) return false;
    if (!body(session)) return false;
    return !write || save(session, error);
  }

  // The folder, readable by the user alone.
  bool prepareFolder(Error* error) CORVANE_REQUIRES(mutex_) {
    Error cause;
    if (!env_->createDirectory(folder_, true, &cause)) return ioFailure(error, cause);
    return restrictToUser(folder_, 0700, error);
  }

  // Env has no permission call; the mode is part of what this file promises, so it is set here.
  static bool restrictToUser(const std::string& path, mode_t mode, Error* error) {
    if (::chmod(path.c_str(), mode) != 0) return ioFailure(error, Error::fromErrno(errno, path));
    return true;
  }

  bool load(Session* s, Error* error) CORVANE_REQUIRES(mutex_) {
    const std::string storePath = pathOf(kStoreName);
    if (!env_->fileExists(storePath)) return true;
    s->storeExisted = true;
    Bytes bytes;
    Error cause;
    if (!env_->readFile(storePath, &bytes, &cause)) return ioFailure(error, cause);
    std::optional<Value> root = jsonToValue(asStringView(bytes), &cause);
    const Value& items = root ? (*root)["Items"] : Value();
    if (!items.isArray()) {
      // Never overwritten: a damaged store may still be repaired by hand.
      return setError(error, keychainError(kKeychainErrorDecode, "The keychain file " + storePath + " is damaged."));
    }
    for (const Value& entry : items.elements()) {
      StoredItem item;
      for (const auto& [key, value] : entry["Attributes"].entries()) {
        if (key.isString() && value.isString()) item.attributes[key.str()] = value.str();
      }
      std::optional<Bytes> sealed = entry["Secret"].isString() ? fromHex(entry["Secret"].str()) : std::nullopt;
      if (!sealed || item.attributes.empty()) {
        return setError(error, keychainError(kKeychainErrorDecode, "The keychain file " + storePath + " is damaged."));
      }
      item.sealed = std::move(*sealed);
      s->items.push_back(std::move(item));
    }
    return true;
  }

  bool save(const Session& s, Error* error) CORVANE_REQUIRES(mutex_) {
    std::vector<Value> items;
    for (const StoredItem& item : s.items) {
      items.push_back(Value::dictionary({{"Attributes", attributesValue(item.attributes)},
                                         {"Secret", Value(corvaneHexadecimalString(item.sealed))}}));
    }
    Error cause;
    std::optional<std::string> json = valueToJson(
        Value::dictionary({{"Version", 1}, {"Items", Value::array(std::move(items))}}), JsonStyle::Pretty, &cause);
    if (!json) return ioFailure(error, cause);
    const std::string storePath = pathOf(kStoreName);
    if (!env_->writeFileAtomically(storePath, asBytes(*json), &cause)) return ioFailure(error, cause);
    return restrictToUser(storePath, 0600, error);
  }

  // The key, read from keychain.key; made only while no sealed password exists that it would
  // have to open.
  const Bytes* key(Session& s, bool mayCreate, Error* error) {
    if (s.key) return &*s.key;
    const std::string keyPath = pathOf(kKeyName);
    Error cause;
    if (env_->fileExists(keyPath)) {
      Bytes bytes;
      if (!env_->readFile(keyPath, &bytes, &cause)) return ioFailure(error, cause), nullptr;
      if (bytes.size() != kKeyLength) {
        return setError(error, keychainError(kKeychainErrorDecode, "The keychain key " + keyPath + " is damaged.")),
               nullptr;
      }
      s.key = std::move(bytes);
      return &*s.key;
    }
    if (!mayCreate || !s.items.empty()) {
      return setError(error, keychainError(kKeychainErrorDecode, "The keychain key " + keyPath + " is missing.")),
             nullptr;
    }
    Bytes bytes(kKeyLength);
    if (!env_->randomBytes(bytes.data(), bytes.size())) {
      return setError(error, keychainError(kKeychainErrorIO, "No random bytes for the keychain key.")), nullptr;
    }
    if (!env_->writeFileAtomically(keyPath, bytes, &cause)) return ioFailure(error, cause), nullptr;
    if (!restrictToUser(keyPath, 0600, error)) return nullptr;
    s.key = std::move(bytes);
    return &*s.key;
  }

  bool sealInto(Session& s, StoredItem* item, const std::string& password, Error* error) {
    const Bytes* k = key(s, true, error);
    if (k == nullptr) return false;
    std::optional<Bytes> sealed = seal(env_, *k, associatedData(item->attributes), password);
    if (!sealed) return setError(error, keychainError(kKeychainErrorIO, "The password could not be encrypted."));
    item->sealed = std::move(*sealed);
    return true;
  }

  std::optional<std::string> unseal(Session& s, const StoredItem& item, Error* error) {
    const Bytes* k = key(s, false, error);
    if (k == nullptr) return std::nullopt;
    std::optional<std::string> password = open(*k, associatedData(item.attributes), item.sealed);
    if (!password) setError(error, keychainError(kKeychainErrorDecode, "A keychain password does not decrypt."));
    return password;
  }

  Env* const env_;
  const std::string folder_;
  // Serialises this process's use of the files; the lock file serialises processes.
  Mutex mutex_;
  bool locked_ CORVANE_GUARDED_BY(mutex_) = false;
};

}  // namespace

std::string defaultFileKeychainFolder(Env* env) { return pathJoin(pathJoin(env->dataHome(), "corvane"), "keychain"); }

std::unique_ptr<KeychainBackend> newFileKeychain(Env* env, const std::string& folder) {
  return std::make_unique<FileKeychain>(env, folder);
}

}  // namespace corvane
