// corvane::Decimal — an exact decimal number: up to 38 significant decimal digits, a signed
// 8-bit exponent of ten and a sign, with a not-a-number state. "0.1" stays exactly 0.1.
//
// It carries the 20-byte record of the binary object-graph format: one little-endian 32-bit
// word holding, from its least significant bit, the signed 8-bit exponent, a 4-bit count of
// the 16-bit mantissa words in use, a negative flag, a compact flag and 18 reserved zero bits;
// then eight little-endian unsigned 16-bit mantissa words, least significant first.
// Not-a-number is length 0 with the negative flag set.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace corvane {

class Decimal {
 public:
  __extension__ using Mantissa = unsigned __int128;  // __extension__: quiet under -Wpedantic
  static constexpr int kMaxDigits = 38;

  Decimal() = default;  // zero
  // value = (negative ? -1 : 1) * mantissa * 10^exponent. A mantissa of more than 38 digits
  // is rounded (half up) into range; an exponent out of the 8-bit range gives not-a-number.
  // The result is compact: trailing zero digits of the mantissa move into the exponent.
  Decimal(Mantissa mantissa, int exponent, bool negative);

  // Parses "-12.50", "3e-7", "+1E+3", ".5". Leading and trailing white space is refused.
  static std::optional<Decimal> fromString(std::string_view text);
  static Decimal fromInt64(int64_t v);
  static Decimal fromUInt64(uint64_t v);
  // The shortest text that reads back to the same double, as a decimal.
  static Decimal fromDouble(double v);
  static Decimal notANumber();
  // Reads a 20-byte record exactly as stored (a non-compact record stays non-compact).
  static Decimal fromRecord(std::span<const uint8_t, 20> record);

  bool isNaN() const noexcept { return nan_; }
  bool isZero() const noexcept { return !nan_ && mantissa_ == 0; }
  bool isNegative() const noexcept { return negative_; }
  bool isCompact() const noexcept { return compact_; }
  Mantissa mantissa() const noexcept { return mantissa_; }
  int exponent() const noexcept { return exponent_; }
  // True when the value is a whole number that fits in int64_t; sets *out then.
  bool toInt64(int64_t* out) const noexcept;
  // True when the value is a whole number that fits in uint64_t; sets *out then.
  bool toUInt64(uint64_t* out) const noexcept;

  // Exact text: "0.1", "-1234.5", "100"; "NaN" for not-a-number. No exponent notation.
  std::string toString() const;
  double toDouble() const noexcept;
  std::array<uint8_t, 20> toRecord() const noexcept;

  // Numeric comparison; not-a-number sorts before every number and equals itself.
  int compare(const Decimal& other) const noexcept;
  friend bool operator==(const Decimal& a, const Decimal& b) noexcept { return a.compare(b) == 0; }
  friend std::strong_ordering operator<=>(const Decimal& a, const Decimal& b) noexcept { return a.compare(b) <=> 0; }

 private:
  Mantissa mantissa_ = 0;
  int8_t exponent_ = 0;
  bool negative_ = false;
  bool compact_ = true;
  bool nan_ = false;
};

}  // namespace corvane
