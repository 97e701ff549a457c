#include "corvane/foundation/date_format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "corvane/foundation/error.h"
#include "corvane/foundation/manual_clock_env.h"

namespace corvane {
namespace {

// 2024-05-17 09:41:07.250 GMT: 8537 days after 2001-01-01 (23 years with 5 leap days, then
// 137 days into 2024), plus 34867 seconds and a quarter.
constexpr double kSample = 737631667.25;

TEST(DateFormatter, FormatsChangeNamesAndTimestampsInGMTAndOffsets) {
  DateFormatter changeName(kChangeNameDatePattern, DateTimeZone::gmt());
  EXPECT_EQ(changeName.format(kSample), "2024-05-17-09-41-07.250");
  EXPECT_EQ(changeName.format(0), "2001-01-01-00-00-00.000");
  EXPECT_EQ(changeName.format(-31622401), "1999-12-31-23-59-59.000");

  EXPECT_EQ(DateFormatter(kTimestampDatePattern, DateTimeZone::gmt()).format(kSample), "2024-05-17T09:41:07.250+0000");
  EXPECT_EQ(DateFormatter(kTimestampDatePattern, DateTimeZone::fixed(-7 * 3600)).format(kSample),
            "2024-05-17T02:41:07.250-0700");
  EXPECT_EQ(DateFormatter(kTimestampDatePattern, DateTimeZone::fixed(5 * 3600 + 1800)).format(kSample),
            "2024-05-17T15:11:07.250+0530");
  EXPECT_EQ(DateFormatter(kSecondsDatePattern, DateTimeZone::gmt()).format(kSample), "2024-05-17T09:41:07");
}

TEST(DateFormatter, MillisecondsAreTruncatedTowardThePast) {
  DateFormatter f(kChangeNameDatePattern, DateTimeZone::gmt());
  EXPECT_EQ(f.format(kSample + 0.0009), "2024-05-17-09-41-07.250");
  EXPECT_EQ(f.format(kSample - 0.0000001), "2024-05-17-09-41-07.249");
  EXPECT_EQ(f.format(-0.0005), "2000-12-31-23-59-59.999");
  EXPECT_EQ(f.format(std::nan("")), "");
  EXPECT_EQ(f.format(std::numeric_limits<double>::infinity()), "");

  // Whatever the binary rounding of a parsed date, formatting gives the same text back.
  for (const char* text : {"2024-05-17-09-41-07.123", "2024-05-17-09-41-07.001", "2024-05-17-09-41-07.999",
                           "2000-12-31-23-59-59.999", "2099-01-01-00-00-00.007"}) {
    auto date = f.parse(text);
    ASSERT_TRUE(date) << text;
    EXPECT_EQ(f.format(*date), text);
  }
}

TEST(DateFormatter, ParsesOffsetsInEveryAcceptedForm) {
  DateFormatter f(kTimestampDatePattern, DateTimeZone::gmt());
  EXPECT_EQ(f.parse("2024-05-17T09:41:07.250+0000"), kSample);
  EXPECT_EQ(f.parse("2024-05-17T09:41:07.250+00:00"), kSample);
  EXPECT_EQ(f.parse("2024-05-17T09:41:07.250Z"), kSample);
  EXPECT_EQ(f.parse("2024-05-17T02:41:07.250-0700"), kSample);
  EXPECT_EQ(f.parse("2024-05-17T11:41:07.250+02:00"), kSample);
  // The text's offset wins over the formatter's zone.
  EXPECT_EQ(DateFormatter(kTimestampDatePattern, DateTimeZone::fixed(-5 * 3600)).parse("2024-05-17T11:41:07.250+0200"),
            kSample);
}

TEST(DateFormatter, RejectsTextThatDoesNotMatchExactly) {
  DateFormatter f(kTimestampDatePattern, DateTimeZone::gmt());
  for (const char* bad :
       {"", "2024-05-17T09:41:07+0000", "2024-05-17T09:41:07.250", "2024-05-17T09:41:07.250+000",
        "2024-05-17T09:41:07.250+0000 ", "2024-5-17T09:41:07.250+0000", "2024-13-01T00:00:00.000Z",
        "2023-02-29T00:00:00.000Z", "2024-04-31T00:00:00.000Z", "2024-05-17T24:00:00.000Z", "2024-05-17T09:60:00.000Z",
        "2024-05-17T09:41:60.000Z", "2024-05-17T09:41:07.250+2400", "abcd-05-17T09:41:07.250Z"}) {
    EXPECT_FALSE(f.parse(bad)) << bad;
  }
  EXPECT_TRUE(f.parse("2024-02-29T00:00:00.000Z"));
  EXPECT_THROW(DateFormatter("yy-MM-dd", DateTimeZone::gmt()), Exception);
  EXPECT_THROW(DateFormatter("EEE d MMM", DateTimeZone::gmt()), Exception);
}

TEST(DateFormatter, LocalPatternsUseTheEnvTimeZone) {
  ManualClockEnv env;
  env.setTimeZoneOffset(3600);
  DateFormatter stamp(kFileStampDatePattern, DateTimeZone::local(&env));
  EXPECT_EQ(stamp.format(kSample), "2024-05-17_10-41-07");
  EXPECT_EQ(DateFormatter(kDayDatePattern, DateTimeZone::local(&env)).format(kSample), "2024-05-17");
  // 2024-03-03 10:05:09 at GMT+1: 8462 days, 36309 seconds, minus the hour.
  EXPECT_EQ(stamp.parse("2024-03-03_10-05-09"), 731149509.0);
  EXPECT_EQ(DateFormatter(kDayDatePattern, DateTimeZone::local(&env)).parse("2024-03-03"), 731113200.0);
  EXPECT_EQ(DateFormatter("'Backup of' yyyy-MM-dd", DateTimeZone::gmt()).format(0), "Backup of 2001-01-01");
}

TEST(DateFormatter, DisplayStylesAreFixedAndLocaleIndependent) {
  ManualClockEnv env;
  env.setTimeZoneOffset(3600);
  EXPECT_EQ(displayDateString(kSample, DateStyle::Medium, DateStyle::None, &env), "17 May 2024");
  EXPECT_EQ(displayDateString(kSample, DateStyle::Short, DateStyle::None, &env), "17/05/2024");
  EXPECT_EQ(displayDateString(kSample, DateStyle::None, DateStyle::Medium, &env), "10:41:07");
  EXPECT_EQ(displayDateString(kSample, DateStyle::None, DateStyle::Short, &env), "10:41");
  EXPECT_EQ(displayDateString(kSample, DateStyle::Medium, DateStyle::Medium, &env), "17 May 2024, 10:41:07");
  EXPECT_EQ(displayDateString(-3600, DateStyle::Medium, DateStyle::Short, &env), "1 Jan 2001, 00:00");
  EXPECT_EQ(displayDateString(kSample, DateStyle::None, DateStyle::None, &env), "");
  EXPECT_EQ(DateFormatter("d MMM yyyy", DateTimeZone::gmt()).parse("7 Dec 2023"),
            DateFormatter(kDayDatePattern, DateTimeZone::gmt()).parse("2023-12-07"));
}

}  // namespace
}  // namespace corvane
