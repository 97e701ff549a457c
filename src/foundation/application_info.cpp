#include "corvane/foundation/application_info.h"

#include "corvane/foundation/mutex.h"

namespace corvane {

namespace {

Mutex& currentMutex() {
  static auto* m = new Mutex;
  return *m;
}

ApplicationInfo& currentInfo() CORVANE_REQUIRES(currentMutex()) {
  static auto* info = new ApplicationInfo;
  return *info;
}

std::string stringFor(const Value& info, const char* key) {
  const Value& v = info[key];
  return v.isString() ? v.str() : std::string();
}

}  // namespace

ApplicationInfo ApplicationInfo::fromDictionary(const Value& info) {
  ApplicationInfo a;
  a.identifier = stringFor(info, "CFBundleIdentifier");
  a.name = stringFor(info, "CFBundleName");
  a.version = stringFor(info, "CFBundleVersion");
  a.shortVersion = stringFor(info, "CFBundleShortVersionString");
  if (info["CFBundleDocumentTypes"].isArray()) a.documentTypes = info["CFBundleDocumentTypes"];
  return a;
}

Value ApplicationInfo::dictionary() const {
  std::vector<std::pair<Value, Value>> entries;
  auto add = [&entries](const char* key, const std::string& value) {
    if (!value.empty()) entries.emplace_back(Value(key), Value(value));
  };
  add("CFBundleIdentifier", identifier);
  add("CFBundleName", name);
  add("CFBundleVersion", version);
  add("CFBundleShortVersionString", shortVersion);
  if (documentTypes.isArray()) entries.emplace_back(Value("CFBundleDocumentTypes"), documentTypes);
  return Value::dictionary(std::move(entries));
}

ApplicationInfo ApplicationInfo::current() {
  MutexLock lock(&currentMutex());
  return currentInfo();
}

void ApplicationInfo::setCurrent(ApplicationInfo info) {
  MutexLock lock(&currentMutex());
  currentInfo() = std::move(info);
}

Value frameworkInfoDictionary() {
  return dict({{"CFBundleIdentifier", kFrameworkBundleIdentifier},
               {"CFBundleVersion", kFrameworkVersion},
               {"CFBundleShortVersionString", kFrameworkShortVersion},
               {"StorageVersion", kStorageVersion}});
}

}  // namespace corvane
