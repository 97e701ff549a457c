// The Secret Service keychain, through libsecret's synchronous calls (each runs its own main
// context, so they may be made from any thread without a GLib main loop).
#include "corvane/security/secret_service_keychain.h"

#if CORVANE_HAVE_LIBSECRET

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <libsecret/secret.h>

#include "corvane/foundation/mutex.h"

namespace corvane {
namespace {

// Owning handles for the GLib objects used here.
struct GObjectDeleter {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectDeleter>;
struct GHashTableDeleter {
  void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};
using GHashTablePtr = std::unique_ptr<GHashTable, GHashTableDeleter>;
struct SecretValueDeleter {
  void operator()(SecretValue* value) const { secret_value_unref(value); }
};
using SecretValuePtr = std::unique_ptr<SecretValue, SecretValueDeleter>;

class GErrorHolder {
 public:
  GErrorHolder() = default;
  GErrorHolder(const GErrorHolder&) = delete;
  GErrorHolder& operator=(const GErrorHolder&) = delete;
  ~GErrorHolder() { reset(); }
  GError** out() {
    reset();
    return &error_;
  }
  const GError* get() const { return error_; }
  std::string message() const { return error_ != nullptr ? error_->message : "unknown failure"; }

 private:
  void reset() {
    if (error_ != nullptr) g_error_free(error_);
    error_ = nullptr;
  }
  GError* error_ = nullptr;
};

// The items of one search; unreferenced with the list.
class ItemList {
 public:
  explicit ItemList(GList* list) : list_(list) {}
  ItemList(const ItemList&) = delete;
  ItemList& operator=(const ItemList&) = delete;
  ~ItemList() { g_list_free_full(list_, g_object_unref); }
  std::vector<SecretItem*> items() const {
    std::vector<SecretItem*> out;
    for (GList* l = list_; l != nullptr; l = l->next) out.push_back(static_cast<SecretItem*>(l->data));
    return out;
  }

 private:
  GList* list_;
};

bool failWith(Error* error, int status, std::string description) {
  return setError(error, keychainError(status, std::move(description)));
}

bool failWithGError(Error* error, const GErrorHolder& cause) {
  const GError* e = cause.get();
  int status = kKeychainErrorNotAvailable;
  if (e != nullptr && e->domain == SECRET_ERROR && e->code == SECRET_ERROR_IS_LOCKED) {
    status = kKeychainErrorInteractionNotAllowed;
  }
  return failWith(error, status, "Secret Service: " + cause.message());
}

GHashTablePtr attributeTable(const KeychainAttributes& attributes) {
  GHashTable* table = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
  for (const auto& [key, value] : attributes)
    g_hash_table_insert(table, g_strdup(key.c_str()), g_strdup(value.c_str()));
  g_hash_table_insert(table, g_strdup("xdg:schema"), g_strdup(kSecretServiceSchemaName));
  return GHashTablePtr(table);
}

KeychainAttributes attributesOf(SecretItem* item) {
  KeychainAttributes out;
  GHashTablePtr table(secret_item_get_attributes(item));
  GHashTableIter it;
  gpointer key = nullptr;
  gpointer value = nullptr;
  g_hash_table_iter_init(&it, table.get());
  while (g_hash_table_iter_next(&it, &key, &value)) {
    std::string k = static_cast<const char*>(key);
    if (k != "xdg:schema") out[k] = static_cast<const char*>(value);
  }
  return out;
}

// What keyring managers show: the label attribute, else service (or server) and account.
std::string displayLabel(const KeychainAttributes& attributes) {
  auto get = [&](const char* key) {
    auto it = attributes.find(key);
    return it == attributes.end() ? std::string() : it->second;
  };
  if (!get(kKeychainLabel).empty()) return get(kKeychainLabel);
  const std::string where = get(kKeychainService).empty() ? get(kKeychainServer) : get(kKeychainService);
  return where + " " + get(kKeychainAccount);
}

SecretValuePtr secretOf(const std::string& password) {
  return SecretValuePtr(secret_value_new(password.data(), static_cast<gssize>(password.size()), "text/plain"));
}

class SecretServiceKeychain final : public KeychainBackend {
 public:
  SecretServiceKeychain(GObjectPtr<SecretService> service, GObjectPtr<SecretCollection> collection)
      : service_(std::move(service)), collection_(std::move(collection)) {}

