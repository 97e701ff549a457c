// Without a host's own interaction, what the library would show becomes console lines and every
// question gets its default answer, so a headless process never waits for a person.
#include "corvane/foundation/interaction.h"

#include <gtest/gtest.h>

#include "corvane/foundation/log.h"

namespace corvane {
namespace {

TEST(InteractionTest, HeadlessLogsAndAnswersTheDefault) {
  LogCapture log;
  std::shared_ptr<Interaction> headless = defaultInteraction();
  EXPECT_EQ(headless->runAlert({"The cache folder is write protected", "Fix it.", {"Quit", "Show"}}), 0u);
  headless->revealInFileViewer("/tmp/x/Changes/1.json");
  EXPECT_EQ(headless->askPassword("Doc.corvane"), std::nullopt);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"The cache folder is write protected: Fix it.",
                                                   "Show in file viewer: /tmp/x/Changes/1.json",
                                                   "Password needed, nobody to ask: Doc.corvane"}));
}

TEST(InteractionTest, AHostsInteractionServesUntilReset) {
  struct Host final : HeadlessInteraction {
    size_t runAlert(const Alert&) override { return 1; }
  };
  setDefaultInteraction(std::make_shared<Host>());
  EXPECT_EQ(defaultInteraction()->runAlert({"?", "", {"No", "Yes"}}), 1u);
  setDefaultInteraction(nullptr);
  LogCapture log;
  EXPECT_EQ(defaultInteraction()->runAlert({"?", "", {"No", "Yes"}}), 0u);
}

}  // namespace
}  // namespace corvane
