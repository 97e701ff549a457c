#include "corvane/foundation/decimal.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>

namespace corvane {
namespace {

std::string text(std::string_view s) {
  auto d = Decimal::fromString(s);
  return d ? d->toString() : "<rejected>";
}

Decimal parse(std::string_view s) {
  auto d = Decimal::fromString(s);
  EXPECT_TRUE(d.has_value()) << s;
  return d.value_or(Decimal::notANumber());
}

using Record = std::array<uint8_t, 20>;

TEST(DecimalTest, TextRoundTripsExactly) {
  EXPECT_EQ(text("0.1"), "0.1");
  EXPECT_EQ(text("-1234.5"), "-1234.5");
  EXPECT_EQ(text("123.4500"), "123.45");
  EXPECT_EQ(text("1000"), "1000");
  EXPECT_EQ(text("0.001"), "0.001");
  EXPECT_EQ(text("-0"), "0");
  EXPECT_EQ(text("000.000"), "0");
  EXPECT_EQ(text(".5"), "0.5");
  EXPECT_EQ(text("+1E+3"), "1000");
  EXPECT_EQ(text("3e-7"), "0.0000003");
  EXPECT_EQ(text("12.5e-1"), "1.25");
  EXPECT_EQ(text("NaN"), "NaN");
  // 38 digits are kept exactly, wherever the point is.
  EXPECT_EQ(text("12345678901234567890123456789012345678"), "12345678901234567890123456789012345678");
  EXPECT_EQ(text("-0.12345678901234567890123456789012345678"), "-0.12345678901234567890123456789012345678");
}

TEST(DecimalTest, MoreThan38DigitsRoundHalfUp) {
  EXPECT_EQ(text("123456789012345678901234567890123456785"), "123456789012345678901234567890123456790");
  EXPECT_EQ(text("123456789012345678901234567890123456784"), "123456789012345678901234567890123456780");
  EXPECT_EQ(text("1.234567890123456789012345678901234567849"), "1.2345678901234567890123456789012345678");
  // The carry runs through every digit.
  EXPECT_EQ(text("99999999999999999999999999999999999999.5"), "100000000000000000000000000000000000000");
  // Digits beyond the 39th are only looked at through the first dropped one.
  EXPECT_EQ(text("1000000000000000000000000000000000000049999"), "1000000000000000000000000000000000000000000");
  // A 39-digit mantissa handed to the constructor rounds the same way.
  Decimal::Mantissa big = 0;
  for (char c : std::string_view("123456789012345678901234567890123456785")) big = big * 10 + (c - '0');
  const Decimal d(big, 0, false);
  EXPECT_EQ(d.toString(), "123456789012345678901234567890123456790");
  EXPECT_EQ(d.exponent(), 1);
}

TEST(DecimalTest, RejectsGarbage) {
  for (const char* bad : {"", " 1", "1 ", "abc", "1e", "1e+", "1.2.3", "--1", "e5", ".", "+", "1,5", "0x10", "nan"}) {
    EXPECT_FALSE(Decimal::fromString(bad).has_value()) << '"' << bad << '"';
  }
}

TEST(DecimalTest, ExponentRangeIsEightBits) {
  EXPECT_EQ(parse("1e127").exponent(), 127);
  // Representable by moving a digit into the mantissa.
  EXPECT_EQ(parse("1e128").toString(), "1" + std::string(128, '0'));
  EXPECT_EQ(parse("1e128").exponent(), 127);
  EXPECT_TRUE(parse("1e200").isNaN());
  EXPECT_EQ(parse("1e-128").exponent(), -128);
  EXPECT_TRUE(parse("1e-129").isNaN());
  EXPECT_EQ(parse("10e-129").exponent(), -128);
  EXPECT_TRUE(parse("1e99999999999").isNaN());
  EXPECT_TRUE(parse("0e99999").isZero());
}

TEST(DecimalTest, ConstructorCompactsAndNeverMakesNegativeZero) {
  const Decimal d(1000, -3, false);
  EXPECT_EQ(d.mantissa(), 1u);
  EXPECT_EQ(d.exponent(), 0);
  EXPECT_TRUE(d.isCompact());
  const Decimal zero(0, -5, true);
  EXPECT_TRUE(zero.isZero());
  EXPECT_FALSE(zero.isNegative());
  EXPECT_EQ(zero.exponent(), 0);
}

TEST(DecimalTest, ComparesNumerically) {
  EXPECT_LT(parse("0.1"), parse("0.2"));
  EXPECT_LT(parse("-1"), parse("0"));
  EXPECT_LT(parse("-2"), parse("-1.5"));
  EXPECT_EQ(parse("1.0"), parse("1"));
  EXPECT_EQ(parse("123.450"), parse("123.45"));
  EXPECT_GT(parse("1e20"), parse("99999999999999999999"));
  EXPECT_LT(parse("0.00000000000000000000000000000000000001"), parse("1e-37"));
  EXPECT_GT(parse("1.0000000000000000000000000000000000001"), parse("1"));
  // Not-a-number sorts first and equals itself.
  EXPECT_LT(Decimal::notANumber(), parse("-1e100"));
  EXPECT_EQ(Decimal::notANumber(), Decimal::notANumber());
  // A non-compact record and its compact twin are the same number.
  Record r{0xFD, 0x01, 0x00, 0x00, 0xE8, 0x03};  // 1000e-3, length 1, not compact
  EXPECT_EQ(Decimal::fromRecord(r), parse("1"));
}

TEST(DecimalTest, ConvertsToDoubleWithCorrectRounding) {
  EXPECT_EQ(parse("0.1").toDouble(), 0.1);
  EXPECT_EQ(parse("-1234.5").toDouble(), -1234.5);
  EXPECT_EQ(parse("9007199254740993").toDouble(), 9007199254740992.0);  // ties to even
  EXPECT_EQ(parse("0.30000000000000004").toDouble(), 0.30000000000000004);
  EXPECT_EQ(parse("1e-128").toDouble(), 1e-128);
  EXPECT_EQ(parse("12345678901234567890123456789012345678e127").toDouble(), 1.2345678901234568e164);
  EXPECT_TRUE(std::isnan(Decimal::notANumber().toDouble()));
}

TEST(DecimalTest, FromDoubleUsesTheShortestText) {
  EXPECT_EQ(Decimal::fromDouble(0.1).toString(), "0.1");
  EXPECT_EQ(Decimal::fromDouble(-2.5).toString(), "-2.5");
  EXPECT_EQ(Decimal::fromDouble(1e21).toString(), "1000000000000000000000");
  EXPECT_EQ(Decimal::fromDouble(-0.0).toString(), "0");
  EXPECT_TRUE(Decimal::fromDouble(std::numeric_limits<double>::quiet_NaN()).isNaN());
  EXPECT_TRUE(Decimal::fromDouble(std::numeric_limits<double>::infinity()).isNaN());
}

TEST(DecimalTest, IntegerConversions) {
  int64_t i = 0;
  uint64_t u = 0;
  EXPECT_TRUE(parse("-9223372036854775808").toInt64(&i));
  EXPECT_EQ(i, std::numeric_limits<int64_t>::min());
  EXPECT_FALSE(parse("9223372036854775808").toInt64(&i));
  EXPECT_TRUE(parse("9223372036854775808").toUInt64(&u));
  EXPECT_EQ(u, 9223372036854775808ULL);
  EXPECT_TRUE(parse("18446744073709551615").toUInt64(&u));
  EXPECT_FALSE(parse("18446744073709551616").toUInt64(&u));
  EXPECT_TRUE(parse("12.000").toInt64(&i));
  EXPECT_EQ(i, 12);
  EXPECT_FALSE(parse("12.5").toInt64(&i));
  EXPECT_FALSE(parse("-1").toUInt64(&u));
  EXPECT_FALSE(Decimal::notANumber().toInt64(&i));
  EXPECT_EQ(Decimal::fromInt64(std::numeric_limits<int64_t>::min()).toString(), "-9223372036854775808");
  EXPECT_EQ(Decimal::fromUInt64(std::numeric_limits<uint64_t>::max()).toString(), "18446744073709551615");
}

// Record layout: u32 exponent | length << 8 | negative << 12 | compact << 13, then eight
// little-endian u16 mantissa words, least significant first.
TEST(DecimalTest, RecordBytesMatchTheLayout) {
  // 0.1: mantissa 1, exponent -1 (0xFF), one word, compact: 0xFF | 1 << 8 | 1 << 13 = 0x21FF.
  EXPECT_EQ(parse("0.1").toRecord(), (Record{0xFF, 0x21, 0x00, 0x00, 0x01, 0x00}));
  // -1234.5: mantissa 12345 = 0x3039, exponent -1, negative: 0x31FF.
  EXPECT_EQ(parse("-1234.5").toRecord(), (Record{0xFF, 0x31, 0x00, 0x00, 0x39, 0x30}));
  // Zero: length 0, compact.
  EXPECT_EQ(Decimal().toRecord(), (Record{0x00, 0x20, 0x00, 0x00}));
  // Not-a-number: length 0 with the negative flag.
  EXPECT_EQ(Decimal::notANumber().toRecord(), (Record{0x00, 0x10, 0x00, 0x00}));
  // 2^64 = 18446744073709551616: the fifth word is 1, so the length is 5: 0x2500.
  EXPECT_EQ(parse("18446744073709551616").toRecord(),
            (Record{0x00, 0x25, 0x00, 0x00, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0x00}));
  // 1e127: mantissa 1, exponent 0x7F.
  EXPECT_EQ(parse("1e127").toRecord(), (Record{0x7F, 0x21, 0x00, 0x00, 0x01, 0x00}));
  // 38 nines = 0x4B3B4CA85A86C47A098A223FFFFFFFFF: all eight words.
  EXPECT_EQ(parse(std::string(38, '9')).toRecord(),
            (Record{0x00, 0x28, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x3F, 0x22,
                    0x8A, 0x09, 0x7A, 0xC4, 0x86, 0x5A, 0xA8, 0x4C, 0x3B, 0x4B}));
}

TEST(DecimalTest, RecordsReadBackAsStored) {
  // Non-compact 1000e-3 keeps its representation, so the bytes survive a round trip.
  const Record nonCompact{0xFD, 0x01, 0x00, 0x00, 0xE8, 0x03};
  const Decimal d = Decimal::fromRecord(nonCompact);
  EXPECT_FALSE(d.isCompact());
  EXPECT_EQ(d.mantissa(), 1000u);
  EXPECT_EQ(d.exponent(), -3);
  EXPECT_EQ(d.toString(), "1");
  EXPECT_EQ(d.toRecord(), nonCompact);

  // Words beyond the length are ignored, and not written back.
  const Record withJunk{0x00, 0x21, 0x00, 0x00, 0x07, 0x00, 0x55, 0x55};
  EXPECT_EQ(Decimal::fromRecord(withJunk).toString(), "7");
  EXPECT_EQ(Decimal::fromRecord(withJunk).toRecord(), (Record{0x00, 0x21, 0x00, 0x00, 0x07, 0x00}));

  // A length field above 8 counts as 8.
  Record all{0x00, 0x2F, 0x00, 0x00};
  all[18] = 0x01;  // the top word
  EXPECT_EQ(Decimal::fromRecord(all).mantissa(), static_cast<Decimal::Mantissa>(1) << 112);

  // Not-a-number and zero records survive too.
  const Record nan{0x00, 0x10, 0x00, 0x00};
  EXPECT_TRUE(Decimal::fromRecord(nan).isNaN());
  EXPECT_EQ(Decimal::fromRecord(nan).toRecord(), nan);
  const Record allZero{};
  EXPECT_TRUE(Decimal::fromRecord(allZero).isZero());
  EXPECT_EQ(Decimal::fromRecord(allZero).toRecord(), allZero);

  // A 39-digit mantissa (above 10^38 but within 128 bits) is kept as read.
  Record widest{0x00, 0x28, 0x00, 0x00};
  for (size_t i = 4; i < 20; ++i) widest[i] = 0xFF;
  EXPECT_EQ(Decimal::fromRecord(widest).toString(), "340282366920938463463374607431768211455");
  EXPECT_EQ(Decimal::fromRecord(widest).toRecord(), widest);
}

}  // namespace
}  // namespace corvane
