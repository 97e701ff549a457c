#include "corvane/foundation/observable.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "corvane/foundation/manual_clock_env.h"

namespace corvane {
namespace {

TEST(Observable, ChangesReachSubscribersOnTheRunLoopWithOldAndNewValues) {
  ManualClockEnv env;
  RunLoop loop(&env);
  Observable<std::string> level("CorvaneLogTypeSuccess", &loop);
  std::vector<std::pair<std::string, std::string>> seen;
  Subscription sub = level.subscribe([&](const std::string& o, const std::string& n) { seen.emplace_back(o, n); });

  level.set("CorvaneLogTypeWarning");
  level.set("CorvaneLogTypeWarning");  // every set is reported, as with key-value observing
  EXPECT_EQ(level.get(), "CorvaneLogTypeWarning");
  EXPECT_TRUE(seen.empty());  // nothing before the loop runs
  loop.runOnce();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0], std::make_pair(std::string("CorvaneLogTypeSuccess"), std::string("CorvaneLogTypeWarning")));
  EXPECT_EQ(seen[1], std::make_pair(std::string("CorvaneLogTypeWarning"), std::string("CorvaneLogTypeWarning")));
}

TEST(Observable, DeliveriesSkipSubscribersThatCameLaterOrLeft) {
  ManualClockEnv env;
  RunLoop loop(&env);
  auto value = std::make_unique<Observable<int>>(0, &loop);
  int early = 0, late = 0, gone = 0;
  Subscription a = value->subscribe([&](const int&, const int& n) { early = n; });
  Subscription c = value->subscribe([&](const int&, const int&) { ++gone; });
  value->set(1);
  Subscription b = value->subscribe([&](const int&, const int& n) { late = n; });
  c.unsubscribe();
  EXPECT_FALSE(c.isActive());
  loop.runOnce();
  EXPECT_EQ(early, 1);
  EXPECT_EQ(late, 0);  // subscribed after the change
  EXPECT_EQ(gone, 0);  // unsubscribed before the delivery

  value->set(2);
  value.reset();  // the delivery of a destroyed observable is dropped
  loop.runOnce();
  EXPECT_EQ(early, 1);
  a.unsubscribe();  // after the observable is gone: harmless
}

TEST(Observable, SetOnAnyThreadDeliversInOrder) {
  ManualClockEnv env;
  RunLoop loop(&env);
  Observable<int> value(0, &loop);
  std::vector<int> seen;
  Subscription sub = value.subscribe([&](const int&, const int& n) { seen.push_back(n); });
  std::thread([&] {
    for (int i = 1; i <= 100; ++i) value.set(i);
  }).join();
  loop.runOnce();
  ASSERT_EQ(seen.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(seen[static_cast<size_t>(i)], i + 1);
}

}  // namespace
}  // namespace corvane
