// The observer list behind the store's log and the cache's change announcements.
#include "foundation/observer_list.h"

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(ObserverList, ACallbackUnsubscribedByAnEarlierOneOfTheSameDeliveryIsNotCalled) {
  auto list = std::make_shared<ObserverList<int>>();
  std::vector<int> heard;
  Subscription second;
  Subscription first = ObserverList<int>::subscribe(list, [&](int value) {
    heard.push_back(value);
    second.unsubscribe();
  });
  second = ObserverList<int>::subscribe(list, [&](int value) { heard.push_back(-value); });
  list->deliver(1);
  list->deliver(2);
  EXPECT_EQ(heard, (std::vector<int>{1, 2}));
  first.unsubscribe();
  list->deliver(3);
  EXPECT_EQ(heard, (std::vector<int>{1, 2}));
  // A subscription that outlives its list ends quietly.
  Subscription late = ObserverList<int>::subscribe(list, [](int) {});
  list.reset();
  late.unsubscribe();
}

}  // namespace
}  // namespace corvane
