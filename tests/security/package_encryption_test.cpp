#include "corvane/security/package_encryption.h"

#include <gtest/gtest.h>

#include "security/test_vectors.h"

namespace corvane {
namespace {

using namespace testvectors;

Bytes packageVerifier() {
  // kPackageVerifierBase64 as hex (the same bytes the command-line tests put in Info.plist).
  return fromHex(
      "a0a1a2a3a4a5a6a7a8a9aaabacadaeaf148b0510cb4b76ceffc7a4402f369e5af417c83bcf0a0f196f4df7987ddab2"
      "2a5755ece60f7933096cc6e89a06fba6170b53ae773e192ce57796f53fb6f4af3f5792d6d6c0789f5fdc1feb19882c"
      "4c45");
}

Value infoWithEncryption(const Value& salt, const Value& rounds, const Value& verifier) {
  return dict(
      {{"DocumentIdentifier", "X"}, {"Encryption", dict({{"Salt", salt}, {"Rounds", rounds}, {"Info", verifier}})}});
}

Value packageInfo() {
  return infoWithEncryption(Value::data(packageSalt()), Value(kPackageRounds), Value::data(packageVerifier()));
}

TEST(PackageEncryptionTest, ReadsTheEncryptionEntry) {
  Value plain = dict({{"DocumentIdentifier", "X"}});
  EXPECT_FALSE(isEncryptedPackageInfo(plain));
  EXPECT_EQ(encryptionParameters(plain), std::nullopt);

  Value info = packageInfo();
  EXPECT_TRUE(isEncryptedPackageInfo(info));
  std::optional<EncryptionParameters> parameters = encryptionParameters(info);
  ASSERT_TRUE(parameters.has_value());
  EXPECT_EQ(parameters->salt, packageSalt());
  EXPECT_EQ(parameters->rounds, 1000);
  EXPECT_EQ(parameters->verifier, packageVerifier());

  // Values of the wrong kind read as missing.
  std::optional<EncryptionParameters> odd = encryptionParameters(infoWithEncryption("salt", "many", 3));
  ASSERT_TRUE(odd.has_value());
  EXPECT_EQ(odd->salt, std::nullopt);
  EXPECT_EQ(odd->verifier, std::nullopt);
}

TEST(PackageEncryptionTest, PasswordCheckAgainstTheVerifier) {
  Value info = packageInfo();
  EXPECT_TRUE(canOpenWithPassword(info, kPackagePassword));
  EXPECT_FALSE(canOpenWithPassword(info, "correct horse "));
  EXPECT_FALSE(canOpenWithPassword(info, ""));
  EXPECT_FALSE(canOpenWithPassword(info, std::nullopt));

  Value plain = dict({{"DocumentIdentifier", "X"}});
  EXPECT_TRUE(canOpenWithPassword(plain, std::nullopt));
  EXPECT_FALSE(canOpenWithPassword(plain, "anything"));

  // "Salt" and "Info" must both be data.
  EXPECT_FALSE(canOpenWithPassword(infoWithEncryption("salt", Value(kPackageRounds), Value::data(packageVerifier())),
                                   kPackagePassword));
  EXPECT_FALSE(canOpenWithPassword(infoWithEncryption(Value::data(packageSalt()), Value(kPackageRounds), Value()),
                                   kPackagePassword));
  // The wrong iteration count derives other keys.
  EXPECT_FALSE(canOpenWithPassword(
      infoWithEncryption(Value::data(packageSalt()), Value(999), Value::data(packageVerifier())), kPackagePassword));
}

TEST(PackageEncryptionTest, VerifierOfAnotherTextIsRefused) {
  // A verifier that is authentic under the password's keys but holds a different text.
  SeaCrypto crypto;
  crypto.setSalt(packageSalt());
  crypto.setRounds(kPackageRounds);
  crypto.setPassword(kPackagePassword);
  std::optional<Bytes> other = crypto.encryptData(asBytes("correct horse!"));
  ASSERT_TRUE(other.has_value());
  Value info = infoWithEncryption(Value::data(packageSalt()), Value(kPackageRounds), Value::data(*other));
  EXPECT_FALSE(canOpenWithPassword(info, kPackagePassword));
}

TEST(PackageEncryptionTest, PasswordCheckHandsOverTheCipher) {
  SeaCrypto cipher;
  EXPECT_FALSE(canOpenWithPassword(packageInfo(), "wrong", Env::defaultEnv(), &cipher));
  EXPECT_EQ(cipher.key(), std::nullopt);
  ASSERT_TRUE(canOpenWithPassword(packageInfo(), kPackagePassword, Env::defaultEnv(), &cipher));
  EXPECT_EQ(cipher.decryptData(fromHex(kPackageChangeBlock)), toBytes(kPackageChangePlain));
}

TEST(PackageEncryptionTest, StoreCipherDecryptsTheIndependentlyMadeChangeFile) {
  SeaCrypto crypto = seaCryptoForPackageInfo(packageInfo(), kPackagePassword);
  EXPECT_EQ(crypto.rounds(), 1000);
  EXPECT_EQ(crypto.decryptData(fromHex(kPackageChangeBlock)), toBytes(kPackageChangePlain));

  SeaCrypto unencrypted = seaCryptoForPackageInfo(dict({{"DocumentIdentifier", "X"}}), kPackagePassword);
  EXPECT_EQ(unencrypted.key(), std::nullopt);
  EXPECT_EQ(unencrypted.decryptData(fromHex(kPackageChangeBlock)), std::nullopt);
}

TEST(PackageEncryptionTest, NewEntryOpensWithItsPasswordOnly) {
  std::optional<Value> entry = makeEncryptionEntry("s\xC3\xA9same", Env::defaultEnv(), 10);
  ASSERT_TRUE(entry.has_value());
  EXPECT_TRUE(entry->isMutable());
  EXPECT_EQ((*entry)["Salt"].bytes().size(), 64u);
  EXPECT_EQ((*entry)["Rounds"].longLongValue(), 10);
  // The verifier is one encrypted block of the 7 password bytes: IV, one cipher block, tag.
  EXPECT_EQ((*entry)["Info"].bytes().size(), 96u);

  Value info = dict({{"Encryption", *entry}});
  EXPECT_TRUE(canOpenWithPassword(info, "s\xC3\xA9same"));
  EXPECT_FALSE(canOpenWithPassword(info, "sesame"));

  std::optional<Value> realEntry = makeEncryptionEntry("x");
  ASSERT_TRUE(realEntry.has_value());
  EXPECT_EQ((*realEntry)["Rounds"].longLongValue(), 100000);
  EXPECT_NE((*realEntry)["Salt"], (*entry)["Salt"]);
}

}  // namespace
}  // namespace corvane