  std::string name() const override { return "Secret Service"; }

  bool add(const KeychainAttributes& attributes, const std::string& password, Error* error) override {
    MutexLock guard(&mutex_);
    auto found = search(keychainPrimaryKey(attributes), false, false, error);
    if (!found) return false;
    if (!found->items().empty()) {
      return failWith(error, kKeychainErrorDuplicateItem, "The item already exists in the keychain.");
    }
    GErrorHolder cause;
    GObjectPtr<SecretItem> item(secret_item_create_sync(collection_.get(), nullptr, attributeTable(attributes).get(),
                                                        displayLabel(attributes).c_str(), secretOf(password).get(),
                                                        SECRET_ITEM_CREATE_NONE, nullptr, cause.out()));
    return item != nullptr || failWithGError(error, cause);
  }

  bool update(const KeychainAttributes& match, const KeychainAttributes& changes,
              const std::optional<std::string>& password, Error* error) override {
    MutexLock guard(&mutex_);
    return changeEachItem(match, error, [&](SecretItem* item, GErrorHolder& cause) {
      KeychainAttributes attributes = attributesOf(item);
      for (const auto& [key, value] : changes) attributes[key] = value;
      return secret_item_set_attributes_sync(item, nullptr, attributeTable(attributes).get(), nullptr, cause.out()) &&
             secret_item_set_label_sync(item, displayLabel(attributes).c_str(), nullptr, cause.out()) &&
             (!password || secret_item_set_secret_sync(item, secretOf(*password).get(), nullptr, cause.out()));
    });
  }

  std::optional<std::vector<KeychainRecord>> find(const KeychainAttributes& match, bool all, bool withPasswords,
                                                  Error* error) override {
    MutexLock guard(&mutex_);
    auto found = search(match, all, withPasswords, error);
    if (!found) return std::nullopt;
    std::vector<KeychainRecord> records;
    for (SecretItem* item : found->items()) {
      if (secret_item_get_locked(item)) return locked(error), std::nullopt;
      KeychainRecord record{attributesOf(item), std::nullopt};
      if (withPasswords) {
        SecretValuePtr secret(secret_item_get_secret(item));
        if (secret == nullptr) return locked(error), std::nullopt;
        gsize length = 0;
        const gchar* bytes = secret_value_get(secret.get(), &length);
        record.password = std::string(bytes, length);
      }
      records.push_back(std::move(record));
      if (!all) break;
    }
    if (records.empty()) return notFound(error), std::nullopt;
    return records;
  }

  bool remove(const KeychainAttributes& match, Error* error) override {
    MutexLock guard(&mutex_);
    return changeEachItem(match, error, [](SecretItem* item, GErrorHolder& cause) {
      return static_cast<bool>(secret_item_delete_sync(item, nullptr, cause.out()));
    });
  }

  // Runs `change` on every item that matches; fails when none does, one is locked, or a change
  // fails (with the service's reason). The caller holds mutex_.
  template <class Change>
  bool changeEachItem(const KeychainAttributes& match, Error* error, Change change) CORVANE_REQUIRES(mutex_) {
    auto found = search(match, true, false, error);
    if (!found) return false;
    const std::vector<SecretItem*> items = found->items();
    if (items.empty()) return notFound(error);
    for (SecretItem* item : items) {
      if (secret_item_get_locked(item)) return locked(error);
      GErrorHolder cause;
      if (!change(item, cause)) return failWithGError(error, cause);
    }
    return true;
  }

