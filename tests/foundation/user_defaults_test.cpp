#include "corvane/foundation/user_defaults.h"

#include <gtest/gtest.h>

#include "corvane/foundation/application_info.h"
#include "corvane/foundation/log.h"
#include "corvane/foundation/plist.h"
#include "corvane/testing/fault_injection_env.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using testing::readTextFile;
using testing::TempDir;
using testing::writeTextFile;

// Points XDG_CONFIG_HOME at a test folder without touching the process environment.
struct ConfigEnv : FaultInjectionEnv {
  explicit ConfigEnv(const std::string& config) { setEnvironmentVariable("XDG_CONFIG_HOME", config); }
};

TEST(UserDefaults, ChangesAreWrittenAtOnceAsAnXmlPropertyList) {
  TempDir dir;
  ConfigEnv env(dir / "config");
  auto defaults = UserDefaults::forApplication("com.example.Ledger", &env);
  EXPECT_EQ(defaults->path(), dir / "config/com.example.Ledger.plist");
  EXPECT_TRUE(defaults->objectForKey("CorvaneRecentFiles").isNil());

  ASSERT_TRUE(defaults->setObject(arr({dict({{"Path", "/docs/A.ext"}})}), "CorvaneRecentFiles"));
  ASSERT_TRUE(defaults->setObject(true, "CorvaneIgnoreNetworkVolumesWarningAtMyOwnRisk"));
  const std::string xml = readTextFile(defaults->path());
  EXPECT_NE(xml.find("<plist version=\"1.0\">"), std::string::npos);
  EXPECT_NE(xml.find("<key>CorvaneRecentFiles</key>"), std::string::npos);
  EXPECT_NE(xml.find("<string>/docs/A.ext</string>"), std::string::npos);

  // Another process (here: another instance) sees the values.
  UserDefaults other(&env, defaults->path());
  EXPECT_EQ(other.arrayForKey("CorvaneRecentFiles").at(0)["Path"].str(), "/docs/A.ext");
  EXPECT_TRUE(other.boolForKey("CorvaneIgnoreNetworkVolumesWarningAtMyOwnRisk"));

  ASSERT_TRUE(other.removeObjectForKey("CorvaneIgnoreNetworkVolumesWarningAtMyOwnRisk"));
  EXPECT_TRUE(defaults->boolForKey("CorvaneIgnoreNetworkVolumesWarningAtMyOwnRisk"));  // not yet reread
  ASSERT_TRUE(defaults->synchronize());
  EXPECT_FALSE(defaults->boolForKey("CorvaneIgnoreNetworkVolumesWarningAtMyOwnRisk"));
}

TEST(UserDefaults, TypedGettersAndRegisteredDefaults) {
  TempDir dir;
  UserDefaults d(Env::defaultEnv(), dir / "d.plist");
  d.registerDefaults(dict({{"Rounds", 100000}, {"Name", "registered"}, {"Flag", "YES"}}));
  d.setObject("stored", "Name");
  EXPECT_EQ(d.stringForKey("Name"), "stored");
  EXPECT_EQ(d.integerForKey("Rounds"), 100000);
  EXPECT_EQ(d.stringForKey("Rounds"), "100000");
  EXPECT_TRUE(d.boolForKey("Flag"));
  EXPECT_FALSE(d.stringForKey("Missing"));
  EXPECT_FALSE(d.boolForKey("Missing"));

  d.setObject(dict({{"a", 1}}), "Dict");
  d.setObject("0", "Zero");
  d.setObject(2.5, "Real");
  EXPECT_TRUE(d.arrayForKey("Dict").isNil());
  EXPECT_EQ(d.dictionaryForKey("Dict")["a"].intValue(), 1);
  EXPECT_FALSE(d.boolForKey("Zero"));
  EXPECT_EQ(d.doubleForKey("Real"), 2.5);

  Value all = d.dictionaryRepresentation();
  EXPECT_EQ(all["Name"].str(), "stored");
  EXPECT_EQ(all["Rounds"].intValue(), 100000);
  // Registered defaults stay out of the file.
  EXPECT_EQ(readTextFile(dir / "d.plist").find("Rounds"), std::string::npos);

  d.removeObjectForKey("Name");
  EXPECT_EQ(d.stringForKey("Name"), "registered");
  d.setObject(Value(), "Real");  // nil removes
  EXPECT_TRUE(d.objectForKey("Real").isNil());
}

