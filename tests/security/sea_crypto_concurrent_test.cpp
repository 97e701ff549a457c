#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "corvane/security/sea_crypto.h"
#include "security/test_vectors.h"

namespace corvane {
namespace {

using namespace testvectors;

// Once the password is set, one instance serves every thread of the store.
TEST(SeaCryptoConcurrentTest, OneInstanceEncryptsAndDecryptsOnManyThreads) {
  SeaCrypto crypto;
  crypto.setSalt(sequence(0, 64));
  crypto.setRounds(1000);
  crypto.setPassword("password");
  const Bytes fox = concat({sequence(0, 16), fromHex(kFoxCiphertext), fromHex(kFoxTag)});

  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      Bytes plain(1000 + t * 100, static_cast<uint8_t>(t));
      for (int i = 0; i < 100; ++i) {
        std::optional<Bytes> block = crypto.encryptData(plain);
        if (!block || crypto.decryptData(*block) != plain) ++failures;
        if (crypto.decryptData(fox) != toBytes(kFox)) ++failures;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
}

}  // namespace
}  // namespace corvane
