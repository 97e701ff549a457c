// Keychain items over a KeychainBackend.
#include "corvane/security/keychain_item.h"

#include <fmt/format.h>

#include <utility>

#include "corvane/foundation/application_info.h"
#include "corvane/security/document_password.h"

namespace corvane {
namespace {

KeychainBackend* resolve(KeychainBackend* keychain) { return keychain != nullptr ? keychain : defaultKeychain(); }

// The item attributes of a caller's dictionary: text keys, string or number values.
bool attributesFromValue(const Value& dictionary, KeychainAttributes* out, Error* error) {
  if (dictionary.isNil()) return true;
  if (!dictionary.isDictionary()) {
    return setError(error, keychainError(kKeychainErrorParam, "Keychain attributes must be a dictionary."));
  }
  for (const auto& [key, value] : dictionary.entries()) {
    if (!key.isString() || !(value.isString() || value.isNumber())) {
      return setError(error, keychainError(kKeychainErrorParam, "Unsupported keychain attribute " + key.description()));
    }
    if (value.isString()) {
      (*out)[key.str()] = value.str();
    } else if (value.isBoolean()) {
      (*out)[key.str()] = value.boolValue() ? "1" : "0";
    } else if (value.isFloatingPoint()) {
      (*out)[key.str()] = value.description();
    } else {
      (*out)[key.str()] =
          value.isUnsigned() ? std::to_string(value.unsignedLongLongValue()) : std::to_string(value.longLongValue());
    }
  }
  return true;
}

Value attributesToValue(const KeychainAttributes& attributes) {
  std::vector<std::pair<Value, Value>> entries;
  for (const auto& [key, value] : attributes) {
    if (key == kKeychainPort) {
      entries.emplace_back(Value(key),
                           Value(static_cast<unsigned long long>(std::strtoull(value.c_str(), nullptr, 10))));
    } else {
      entries.emplace_back(Value(key), Value(value));
    }
  }
  return Value::dictionary(std::move(entries));
}

enum class Lookup { None, One, All };

// The query dictionary an error carries. The password is left out on purpose.
Value queryValue(const KeychainAttributes& attributes, Lookup lookup, bool returnData) {
  Value query = attributesToValue(attributes).mutableCopy();
  if (lookup != Lookup::None) {
    query.set("m_Limit", lookup == Lookup::One ? "m_LimitOne" : "m_LimitAll");
    query.set("r_Attributes", Value::boolean(true));
    if (returnData) query.set("r_Data", Value::boolean(true));
  }
  return query.copy();
}

// Fails with `cause`, its user info carrying the query.
bool failWithQuery(Error* error, Error cause, const Value& query) {
  if (error == nullptr) return false;
  cause.userInfo = Value::dictionary({{kMCSMKeychainItemQueryKey, query}});
  *error = std::move(cause);
  return false;
}

std::string valueOf(const KeychainAttributes& attributes, const char* key) {
  auto it = attributes.find(key);
  return it == attributes.end() ? std::string() : it->second;
}

// Adds the item, or updates the existing one with the same primary key.
bool addOrUpdate(KeychainBackend* keychain, const KeychainAttributes& attributes, const std::string& password,
                 Error* error) {
  Error cause;
  if (keychain->add(attributes, password, &cause)) return true;
  if (cause.code == kKeychainErrorDuplicateItem &&
      keychain->update(keychainPrimaryKey(attributes), attributes, password, &cause)) {
    return true;
  }
  return failWithQuery(error, std::move(cause), queryValue(attributes, Lookup::None, false));
}

// Looks up items; the error carries the query.
std::optional<std::vector<KeychainRecord>> lookUp(KeychainBackend* keychain, const KeychainAttributes& match, bool all,
                                                  Error* error) {
  Error cause;
  const bool withPasswords = !all;  // one item comes with its data, a list with attributes only
  auto records = keychain->find(match, all, withPasswords, &cause);
  if (!records)
    failWithQuery(error, std::move(cause), queryValue(match, all ? Lookup::All : Lookup::One, withPasswords));
  return records;
}

MCSMStoreGenericKeychainItem genericItemFrom(const KeychainRecord& record, KeychainBackend* keychain) {
  return MCSMStoreGenericKeychainItem(valueOf(record.attributes, kKeychainService),
                                      valueOf(record.attributes, kKeychainAccount), record.password.value_or(""),
                                      attributesToValue(record.attributes), keychain);
}

KeychainAttributes locationAttributes(const MCSMStoreInternetKeychainItem::Location& location) {
  KeychainAttributes out{{kKeychainClass, kKeychainClassInternetPassword}};
  auto put = [&](const char* key, const std::string& value) {
    if (!value.empty()) out[key] = value;
  };
  put(kKeychainServer, location.server);
  put(kKeychainSecurityDomain, location.securityDomain);
  put(kKeychainPath, location.path);
  if (location.port != 0) out[kKeychainPort] = std::to_string(location.port);
  put(kKeychainProtocol, location.protocol);
  put(kKeychainAuthenticationType, location.authenticationType);
  return out;
}

MCSMStoreInternetKeychainItem internetItemFrom(const KeychainRecord& record, KeychainBackend* keychain) {
  const KeychainAttributes& a = record.attributes;
  MCSMStoreInternetKeychainItem::Location location{
      valueOf(a, kKeychainServer),   valueOf(a, kKeychainSecurityDomain),
      valueOf(a, kKeychainPath),     std::strtoull(valueOf(a, kKeychainPort).c_str(), nullptr, 10),
      valueOf(a, kKeychainProtocol), valueOf(a, kKeychainAuthenticationType)};
  return MCSMStoreInternetKeychainItem(std::move(location), valueOf(a, kKeychainAccount), record.password.value_or(""),
                                       attributesToValue(a), keychain);
}

}  // namespace

// ---- MCSMStoreKeychainItem ---------------------------------------------------------------------

MCSMStoreKeychainItem::MCSMStoreKeychainItem(std::string account, std::string password, Value attributes,
                                             KeychainBackend* keychain)
    : account_(std::move(account)), password_(std::move(password)), keychain_(keychain) {
  setAttributes(std::move(attributes));
}

MCSMStoreKeychainItem::~MCSMStoreKeychainItem() = default;

void MCSMStoreKeychainItem::setAttributes(Value attributes) {
  attributes_ = attributes.isDictionary() ? std::move(attributes) : Value::dictionary();
}

std::string MCSMStoreKeychainItem::description() const { return fmt::format("{} account:{}", className(), account()); }

KeychainAttributes MCSMStoreKeychainItem::identifyingAttributes() const { return {}; }

bool MCSMStoreKeychainItem::removeFromKeychainWithError(Error* error) const {
  const KeychainAttributes match = identifyingAttributes();
  const Value query = queryValue(match, Lookup::None, false);
  if (match.empty()) {
    return failWithQuery(error, keychainError(kKeychainErrorParam, "The item has no keychain class."), query);
  }
  Error cause;
  return resolve(keychain_)->remove(match, &cause) || failWithQuery(error, std::move(cause), query);
}

bool MCSMStoreKeychainItem::lockKeychain(KeychainBackend* keychain, Error* error) {
  return resolve(keychain)->lock(error);
}

bool MCSMStoreKeychainItem::unlockKeychain(KeychainBackend* keychain, Error* error) {
  return resolve(keychain)->unlock(error);
}

// ---- MCSMStoreGenericKeychainItem --------------------------------------------------------------

MCSMStoreGenericKeychainItem::MCSMStoreGenericKeychainItem(std::string service, std::string account,
                                                           std::string password, Value attributes,
                                                           KeychainBackend* keychain)
    : MCSMStoreKeychainItem(std::move(account), std::move(password), std::move(attributes), keychain),
      service_(std::move(service)) {}

std::string MCSMStoreGenericKeychainItem::description() const {
  return fmt::format("{} service:{} account:{}", className(), service(), account());
}

KeychainAttributes MCSMStoreGenericKeychainItem::identifyingAttributes() const {
  return {
      {kKeychainClass, kKeychainClassGenericPassword}, {kKeychainService, service()}, {kKeychainAccount, account()}};
}

std::optional<MCSMStoreGenericKeychainItem> MCSMStoreGenericKeychainItem::genericKeychainItemForService(
    const std::string& service, const std::string& account, const Value& attributes, Error* error,
    KeychainBackend* keychain) {
  KeychainAttributes match;
  if (!attributesFromValue(attributes, &match, error)) return std::nullopt;
  match[kKeychainClass] = kKeychainClassGenericPassword;
  match[kKeychainService] = service;
  match[kKeychainAccount] = account;
  keychain = resolve(keychain);
  auto records = lookUp(keychain, match, false, error);
  if (!records) return std::nullopt;
  return genericItemFrom(records->front(), keychain);
}

std::optional<std::vector<MCSMStoreGenericKeychainItem>> MCSMStoreGenericKeychainItem::genericKeychainItemsForService(
    const std::string& service, const Value& attributes, Error* error, KeychainBackend* keychain) {
  KeychainAttributes match;
  if (!attributesFromValue(attributes, &match, error)) return std::nullopt;
  match[kKeychainClass] = kKeychainClassGenericPassword;
  match[kKeychainService] = service;
  keychain = resolve(keychain);
  auto records = lookUp(keychain, match, true, error);
  if (!records) return std::nullopt;
  std::vector<MCSMStoreGenericKeychainItem> items;
  for (const KeychainRecord& record : *records) items.push_back(genericItemFrom(record, keychain));
  return items;
}

std::optional<MCSMStoreGenericKeychainItem> MCSMStoreGenericKeychainItem::genericKeychainItemWithService(
    const std::string& service, const std::string& account, const Value& attributes, const std::string& password,
    Error* error, KeychainBackend* keychain) {
  KeychainAttributes all;
  if (!attributesFromValue(attributes, &all, error)) return std::nullopt;
  all[kKeychainClass] = kKeychainClassGenericPassword;
  all[kKeychainService] = service;
  all[kKeychainAccount] = account;
  keychain = resolve(keychain);
  if (!addOrUpdate(keychain, all, password, error)) return std::nullopt;
  return genericItemFrom(KeychainRecord{all, password}, keychain);
}

// ---- MCSMStoreInternetKeychainItem -------------------------------------------------------------

MCSMStoreInternetKeychainItem::MCSMStoreInternetKeychainItem(Location location, std::string account,
                                                             std::string password, Value attributes,
                                                             KeychainBackend* keychain)
    : MCSMStoreKeychainItem(std::move(account), std::move(password), std::move(attributes), keychain),
      location_(std::move(location)) {}

std::string MCSMStoreInternetKeychainItem::description() const {
  return fmt::format("{} server:{} securityDomain:{} account:{} path:{} port:{}", className(), server(),
                     securityDomain(), account(), path(), port());
}

KeychainAttributes MCSMStoreInternetKeychainItem::identifyingAttributes() const {
  KeychainAttributes match = locationAttributes(location_);
  match[kKeychainAccount] = account();
  return match;
}

std::optional<MCSMStoreInternetKeychainItem> MCSMStoreInternetKeychainItem::internetKeychainItemForLocation(
    const Location& location, const std::string& account, const Value& attributes, Error* error,
    KeychainBackend* keychain) {
  KeychainAttributes match;
  if (!attributesFromValue(attributes, &match, error)) return std::nullopt;
  for (auto& [key, value] : locationAttributes(location)) match[key] = value;
  match[kKeychainAccount] = account;
  keychain = resolve(keychain);
  auto records = lookUp(keychain, match, false, error);
  if (!records) return std::nullopt;
  return internetItemFrom(records->front(), keychain);
}

std::optional<std::vector<MCSMStoreInternetKeychainItem>>
MCSMStoreInternetKeychainItem::internetKeychainItemsForLocation(const Location& location, const Value& attributes,
                                                                Error* error, KeychainBackend* keychain) {
  KeychainAttributes match;
  if (!attributesFromValue(attributes, &match, error)) return std::nullopt;
  for (auto& [key, value] : locationAttributes(location)) match[key] = value;
  keychain = resolve(keychain);
  auto records = lookUp(keychain, match, true, error);
  if (!records) return std::nullopt;
  std::vector<MCSMStoreInternetKeychainItem> items;
  for (const KeychainRecord& record : *records) items.push_back(internetItemFrom(record, keychain));
  return items;
}

std::optional<MCSMStoreInternetKeychainItem> MCSMStoreInternetKeychainItem::internetKeychainItemWithLocation(
    const Location& location, const std::string& account, const Value& attributes, const std::string& password,
    Error* error, KeychainBackend* keychain) {
  KeychainAttributes all;
  if (!attributesFromValue(attributes, &all, error)) return std::nullopt;
  for (auto& [key, value] : locationAttributes(location)) all[key] = value;
  all[kKeychainAccount] = account;
  keychain = resolve(keychain);
  if (!addOrUpdate(keychain, all, password, error)) return std::nullopt;
  return internetItemFrom(KeychainRecord{all, password}, keychain);
}

// ---- MCSMStoreApplicationUUIDKeychainItem ------------------------------------------------------

namespace {

std::optional<std::string> applicationAccount(const std::string& bundleIdentifier, Error* error) {
  std::string account = bundleIdentifier.empty() ? ApplicationInfo::current().identifier : bundleIdentifier;
  if (account.empty()) {
    setError(error, keychainError(kKeychainErrorParam, "The host application has no bundle identifier."));
    return std::nullopt;
  }
  return account;
}

}  // namespace

std::string MCSMStoreApplicationUUIDKeychainItem::description() const {
  return fmt::format("{} service:{} account:{} uuid:{}", className(), service(), account(), UUID());
}

std::optional<MCSMStoreApplicationUUIDKeychainItem> MCSMStoreApplicationUUIDKeychainItem::applicationUUIDKeychainItem(
    const std::string& bundleIdentifier, Error* error, KeychainBackend* keychain) {
  auto account = applicationAccount(bundleIdentifier, error);
  if (!account) return std::nullopt;
  auto item = genericKeychainItemForService(kApplicationUUIDKeychainService, *account, Value(), error, keychain);
  if (!item) return std::nullopt;
  return MCSMStoreApplicationUUIDKeychainItem(std::move(*item));
}

std::optional<MCSMStoreApplicationUUIDKeychainItem>
MCSMStoreApplicationUUIDKeychainItem::generateApplicationUUIDKeychainItem(const std::string& bundleIdentifier,
                                                                          Error* error, KeychainBackend* keychain) {
  auto account = applicationAccount(bundleIdentifier, error);
  if (!account) return std::nullopt;
  auto item = genericKeychainItemWithService(kApplicationUUIDKeychainService, *account, Value(),
                                             Env::defaultEnv()->newUUIDString(), error, keychain);
  if (!item) return std::nullopt;
  return MCSMStoreApplicationUUIDKeychainItem(std::move(*item));
}

std::optional<std::string> MCSMStoreApplicationUUIDKeychainItem::applicationUUID(const std::string& bundleIdentifier,
                                                                                 Error* error,
                                                                                 KeychainBackend* keychain) {
  Error cause;
  auto item = applicationUUIDKeychainItem(bundleIdentifier, &cause, keychain);
  if (!item && cause.code == kKeychainErrorItemNotFound) {
    item = generateApplicationUUIDKeychainItem(bundleIdentifier, &cause, keychain);
  }
  if (!item) return setError(error, std::move(cause)), std::nullopt;
  return item->UUID();
}

// ---- Document passwords ------------------------------------------------------------------------

namespace {

bool checkDocumentItem(const DocumentPasswordItem& item, Error* error) {
  if (item.bundleIdentifier.empty() || item.documentIdentifier.empty()) {
    return setError(error,
                    keychainError(kKeychainErrorParam,
                                  "A document password needs the application's and the document's identifiers."));
  }
  return true;
}

}  // namespace

std::optional<std::string> findDocumentPassword(const DocumentPasswordItem& item, Error* error,
                                                KeychainBackend* keychain) {
  if (!checkDocumentItem(item, error)) return std::nullopt;
  auto found = MCSMStoreGenericKeychainItem::genericKeychainItemForService(
      item.bundleIdentifier, item.documentIdentifier, Value(), error, keychain);
  if (!found) return std::nullopt;
  return found->password();
}

bool saveDocumentPassword(const DocumentPasswordItem& item, const std::string& fileName, const std::string& password,
                          Error* error, KeychainBackend* keychain) {
  Error cause;
  const Value attributes =
      Value::dictionary({{kKeychainLabel, fileName}, {kKeychainSynchronizable, item.bundleIdentifier}});
  if (checkDocumentItem(item, &cause) &&
      MCSMStoreGenericKeychainItem::genericKeychainItemWithService(item.bundleIdentifier, item.documentIdentifier,
                                                                   attributes, password, &cause, keychain)) {
    return true;
  }
  Value info = cause.userInfo.isDictionary() ? cause.userInfo.mutableCopy() : Value::mutableDictionary();
  info.set("NSUnderlyingError", cause.description());
  return setError(error, Error(cause.domain, cause.code, kKeychainPasswordNotSavedMessage, {}, info.copy()));
}

bool removeDocumentPassword(const DocumentPasswordItem& item, Error* error, KeychainBackend* keychain) {
  if (!checkDocumentItem(item, error)) return false;
  Error cause;
  MCSMStoreGenericKeychainItem stored(item.bundleIdentifier, item.documentIdentifier, {}, Value(), keychain);
  if (stored.removeFromKeychainWithError(&cause) || cause.code == kKeychainErrorItemNotFound) return true;
  return setError(error, std::move(cause));
}

}  // namespace corvane
