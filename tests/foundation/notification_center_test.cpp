#include "corvane/foundation/notification_center.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "corvane/foundation/run_loop.h"

namespace corvane {
namespace {

TEST(NotificationCenter, DeliversByNameAndObjectInOrderOfRegistration) {
  NotificationCenter center;
  int store = 0, otherStore = 0;
  std::vector<std::string> log;
  auto all = center.addObserver("", nullptr, [&](const Notification& n) { log.push_back("all:" + n.name); });
  auto saves = center.addObserver("CorvaneBeginSave", nullptr, [&](const Notification&) { log.push_back("saves"); });
  auto mine = center.addObserver("CorvaneBeginSave", &store, [&](const Notification& n) {
    log.push_back("mine");
    EXPECT_EQ(n.object, &store);
    EXPECT_EQ(n.userInfo["count"].intValue(), 3);
  });

  center.post("CorvaneBeginSave", &store, dict({{"count", 3}}));
  EXPECT_EQ(log, (std::vector<std::string>{"all:CorvaneBeginSave", "saves", "mine"}));
  log.clear();
  center.post("CorvaneBeginSave", &otherStore);
  center.post("CorvaneReady");
  EXPECT_EQ(log, (std::vector<std::string>{"all:CorvaneBeginSave", "saves", "all:CorvaneReady"}));
}

TEST(NotificationCenter, ObservationEndsWithTheTokenOrRemove) {
  NotificationCenter center;
  int calls = 0;
  {
    auto token = center.addObserver("N", nullptr, [&](const Notification&) { ++calls; });
    center.post("N");
    NotificationCenter::Observer moved = std::move(token);
    EXPECT_FALSE(token.isActive());
    center.post("N");
    moved.remove();
    EXPECT_FALSE(moved.isActive());
    center.post("N");
  }
  EXPECT_EQ(calls, 2);
  // A token that outlives its center is harmless.
  NotificationCenter::Observer orphan;
  {
    NotificationCenter shortLived;
    orphan = shortLived.addObserver("N", nullptr, [](const Notification&) {});
  }
  orphan.remove();
}

TEST(NotificationCenter, CallbacksMayRemoveObserversWhileDelivering) {
  NotificationCenter center;
  std::vector<std::string> log;
  NotificationCenter::Observer second;
  NotificationCenter::Observer first = center.addObserver("N", nullptr, [&](const Notification&) {
    log.push_back("first");
    first.remove();   // itself
    second.remove();  // and one that has not been called yet
  });
  second = center.addObserver("N", nullptr, [&](const Notification&) { log.push_back("second"); });
  auto third = center.addObserver("N", nullptr, [&](const Notification& n) {
    log.push_back("third");
    if (n.userInfo.isNil()) center.post("N", nullptr, dict({{"nested", true}}));  // re-entrant post
  });
  center.post("N");
  EXPECT_EQ(log, (std::vector<std::string>{"first", "third", "third"}));
}

TEST(NotificationCenter, PostOnMainRunLoopDeliversWhenTheLoopRuns) {
  NotificationCenter& center = NotificationCenter::defaultCenter();
  EXPECT_EQ(&center, &NotificationCenter::defaultCenter());
  RunLoop::main().runOnce();  // anything left over from other tests
  int calls = 0;
  auto token = center.addObserver("CorvaneDidFinishLoading", nullptr, [&](const Notification&) {
    EXPECT_TRUE(RunLoop::main().isMainThread());
    ++calls;
  });
  center.postOnMainRunLoop("CorvaneDidFinishLoading");
  EXPECT_EQ(calls, 0);
  RunLoop::main().runOnce();
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace corvane
