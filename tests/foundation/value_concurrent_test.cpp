#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "corvane/foundation/value.h"

namespace corvane {
namespace {

// Handles to the same nodes are copied, read and dropped on several threads at once; the
// reference counts must stay exact (no leak, no early free under the sanitizers).
TEST(ValueConcurrentTest, SharedNodesCopiedAndReadFromManyThreads) {
  const Value shared = dict({{"name", "Ann"}, {"list", arr({1, 2.5, "x", Value::date(3)})}});
  const uint32_t before = static_cast<const detail::Node*>(shared.identity())->refCount();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&shared] {
      for (int i = 0; i < 2000; ++i) {
        Value copy = shared;
        Value nested = copy["list"];
        Value holder = Value::mutableArray({copy, nested});
        EXPECT_EQ(holder.at(0), shared);
        EXPECT_EQ(copy.hash(), shared.hash());
        if (i % 100 == 0) {
          EXPECT_FALSE(holder.description().empty());
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(static_cast<const detail::Node*>(shared.identity())->refCount(), before);
}

}  // namespace
}  // namespace corvane
