// corvane::DateFormatter — formats and parses the fixed date patterns the library writes.
//
// Dates are seconds since 2001-01-01 00:00:00 UTC. A formatter is a pattern plus a time
// zone: GMT, a fixed offset, or the local zone of an Env (its timeZoneOffset(), so a test
// with a ManualClockEnv chooses the zone). Patterns use these letters (anything else between
// letters is literal, and 'quoted' text is literal):
//
//   yyyy year (at least four digits)   MM month 01-12     MMM month "Jan".."Dec"
//   dd day 01-31     d day 1-31        HH hour 00-23      mm minute    ss second
//   SSS milliseconds                   Z offset "+0000" / "-0700"
//
// An unsupported letter is a programming error: the constructor throws
// Exception("NSInvalidArgumentException").
//
// Formatting truncates to the millisecond toward the past, so the text never shows a later
// time than the date, and parse(format(d)) <= d < parse(format(d)) + 0.001. Non-finite dates
// format as "". parse() reads exactly the pattern (the whole text, fixed digit counts, valid
// calendar fields) and returns nullopt otherwise; for Z it accepts "+0000", "+00:00" and "Z",
// and the offset in the text wins over the formatter's zone.
//
// Threads: a formatter is immutable; use it from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

class Env;

// Change names: "2024-05-17-09-41-07.250", in GMT.
inline constexpr const char* kChangeNameDatePattern = "yyyy-MM-dd-HH-mm-ss.SSS";
// Dates in change files: "2024-05-17T09:41:07.250+0000", in GMT or the writer's zone.
inline constexpr const char* kTimestampDatePattern = "yyyy-MM-dd'T'HH:mm:ss.SSSZ";
// Dates without milliseconds or offset: "2024-05-17T09:41:07".
inline constexpr const char* kSecondsDatePattern = "yyyy-MM-dd'T'HH:mm:ss";
// Backup copies and reports: "2024-03-03_10-05-09", in local time.
inline constexpr const char* kFileStampDatePattern = "yyyy-MM-dd_HH-mm-ss";
// Proposed file names: "2024-03-03", in local time.
inline constexpr const char* kDayDatePattern = "yyyy-MM-dd";

class DateTimeZone {
 public:
  static DateTimeZone gmt() { return DateTimeZone(0, nullptr, false); }
  static DateTimeZone fixed(int secondsEastOfGMT) { return DateTimeZone(secondsEastOfGMT, nullptr, false); }
  // The local zone as `env` reports it (nullptr: Env::defaultEnv()).
  static DateTimeZone local(Env* env = nullptr) { return DateTimeZone(0, env, true); }

  int offsetAt(double secondsSince2001) const;
  bool isLocal() const { return local_; }

 private:
  DateTimeZone(int offset, Env* env, bool local) : offset_(offset), env_(env), local_(local) {}
  int offset_;
  Env* env_;
  bool local_;
};

class DateFormatter {
 public:
  DateFormatter(std::string_view pattern, DateTimeZone zone);

  std::string format(double secondsSince2001) const;
  std::optional<double> parse(std::string_view text) const;

  const std::string& pattern() const { return pattern_; }
  const DateTimeZone& timeZone() const { return zone_; }

  // One piece of the compiled pattern: a pattern letter with its repeat count, or literal text.
  struct Field {
    char letter = 0;  // 0 for literal text
    int count = 0;
    std::string literal;
  };

 private:
  std::string pattern_;
  DateTimeZone zone_;
  std::vector<Field> fields_;
};

// Texts for messages shown to people, in the local zone of `env` (nullptr: the default Env).
// One fixed, locale-independent form (British day-month order, 24-hour clock):
//   date Medium "21 Nov 2026", Short "21/11/2026"; time Medium "13:45:07", Short "13:45";
//   both given: date, ", ", time ("21 Nov 2026, 13:45:07").
enum class DateStyle { None, Short, Medium };
std::string displayDateString(double secondsSince2001, DateStyle dateStyle, DateStyle timeStyle, Env* env = nullptr);

// Days since 1970-01-01 of a date of the proleptic Gregorian calendar (month 1 to 12).
int64_t daysFromCivil(int64_t year, int month, int day);

}  // namespace corvane
