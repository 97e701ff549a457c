#include "corvane/security/digest.h"

#include <gtest/gtest.h>

#include <string>

namespace corvane {
namespace {

TEST(DigestTest, PublishedSHA256AndMD5) {
  EXPECT_EQ(corvaneSHA256HexDigest({}), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(corvaneSHA256HexDigest(asBytes("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(storeSHA256String(""), "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
  EXPECT_EQ(storeSHA256String("abc"), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
  EXPECT_EQ(storeMD5String(""), "D41D8CD98F00B204E9800998ECF8427E");
  EXPECT_EQ(storeMD5String("abc"), "900150983CD24FB0D6963F7D28E17F72");
  EXPECT_EQ(sha256({}).size(), 32u);
  EXPECT_EQ(md5({}).size(), 16u);
}

TEST(DigestTest, HexadecimalStringIsUpperCaseWithoutSeparators) {
  const uint8_t bytes[] = {0x0a, 0xff};
  EXPECT_EQ(corvaneHexadecimalString(bytes), "0AFF");
  EXPECT_EQ(corvaneHexadecimalString({}), "");
  const uint8_t all[] = {0x00, 0x01, 0x9f, 0xa0, 0xed};
  EXPECT_EQ(corvaneHexadecimalString(all), "00019FA0ED");
}

TEST(DigestTest, MD5StopsAtTheFirstNul) {
  std::string withNul("abc\0def", 7);
  EXPECT_EQ(storeMD5String(withNul), "900150983CD24FB0D6963F7D28E17F72");
  // SHA-256 of a string takes every byte.
  EXPECT_NE(storeSHA256String(withNul), storeSHA256String("abc"));
}

}  // namespace
}  // namespace corvane