  bool lock(Error* error) override {
    MutexLock guard(&mutex_);
    GList objects{collection_.get(), nullptr, nullptr};
    GErrorHolder cause;
    return secret_service_lock_sync(service_.get(), &objects, nullptr, nullptr, cause.out()) >= 0 ||
           failWithGError(error, cause);
  }

  bool unlock(Error* error) override {
    MutexLock guard(&mutex_);
    GList objects{collection_.get(), nullptr, nullptr};
    GList* unlocked = nullptr;
    GErrorHolder cause;
    const gint count = secret_service_unlock_sync(service_.get(), &objects, nullptr, &unlocked, cause.out());
    g_list_free_full(unlocked, g_object_unref);
    if (count < 0) return failWithGError(error, cause);
    if (count == 0) return locked(error);  // the service wanted to ask the user, and was told no
    return true;
  }

 private:
  static bool notFound(Error* error) {
    return failWith(error, kKeychainErrorItemNotFound, "The item could not be found in the keychain.");
  }
  static bool locked(Error* error) {
    return failWith(error, kKeychainErrorInteractionNotAllowed, "The keychain is locked.");
  }

  // This library's items whose attributes include all of `match`; an empty list when none.
  std::optional<ItemList> search(const KeychainAttributes& match, bool all, bool loadSecrets, Error* error)
      CORVANE_REQUIRES(mutex_) {
    int flags = all ? SECRET_SEARCH_ALL : SECRET_SEARCH_NONE;
    if (loadSecrets) flags |= SECRET_SEARCH_LOAD_SECRETS;
    GErrorHolder cause;
    GList* list = secret_service_search_sync(service_.get(), nullptr, attributeTable(match).get(),
                                             static_cast<SecretSearchFlags>(flags), nullptr, cause.out());
    if (cause.get() != nullptr) {
      g_list_free_full(list, g_object_unref);
      return failWithGError(error, cause), std::nullopt;
    }
    return std::optional<ItemList>(std::in_place, list);
  }

  // One call into the service at a time.
  Mutex mutex_;
  GObjectPtr<SecretService> service_ CORVANE_GUARDED_BY(mutex_);
  GObjectPtr<SecretCollection> collection_ CORVANE_GUARDED_BY(mutex_);
};

// The address of the user's session bus; empty when there is none. GLib would otherwise try to
// launch one through X11, which must not happen behind a host's back.
std::string sessionBusAddress() {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address != nullptr && *address != '\0') return address;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime == nullptr || *runtime == '\0') return {};
  const std::string socket = std::string(runtime) + "/bus";
  return g_file_test(socket.c_str(), G_FILE_TEST_EXISTS) ? "unix:path=" + socket : std::string();
}

}  // namespace

std::unique_ptr<KeychainBackend> openSecretServiceKeychain(Error* error) {
  if (sessionBusAddress().empty()) return failWith(error, kKeychainErrorNotAvailable, "no session bus"), nullptr;
  GErrorHolder cause;
  // A service proxy of our own (not libsecret's shared one), over GLib's session-bus connection.
  GObjectPtr<SecretService> service(
      secret_service_open_sync(secret_service_get_type(), nullptr, SECRET_SERVICE_OPEN_SESSION, nullptr, cause.out()));
  if (service == nullptr) return failWithGError(error, cause), nullptr;
  GObjectPtr<SecretCollection> collection(secret_collection_for_alias_sync(
      service.get(), SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, cause.out()));
  if (collection == nullptr) {
    if (cause.get() != nullptr) return failWithGError(error, cause), nullptr;
    return failWith(error, kKeychainErrorNotAvailable, "the Secret Service has no default collection"), nullptr;
  }
  return std::make_unique<SecretServiceKeychain>(std::move(service), std::move(collection));
}

}  // namespace corvane

#else  // built without libsecret

namespace corvane {

std::unique_ptr<KeychainBackend> openSecretServiceKeychain(Error* error) {
  return setError(error, keychainError(kKeychainErrorNotAvailable, "built without libsecret")), nullptr;
}

}  // namespace corvane

#endif
