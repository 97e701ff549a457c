// Keychain items: passwords remembered for the user, so that a document opens without asking.
//
//   MCSMStoreKeychainItem                 account, attributes, password
//   MCSMStoreGenericKeychainItem          + service                          (class "genp")
//   MCSMStoreInternetKeychainItem         + server, security domain, path,   (class "inet")
//                                           port, protocol, authentication type
//   MCSMStoreApplicationUUIDKeychainItem  a generic item whose password is the application's
//                                         identifier
//
// Items are plain values. The class operations look items up, add or update them in a
// KeychainBackend (keychain.h): the one passed as the last argument, or defaultKeychain() when
// that is nullptr. Found items remember their backend, so removeFromKeychainWithError() needs
// none.
//
// Attributes: `attributes` of an operation is a dictionary (or nil) of further attributes with
// text keys ("labl", "sync", ...) and string or number values; numbers are stored as their
// decimal text (booleans as "1"/"0"). A found item's attributes() is the dictionary of every
// attribute the keychain holds for it, "port" as a number, everything else as strings;
// subscripting an item reads that dictionary.
//
// Errors: a failing operation returns nullopt or false and, when `error` is given, an error of
// kKeychainErrorDomain whose user info carries the query under "MCSMKeychainItemQueryKey": the
// attributes asked for, with "m_Limit" ("m_LimitOne" or "m_LimitAll"), "r_Attributes" and
// "r_Data" for look-ups. The password is never part of it (errors end up in logs).
//
// Threads: the class operations may be called from any thread. One item object is used by one
// thread at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"
#include "corvane/security/keychain.h"

namespace corvane {

inline constexpr const char* kMCSMKeychainItemQueryKey = "MCSMKeychainItemQueryKey";
// The service of the application-identifier items (their account is the host's bundle
// identifier).
inline constexpr const char* kApplicationUUIDKeychainService = "org.corvane.keychain.ApplicationUUID";

class MCSMStoreKeychainItem {
 public:
  MCSMStoreKeychainItem() = default;
  MCSMStoreKeychainItem(std::string account, std::string password, Value attributes = Value(),
                        KeychainBackend* keychain = nullptr);
  MCSMStoreKeychainItem(const MCSMStoreKeychainItem&) = default;
  MCSMStoreKeychainItem& operator=(const MCSMStoreKeychainItem&) = default;
  virtual ~MCSMStoreKeychainItem();

  const std::string& account() const { return account_; }
  void setAccount(std::string account) { account_ = std::move(account); }
  // A dictionary (possibly empty), never nil.
  const Value& attributes() const { return attributes_; }
  void setAttributes(Value attributes);
  const std::string& password() const { return password_; }
  void setPassword(std::string password) { password_ = std::move(password); }
  // The backend the item was found in or added to (nullptr: defaultKeychain()).
  KeychainBackend* keychain() const { return keychain_; }

  // The value of one attribute, nil when the item has none.
  const Value& operator[](std::string_view key) const { return attributes_[key]; }

  // "<class> account:<account>"; subclasses add their fields.
  virtual std::string description() const;
  virtual std::string className() const { return "MCSMStoreKeychainItem"; }

  // Deletes the item matching class, service (or the internet fields) and account. A plain
  // MCSMStoreKeychainItem has no keychain class and cannot be removed.
  bool removeFromKeychainWithError(Error* error = nullptr) const;

  // Locks and unlocks the keychain (see KeychainBackend::lock).
  static bool lockKeychain(KeychainBackend* keychain = nullptr, Error* error = nullptr);
  static bool unlockKeychain(KeychainBackend* keychain = nullptr, Error* error = nullptr);

 protected:
  // The attributes that find exactly this item; empty when it has no keychain class.
  virtual KeychainAttributes identifyingAttributes() const;

 private:
  std::string account_;
  Value attributes_ = Value::dictionary();
  std::string password_;
  KeychainBackend* keychain_ = nullptr;
};

class MCSMStoreGenericKeychainItem : public MCSMStoreKeychainItem {
 public:
  MCSMStoreGenericKeychainItem() = default;
  MCSMStoreGenericKeychainItem(std::string service, std::string account, std::string password,
                               Value attributes = Value(), KeychainBackend* keychain = nullptr);

  const std::string& service() const { return service_; }
  void setService(std::string service) { service_ = std::move(service); }

  // "<class> service:<service> account:<account>"
  std::string description() const override;
  std::string className() const override { return "MCSMStoreGenericKeychainItem"; }

