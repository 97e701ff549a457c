// The document tests' common ground: a fake clock and disk, a scripted person at the computer,
// and documents opened with options that keep everything inside the test's folder.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "corvane/document/corvane_document.h"
#include "corvane/foundation/manual_clock_env.h"
#include "corvane/foundation/user_defaults.h"
#include "corvane/graph/object_model.h"
#include "support/temp_dir.h"
#include "support/test_models.h"

namespace corvane::testing {

// A fake clock, a home folder inside the test's folder and a disk whose free space is set.
class DocumentTestEnv : public ManualClockEnv {
 public:
  std::string home;
  std::optional<uint64_t> free;
  std::string homeDirectory() override { return home; }
  std::optional<uint64_t> freeSpace(const std::string& path) override {
    return free ? free : ManualClockEnv::freeSpace(path);
  }
};

// Records what the document showed; answers with chosen buttons.
class ScriptedInteraction final : public Interaction {
 public:
  size_t runAlert(const Alert& alert) override { return answerAlert(alert).button; }
  AlertAnswer answerAlert(const Alert& alert) override {
    alerts.push_back(alert.message);
    return AlertAnswer{button, suppress};
  }
  void revealInFileViewer(const std::string& path) override { reveals.push_back(path); }
  void openFile(const std::string& path) override { opened.push_back(path); }
  std::optional<SavePanelAnswer> runSavePanel(const SavePanel& panel) override {
    panels.push_back(panel);
    return savePanelAnswer;
  }
  std::optional<std::string> askPassword(const std::string& message) override {
    prompts.push_back(message);
    return password;
  }
  void requestTermination() override { ++terminations; }
  size_t button = 0;
  bool suppress = false;
  std::optional<std::string> password;
  std::vector<std::string> alerts, reveals, prompts, opened;
  std::optional<SavePanelAnswer> savePanelAnswer;
  std::vector<SavePanel> panels;
  int terminations = 0;
};

class DocumentTest : public ::testing::Test {
 protected:
  DocumentTest() {
    env.home = dir / "home";
    // Settings of the code under test stay inside the test's folder.
    setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
    setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
  }
  DocumentOptions options(const std::string& cache = "cacheA") {
    DocumentOptions o;
    o.model = model;
    o.application = ApplicationInfo{"com.example.Test", "Test", "7", "1.0", Value()};
    o.cacheRoot = dir / cache;
    o.interaction = ui;
    o.env = &env;
    o.defaults = defaults;
    o.encryptionRounds = 1000;
    return o;
  }

  // A document whose package has "DocumentOptions" of its own and, when `encrypted`, a password;
  // `package` names it, `used` gets its options.
  std::unique_ptr<CorvaneDocument> openWithOptions(bool encrypted, DocumentOptions* used) {
    package = dir / (encrypted ? "Secret.corvane" : "Doc.corvane");
    *used = options(encrypted ? "cacheE" : "cacheP");
    used->documentOptions = Value::dictionary({{Value("flavour"), Value("plain")}});
    if (encrypted) used->password = "secret";
    Error error;
    auto doc = CorvaneDocument::open(package, *used, &error);
    EXPECT_TRUE(doc) << error.localizedDescription;
    return doc;
  }

  TempDir dir;
  DocumentTestEnv env;
  ScopedRunLoopEnv clock_{RunLoop::main(), &env};
  std::shared_ptr<ObjectModel> model = ObjectModel::fromJSON(kPeopleModelJSON, nullptr);
  std::shared_ptr<ScriptedInteraction> ui = std::make_shared<ScriptedInteraction>();
  std::shared_ptr<UserDefaults> defaults = std::make_shared<UserDefaults>(&env, dir / "defaults.plist");
  std::string package = dir / "Doc.corvane";
};

}  // namespace corvane::testing
