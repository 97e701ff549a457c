// corvane::ApplicationInfo — who the host application is, and the library's own constants.
//
// The host describes itself once at start-up with ApplicationInfo::setCurrent(); the library
// writes these values into new packages and change files, and names the user-defaults file
// after the identifier. The framework's own bundle values are constants.
//
// Threads: current() and setCurrent() may be called from any thread.
#pragma once

#include <string>

#include "corvane/foundation/value.h"

namespace corvane {

// The framework's bundle identifier: the "Corvane"."CFBundleIdentifier" of every package,
// the prefix of the queue labels, and part of the hashed entity folder names of encrypted
// packages, so it never changes.
inline constexpr const char* kFrameworkBundleIdentifier = "org.corvane.Corvane";
inline constexpr const char* kFrameworkVersion = "1";           // "CFBundleVersion"
inline constexpr const char* kFrameworkShortVersion = "0.1.0";  // "CFBundleShortVersionString"
// "StorageVersion": the version of the value encodings written into object files and handed
// to the value transformers when reading. Kept stable: "2" would select the local-zone date
// transformer.
inline constexpr const char* kStorageVersion = "1";

struct ApplicationInfo {
  std::string identifier;    // "CFBundleIdentifier", e.g. "com.example.Ledger"
  std::string name;          // "CFBundleName"
  std::string version;       // "CFBundleVersion"
  std::string shortVersion;  // "CFBundleShortVersionString"
  Value documentTypes;       // "CFBundleDocumentTypes": an array of dictionaries, or nil

  // From an information dictionary with the keys above; missing keys stay empty.
  static ApplicationInfo fromDictionary(const Value& info);
  // The information dictionary with the keys above (empty values left out).
  Value dictionary() const;

  // The host's information; empty until the host sets it.
  static ApplicationInfo current();
  static void setCurrent(ApplicationInfo info);
};

// {"CFBundleIdentifier", "CFBundleVersion", "CFBundleShortVersionString", "StorageVersion"}
// of the framework itself.
Value frameworkInfoDictionary();

}  // namespace corvane