  // The item of `service` and `account` (and `attributes`, when given), with its password.
  static std::optional<MCSMStoreGenericKeychainItem> genericKeychainItemForService(const std::string& service,
                                                                                   const std::string& account,
                                                                                   const Value& attributes = Value(),
                                                                                   Error* error = nullptr,
                                                                                   KeychainBackend* keychain = nullptr);
  // Every item of `service` (and `attributes`), without passwords.
  static std::optional<std::vector<MCSMStoreGenericKeychainItem>> genericKeychainItemsForService(
      const std::string& service, const Value& attributes = Value(), Error* error = nullptr,
      KeychainBackend* keychain = nullptr);
  // Adds the item with `password`; when one of that service and account exists, updates its
  // password and attributes (label included) instead.
  static std::optional<MCSMStoreGenericKeychainItem> genericKeychainItemWithService(
      const std::string& service, const std::string& account, const Value& attributes, const std::string& password,
      Error* error = nullptr, KeychainBackend* keychain = nullptr);

 protected:
  KeychainAttributes identifyingAttributes() const override;

 private:
  std::string service_;
};

class MCSMStoreInternetKeychainItem : public MCSMStoreKeychainItem {
 public:
  // Server, security domain, path, port, protocol and authentication type of an item. Empty
  // fields (port 0) are left out of look-ups, so they match any value.
  struct Location {
    std::string server;
    std::string securityDomain;
    std::string path;
    uint64_t port = 0;
    std::string protocol;            // a keychain protocol value, e.g. "htps"
    std::string authenticationType;  // a keychain authentication type, e.g. "dflt"
  };

  MCSMStoreInternetKeychainItem() = default;
  MCSMStoreInternetKeychainItem(Location location, std::string account, std::string password,
                                Value attributes = Value(), KeychainBackend* keychain = nullptr);

  const std::string& server() const { return location_.server; }
  const std::string& securityDomain() const { return location_.securityDomain; }
  const std::string& path() const { return location_.path; }
  uint64_t port() const { return location_.port; }
  const std::string& protocol() const { return location_.protocol; }
  const std::string& authenticationType() const { return location_.authenticationType; }
  const Location& location() const { return location_; }
  void setLocation(Location location) { location_ = std::move(location); }

  // "<class> server:<server> securityDomain:<domain> account:<account> path:<path> port:<port>"
  std::string description() const override;
  std::string className() const override { return "MCSMStoreInternetKeychainItem"; }

  static std::optional<MCSMStoreInternetKeychainItem> internetKeychainItemForLocation(
      const Location& location, const std::string& account, const Value& attributes = Value(), Error* error = nullptr,
      KeychainBackend* keychain = nullptr);
  static std::optional<std::vector<MCSMStoreInternetKeychainItem>> internetKeychainItemsForLocation(
      const Location& location, const Value& attributes = Value(), Error* error = nullptr,
      KeychainBackend* keychain = nullptr);
  static std::optional<MCSMStoreInternetKeychainItem> internetKeychainItemWithLocation(
      const Location& location, const std::string& account, const Value& attributes, const std::string& password,
      Error* error = nullptr, KeychainBackend* keychain = nullptr);

 protected:
  KeychainAttributes identifyingAttributes() const override;

 private:
  Location location_;
};

class MCSMStoreApplicationUUIDKeychainItem : public MCSMStoreGenericKeychainItem {
 public:
  MCSMStoreApplicationUUIDKeychainItem() = default;
  explicit MCSMStoreApplicationUUIDKeychainItem(MCSMStoreGenericKeychainItem item)
      : MCSMStoreGenericKeychainItem(std::move(item)) {}

  // The identifier kept in the item: its password.
  const std::string& UUID() const { return password(); }

  // "<class> service:<service> account:<account> uuid:<uuid>"
  std::string description() const override;
  std::string className() const override { return "MCSMStoreApplicationUUIDKeychainItem"; }

  // The application's identifier: the existing item's, else a new item's. `bundleIdentifier`
  // empty means ApplicationInfo::current().identifier. nullopt when the keychain fails.
  static std::optional<std::string> applicationUUID(const std::string& bundleIdentifier = {}, Error* error = nullptr,
                                                    KeychainBackend* keychain = nullptr);
  static std::optional<MCSMStoreApplicationUUIDKeychainItem> applicationUUIDKeychainItem(
      const std::string& bundleIdentifier = {}, Error* error = nullptr, KeychainBackend* keychain = nullptr);
  // Stores a new random identifier (replacing any previous one).
  static std::optional<MCSMStoreApplicationUUIDKeychainItem> generateApplicationUUIDKeychainItem(
      const std::string& bundleIdentifier = {}, Error* error = nullptr, KeychainBackend* keychain = nullptr);
};

}  // namespace corvane
