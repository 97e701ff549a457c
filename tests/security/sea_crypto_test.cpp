#include "corvane/security/sea_crypto.h"

#include <gtest/gtest.h>

#include <cstring>

#include "corvane/testing/fault_injection_env.h"
#include "security/test_vectors.h"

namespace corvane {
namespace {

using namespace testvectors;

// Random bytes are 00 01 02 ... (or a failure), so that a "random" IV is predictable.
struct CountingRandomEnv : FaultInjectionEnv {
  CountingRandomEnv() {
    setRandomSource([this](uint8_t* out, size_t n) {
      ++calls;
      for (size_t i = 0; i < n; ++i) out[i] = static_cast<uint8_t>(i);
      return !fail;
    });
  }
  int calls = 0;
  bool fail = false;
};

SeaCrypto cryptoWithVectorKeys(Env* env = Env::defaultEnv()) {
  SeaCrypto crypto(env);
  crypto.setSalt(sequence(0, 64));
  crypto.setRounds(1000);
  crypto.setPassword("password");
  return crypto;
}

Bytes foxBlock() { return concat({sequence(0, 16), fromHex(kFoxCiphertext), fromHex(kFoxTag)}); }

TEST(SeaCryptoTest, KeyDerivationMatchesPBKDF2) {
  SeaCrypto crypto = cryptoWithVectorKeys();
  Bytes derived = fromHex(kDerived1000);
  EXPECT_EQ(crypto.key(), Bytes(derived.begin(), derived.begin() + 32));
  EXPECT_EQ(crypto.keyHMAC(), Bytes(derived.begin() + 32, derived.end()));

  // Only the first 64 bytes of a longer salt take part.
  Bytes longSalt = concat({sequence(0, 64), sequence(200, 20)});
  SeaCrypto longer;
  longer.setSalt(longSalt);
  longer.setRounds(1000);
  longer.setPassword(asBytes("password"));  // bytes are used as they are
  EXPECT_EQ(longer.key(), crypto.key());

  SeaCrypto none;
  none.setSalt(sequence(0, 64));
  none.setRounds(1);
  none.setPassword(std::nullopt);  // no password: no password bytes
  EXPECT_EQ(concat({*none.key(), *none.keyHMAC()}), fromHex(kDerivedEmptyPassword1));

  SeaCrypto umlauts;
  umlauts.setSalt(sequence(0, 64));
  umlauts.setRounds(2);
  umlauts.setPassword("p\xC3\xA4ssw\xC3\xB6rd");
  EXPECT_EQ(concat({*umlauts.key(), *umlauts.keyHMAC()}), fromHex(kDerivedUmlauts2));
}

TEST(SeaCryptoTest, RealIterationCountMatchesPBKDF2) {
  SeaCrypto crypto;
  crypto.setSalt(sequence(0, 64));
  crypto.setRounds(SeaCrypto::defaultRounds());
  crypto.setPassword("password");
  EXPECT_EQ(SeaCrypto::defaultRounds(), 100000);
  EXPECT_EQ(concat({*crypto.key(), *crypto.keyHMAC()}), fromHex(kDerived100000));
}

TEST(SeaCryptoTest, EncryptsToTheIndependentlyComputedBlock) {
  SeaCrypto crypto = cryptoWithVectorKeys();
  crypto.setIv(concat({sequence(0, 16), sequence(99, 4)}));  // only the first 16 bytes count
  EXPECT_EQ(crypto.encryptData(asBytes(kFox)), foxBlock());
  EXPECT_EQ(crypto.decryptData(foxBlock()), toBytes(kFox));

  // An empty block is IV, one padding block and the tag: 96 bytes.
  Bytes empty = concat({sequence(0, 16), fromHex(kEmptyCiphertext), fromHex(kEmptyTag)});
  ASSERT_EQ(empty.size(), 96u);
  EXPECT_EQ(crypto.encryptData({}), empty);
  std::optional<Bytes> plain = crypto.decryptData(empty);
  ASSERT_TRUE(plain.has_value());
  EXPECT_TRUE(plain->empty());
}

TEST(SeaCryptoTest, RandomIVComesFromEnvAndMakesBlocksDiffer) {
  CountingRandomEnv fake;
  SeaCrypto predictable = cryptoWithVectorKeys(&fake);
  EXPECT_EQ(predictable.encryptData(asBytes(kFox)), foxBlock());
  EXPECT_EQ(fake.calls, 1);
  fake.fail = true;
  EXPECT_EQ(predictable.encryptData(asBytes(kFox)), std::nullopt);

  SeaCrypto crypto = cryptoWithVectorKeys();
  std::optional<Bytes> a = crypto.encryptData(asBytes(kFox));
  std::optional<Bytes> b = crypto.encryptData(asBytes(kFox));
  ASSERT_TRUE(a && b);
  EXPECT_NE(*a, *b);
  EXPECT_EQ(crypto.decryptData(*a), toBytes(kFox));
  EXPECT_EQ(crypto.decryptData(*b), toBytes(kFox));

  crypto.setIv(sequence(7, 16));
  EXPECT_EQ(crypto.encryptData(asBytes(kFox)), crypto.encryptData(asBytes(kFox)));
}

TEST(SeaCryptoTest, RandomBytesAndSalt) {
  CountingRandomEnv fake;
  EXPECT_EQ(SeaCrypto::dataWithRandomBytesOfSize(3, &fake), sequence(0, 3));
  EXPECT_EQ(SeaCrypto::generateSalt(&fake), sequence(0, 64));
  fake.fail = true;
  EXPECT_EQ(SeaCrypto::dataWithRandomBytesOfSize(3, &fake), std::nullopt);
  EXPECT_EQ(SeaCrypto::generateSalt(&fake), std::nullopt);
  EXPECT_NE(SeaCrypto::generateSalt(), SeaCrypto::generateSalt());
}

TEST(SeaCryptoTest, EveryFlippedBitIsRefused) {
  SeaCrypto crypto = cryptoWithVectorKeys();
  const Bytes block = foxBlock();
  for (size_t bit = 0; bit < block.size() * 8; ++bit) {
    Bytes damaged = block;
    damaged[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    EXPECT_EQ(crypto.decryptData(damaged), std::nullopt) << "bit " << bit;
  }
}

TEST(SeaCryptoTest, ShortAndMalformedBlocksAreRefused) {
  SeaCrypto crypto = cryptoWithVectorKeys();
  Bytes block = foxBlock();
  EXPECT_EQ(crypto.decryptData({}), std::nullopt);
  EXPECT_EQ(crypto.decryptData(ByteView(block).first(79)), std::nullopt);
  // Cut or extended blocks fail authentication.
  EXPECT_EQ(crypto.decryptData(ByteView(block).first(block.size() - 1)), std::nullopt);
  Bytes longer = block;
  longer.push_back(0);
  EXPECT_EQ(crypto.decryptData(longer), std::nullopt);

  // Authentic tags over ciphertexts the cipher refuses: no ciphertext at all (80 bytes), a
  // block with bad padding, a length that is not whole blocks. Never a crash, never output.
  EXPECT_EQ(crypto.decryptData(concat({sequence(0, 16), fromHex(kTagOfIVOnly)})), std::nullopt);
  EXPECT_EQ(crypto.decryptData(concat({sequence(0, 16), Bytes(16, 0), fromHex(kTagOfZeroBlock)})), std::nullopt);
  EXPECT_EQ(crypto.decryptData(concat({sequence(0, 16), Bytes(17, 0), fromHex(kTagOf17Zeros)})), std::nullopt);
}

TEST(SeaCryptoTest, WrongPasswordIsRefused) {
  SeaCrypto crypto;
  crypto.setSalt(sequence(0, 64));
  crypto.setRounds(1000);
  crypto.setPassword("Password");
  EXPECT_EQ(crypto.decryptData(foxBlock()), std::nullopt);
}

TEST(SeaCryptoTest, ShortSaltOrBadRoundsLeaveNoKeys) {
  SeaCrypto crypto = cryptoWithVectorKeys();
  ASSERT_TRUE(crypto.key() && crypto.keyHMAC());
  crypto.setSalt(sequence(0, 63));
  crypto.setPassword("password");
  EXPECT_EQ(crypto.key(), std::nullopt);
  EXPECT_EQ(crypto.keyHMAC(), std::nullopt);
  EXPECT_EQ(crypto.encryptData(asBytes(kFox)), std::nullopt);
  EXPECT_EQ(crypto.decryptData(foxBlock()), std::nullopt);

  crypto.setSalt(std::nullopt);
  crypto.setPassword("password");
  EXPECT_EQ(crypto.key(), std::nullopt);

  // A forged iteration count must neither hang nor give a usable key.
  crypto.setSalt(sequence(0, 64));
  for (int64_t rounds : {int64_t{0}, int64_t{-5}, SeaCrypto::kMaximumRounds + 1, int64_t{1} << 40}) {
    crypto.setRounds(rounds);
    crypto.setPassword("password");
    EXPECT_EQ(crypto.key(), std::nullopt) << rounds;
  }

  SeaCrypto fresh;  // no password set at all
  EXPECT_EQ(fresh.encryptData(asBytes(kFox)), std::nullopt);
  EXPECT_EQ(fresh.decryptData(foxBlock()), std::nullopt);
}

TEST(SeaCryptoTest, BadPropertyValuesAreRefused) {
  SeaCrypto crypto = cryptoWithVectorKeys();
  crypto.setIv(sequence(0, 15));  // too short to give an IV
  EXPECT_EQ(crypto.encryptData(asBytes(kFox)), std::nullopt);
  crypto.setIv(std::nullopt);
  crypto.setKey(sequence(0, 16));  // not an AES-256 key
  EXPECT_EQ(crypto.encryptData(asBytes(kFox)), std::nullopt);
  EXPECT_EQ(crypto.decryptData(foxBlock()), std::nullopt);
}

TEST(SeaCryptoTest, LargeBlocksRoundTrip) {
  SeaCrypto crypto = cryptoWithVectorKeys();
  Bytes big(1 << 20);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 31 + 7);
  std::optional<Bytes> block = crypto.encryptData(big);
  ASSERT_TRUE(block.has_value());
  EXPECT_EQ(block->size(), 16 + big.size() + 16 + 64);  // a whole padding block for 2^20 bytes
  EXPECT_EQ(crypto.decryptData(*block), big);
}

}  // namespace
}  // namespace corvane
