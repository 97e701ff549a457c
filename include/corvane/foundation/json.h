// JSON to and from corvane::Value.
//
// Reading: integers become long-long numbers (integers above the signed 64-bit range become
// unsigned long-long numbers), other numbers doubles, true/false booleans, null the null value.
// Objects become dictionaries in document order (a repeated key keeps its last value).
// Invalid input yields an error naming the byte offset and the reason; nesting deeper than
// kMaxJsonDepth is refused so that hostile input cannot exhaust the stack.
//
// Writing: compact or pretty (two-space indentation). Only values for which isValidJSONObject
// holds at every level can be written; decimals are written as their exact text.
//
// Threads: all functions are reentrant.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"

namespace corvane {

inline constexpr int kMaxJsonDepth = 512;

struct JsonReadOptions {
  bool mutableContainers = false;  // arrays and dictionaries are created mutable
  bool mutableLeaves = false;      // strings are created mutable
};

// Parses one JSON text (objects, arrays and, at the top, scalars too). Trailing white space
// is allowed, anything else after the value is an error.
std::optional<Value> jsonToValue(std::string_view text, Error* error = nullptr, const JsonReadOptions& options = {});

enum class JsonStyle { Compact, Pretty };

// Serialises `value`; nullopt (and an error) when something in it has no JSON form.
std::optional<std::string> valueToJson(const Value& value, JsonStyle style = JsonStyle::Compact,
                                       Error* error = nullptr);

// True when `value` is an array or dictionary that holds, at every level, only strings,
// numbers (decimals included), booleans, null, arrays and dictionaries with string keys, and
// no NaN or infinite number.
bool isValidJSONObject(const Value& value);

}  // namespace corvane