TEST(UserDefaults, StoresDeepCopiesOfPropertyListValuesOnly) {
  TempDir dir;
  UserDefaults d(Env::defaultEnv(), dir / "d.plist");
  Value inner = Value::mutableArray({Value("x")});
  Value outer = Value::mutableDictionary({{Value("list"), inner}});
  ASSERT_TRUE(d.setObject(outer, "Outer"));
  inner.append(Value("y"));
  outer.set(Value("other"), Value(1));
  EXPECT_EQ(d.objectForKey("Outer")["list"].count(), 1u);
  EXPECT_TRUE(d.objectForKey("Outer")["other"].isNil());
  EXPECT_FALSE(d.objectForKey("Outer").isMutable());

  EXPECT_FALSE(d.setObject(Value::null(), "Null"));
  EXPECT_FALSE(d.setObject(arr({Value::url("file:///x")}), "URL"));
  EXPECT_TRUE(d.objectForKey("URL").isNil());
}

TEST(UserDefaults, FailedWritesAreKeptAndRetriedBySynchronize) {
  TempDir dir;
  writeTextFile(dir / "blocker", "not a folder");
  UserDefaults d(Env::defaultEnv(), dir / "blocker/d.plist");
  EXPECT_FALSE(d.setObject("kept", "Key"));
  EXPECT_EQ(d.stringForKey("Key"), "kept");
  Error error;
  EXPECT_FALSE(d.synchronize(&error));
  EXPECT_FALSE(error.empty());

  ASSERT_TRUE(Env::defaultEnv()->removeItem(dir / "blocker", nullptr));
  EXPECT_TRUE(d.synchronize(&error));
  UserDefaults reread(Env::defaultEnv(), dir / "blocker/d.plist");
  EXPECT_EQ(reread.stringForKey("Key"), "kept");
}

TEST(UserDefaults, UnreadableFileStartsEmptyWithAWarning) {
  TempDir dir;
  writeTextFile(dir / "d.plist", "<plist><dict><key>unterminated");
  LogCapture log;
  UserDefaults d(Env::defaultEnv(), dir / "d.plist");
  EXPECT_TRUE(log.contains("Cannot read user defaults"));
  EXPECT_TRUE(d.dictionaryRepresentation().empty());
  EXPECT_TRUE(d.setObject(1, "Key"));  // and the next change replaces the damaged file
  EXPECT_EQ(UserDefaults(Env::defaultEnv(), dir / "d.plist").integerForKey("Key"), 1);
}

TEST(UserDefaults, StandardFollowsTheHostApplicationUnlessReplaced) {
  ApplicationInfo saved = ApplicationInfo::current();
  ApplicationInfo info;
  info.identifier = "com.example.Ledger";
  ApplicationInfo::setCurrent(info);
  UserDefaults::setStandard(nullptr);
  auto standard = UserDefaults::standard();
  EXPECT_EQ(standard->path(), pathJoin(Env::defaultEnv()->configHome(), "com.example.Ledger.plist"));
  EXPECT_EQ(UserDefaults::standard(), standard);

  TempDir dir;
  auto replacement = std::make_shared<UserDefaults>(Env::defaultEnv(), dir / "test.plist");
  UserDefaults::setStandard(replacement);
  EXPECT_EQ(UserDefaults::standard(), replacement);
  UserDefaults::setStandard(nullptr);
  ApplicationInfo::setCurrent(saved);
}

}  // namespace
}  // namespace corvane
