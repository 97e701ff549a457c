#include "corvane/foundation/date_format.h"

#include <cmath>
#include <cstdint>
#include <cstdio>

#include "corvane/foundation/env.h"
#include "corvane/foundation/error.h"

namespace corvane {

namespace {

constexpr int64_t kSecondsPerDay = 86400;
// Days from 1970-01-01 to 2001-01-01.
constexpr int64_t kDaysFrom1970To2001 = 11323;
constexpr const char* kMonthNames[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

int64_t floorDiv(int64_t a, int64_t b) {
  int64_t q = a / b;
  return (a % b != 0 && ((a < 0) != (b < 0))) ? q - 1 : q;
}
int64_t floorMod(int64_t a, int64_t b) { return a - floorDiv(a, b) * b; }

struct Civil {
  int64_t year;
  int month;
  int day;
};

Civil civilFromDays(int64_t z) {
  z += 719468;
  const int64_t era = floorDiv(z, 146097);
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  const int d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  const int m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  return {yoe + era * 400 + (m <= 2), m, d};
}

bool isLeapYear(int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int daysInMonth(int64_t y, int m) {
  static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && isLeapYear(y) ? 29 : kDays[m - 1];
}

// The date that a text with this whole-millisecond count stands for; parse() computes
// exactly this, which is what makes format and parse agree.
double dateForMilliseconds(int64_t ms) {
  return static_cast<double>(floorDiv(ms, 1000)) + static_cast<double>(floorMod(ms, 1000)) / 1000.0;
}

// The greatest whole-millisecond count whose date is not later than `date`.
std::optional<int64_t> truncatedMilliseconds(double date) {
  double scaled = std::floor(date * 1000.0);
  if (!(std::fabs(scaled) < 1e15)) return std::nullopt;  // NaN, infinities, beyond year 30000
  auto ms = static_cast<int64_t>(scaled);
  while (dateForMilliseconds(ms) > date) --ms;
  while (dateForMilliseconds(ms + 1) <= date) ++ms;
  return ms;
}

void appendNumber(std::string* out, int64_t value, int minDigits) {
  char buffer[32];
  if (value < 0) {
    out->push_back('-');
    value = -value;
  }
  std::snprintf(buffer, sizeof buffer, "%0*lld", minDigits, static_cast<long long>(value));
  *out += buffer;
}

bool isSupported(char letter, int count) {
  switch (letter) {
    case 'y':
      return count == 4;
    case 'M':
      return count == 2 || count == 3;
    case 'd':
      return count == 1 || count == 2;
    case 'H':
    case 'm':
    case 's':
      return count == 2;
    case 'S':
      return count == 3;
    case 'Z':
      return count == 1;
    default:
      return false;
  }
}

// Reads exactly `count` digits (or, when maxCount > count, up to maxCount) at *pos.
std::optional<int> readDigits(std::string_view text, size_t* pos, int count, int maxCount) {
  int value = 0;
  int read = 0;
  while (read < maxCount && *pos < text.size() && text[*pos] >= '0' && text[*pos] <= '9') {
    value = value * 10 + (text[*pos] - '0');
    ++*pos;
    ++read;
  }
  if (read < count) return std::nullopt;
  return value;
}

// "Z", "+hhmm", "-hhmm", "+hh:mm" or "-hh:mm".
std::optional<int> readOffset(std::string_view text, size_t* pos) {
  if (*pos >= text.size()) return std::nullopt;
  if (text[*pos] == 'Z') {
    ++*pos;
    return 0;
  }
  int sign = text[*pos] == '+' ? 1 : text[*pos] == '-' ? -1 : 0;
  if (sign == 0) return std::nullopt;
  ++*pos;
  auto hours = readDigits(text, pos, 2, 2);
  if (!hours) return std::nullopt;
  if (*pos < text.size() && text[*pos] == ':') ++*pos;
  auto minutes = readDigits(text, pos, 2, 2);
  if (!minutes || *hours > 23 || *minutes > 59) return std::nullopt;
  return sign * (*hours * 3600 + *minutes * 60);
}

}  // namespace

int DateTimeZone::offsetAt(double secondsSince2001) const {
  if (!local_) return offset_;
  Env* env = env_ != nullptr ? env_ : Env::defaultEnv();
  return env->timeZoneOffset(secondsSince2001);
}

DateFormatter::DateFormatter(std::string_view pattern, DateTimeZone zone) : pattern_(pattern), zone_(zone) {
  for (size_t i = 0; i < pattern.size();) {
    char c = pattern[i];
    if (c == '\'') {
      // 'text' is literal; '' is one quote.
      std::string literal;
      size_t j = i + 1;
      if (j < pattern.size() && pattern[j] == '\'') {
        literal = "'";
        j += 1;
      } else {
        while (j < pattern.size() && pattern[j] != '\'') literal.push_back(pattern[j++]);
        j += 1;
      }
      fields_.push_back({0, 0, literal});
      i = j;
    } else if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) {
      size_t j = i;
      while (j < pattern.size() && pattern[j] == c) ++j;
      int count = static_cast<int>(j - i);
      if (!isSupported(c, count)) {
        throw Exception("NSInvalidArgumentException",
                        "Unsupported date pattern field " + std::string(pattern.substr(i, j - i)));
      }
      fields_.push_back({c, count, {}});
      i = j;
    } else {
      fields_.push_back({0, 0, std::string(1, c)});
      ++i;
    }
  }
}

std::string DateFormatter::format(double date) const {
  auto total = truncatedMilliseconds(date);
  if (!total) return "";
  const int offset = zone_.offsetAt(date);
  const int64_t localSeconds = floorDiv(*total, 1000) + offset;
  const int millis = static_cast<int>(floorMod(*total, 1000));
  const int64_t days = floorDiv(localSeconds, kSecondsPerDay) + kDaysFrom1970To2001;
  const int64_t secondOfDay = floorMod(localSeconds, kSecondsPerDay);
  const Civil civil = civilFromDays(days);

  std::string out;
  for (const Field& f : fields_) {
    switch (f.letter) {
      case 0:
        out += f.literal;
        break;
      case 'y':
        appendNumber(&out, civil.year, 4);
        break;
      case 'M':
        if (f.count == 3) {
          out += kMonthNames[civil.month - 1];
        } else {
          appendNumber(&out, civil.month, 2);
        }
        break;
      case 'd':
        appendNumber(&out, civil.day, f.count);
        break;
      case 'H':
        appendNumber(&out, secondOfDay / 3600, 2);
        break;
      case 'm':
        appendNumber(&out, secondOfDay / 60 % 60, 2);
        break;
      case 's':
        appendNumber(&out, secondOfDay % 60, 2);
        break;
      case 'S':
        appendNumber(&out, millis, 3);
        break;
      case 'Z': {
        int minutes = offset / 60;
        out.push_back(minutes < 0 ? '-' : '+');
        if (minutes < 0) minutes = -minutes;
        appendNumber(&out, minutes / 60, 2);
        appendNumber(&out, minutes % 60, 2);
        break;
      }
    }
  }
  return out;
}

std::optional<double> DateFormatter::parse(std::string_view text) const {
  int year = 1970, month = 1, day = 1, hour = 0, minute = 0, second = 0, millis = 0;
  std::optional<int> offset;
  size_t pos = 0;
  for (const Field& f : fields_) {
    if (f.letter == 0) {
      if (text.substr(pos, f.literal.size()) != f.literal) return std::nullopt;
      pos += f.literal.size();
    } else if (f.letter == 'Z') {
      if (!(offset = readOffset(text, &pos))) return std::nullopt;
    } else if (f.letter == 'M' && f.count == 3) {
      int found = 0;
      for (int i = 0; i < 12 && found == 0; ++i) {
        if (text.substr(pos, 3) == kMonthNames[i]) found = i + 1;
      }
      if (found == 0) return std::nullopt;
      month = found;
      pos += 3;
    } else {
      // Numbers have as many digits as letters, except "d", which takes one or two.
      int* target = f.letter == 'y'   ? &year
                    : f.letter == 'M' ? &month
                    : f.letter == 'd' ? &day
                    : f.letter == 'H' ? &hour
                    : f.letter == 'm' ? &minute
                    : f.letter == 's' ? &second
                                      : &millis;
      auto v = readDigits(text, &pos, f.count, f.letter == 'd' ? 2 : f.count);
      if (!v) return std::nullopt;
      *target = *v;
    }
  }
  if (pos != text.size()) return std::nullopt;
  if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 || minute > 59 || second > 59) {
    return std::nullopt;
  }
  const int64_t wallSeconds = (daysFromCivil(year, month, day) - kDaysFrom1970To2001) * kSecondsPerDay +
                              int64_t{hour} * 3600 + int64_t{minute} * 60 + second;
  int64_t seconds;
  if (offset) {
    seconds = wallSeconds - *offset;
  } else {
    // The zone's offset at the instant meant; for a local zone, found by guessing once and
    // correcting once, which settles except inside a daylight-saving jump.
    int guess = zone_.offsetAt(static_cast<double>(wallSeconds));
    seconds = wallSeconds - guess;
    int actual = zone_.offsetAt(static_cast<double>(seconds));
    if (actual != guess) seconds = wallSeconds - actual;
  }
  return dateForMilliseconds(seconds * 1000 + millis);
}

std::string displayDateString(double date, DateStyle dateStyle, DateStyle timeStyle, Env* env) {
  std::string pattern;
  if (dateStyle == DateStyle::Medium) pattern = "d MMM yyyy";
  if (dateStyle == DateStyle::Short) pattern = "dd/MM/yyyy";
  if (dateStyle != DateStyle::None && timeStyle != DateStyle::None) pattern += ", ";
  if (timeStyle == DateStyle::Medium) pattern += "HH:mm:ss";
  if (timeStyle == DateStyle::Short) pattern += "HH:mm";
  if (pattern.empty()) return "";
  return DateFormatter(pattern, DateTimeZone::local(env)).format(date);
}

// Proleptic Gregorian calendar conversions (days since 1970-01-01), after H. Hinnant.
int64_t daysFromCivil(int64_t y, int m, int d) {
  y -= m <= 2;
  const int64_t era = floorDiv(y, 400);
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

}  // namespace corvane
