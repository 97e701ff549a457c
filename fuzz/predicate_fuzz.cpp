// The predicate parser on arbitrary text: it answers a predicate or an error, never crashes,
// never hangs. Whatever parses is evaluated against a small record.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "corvane/graph/predicate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using corvane::Value;
  static const Value record = corvane::dict({{"title", "Grocery list"},
                                             {"priority", 3},
                                             {"when", Value::date(1000)},
                                             {"tags", Value::set({Value("home"), Value("work")})},
                                             {"folder", corvane::dict({{"name", "Inbox"}})}});
  std::string_view text(reinterpret_cast<const char*>(data), size);
  corvane::Error error;
  auto predicate = corvane::Predicate::parse(text, {Value("argument"), Value(2), Value("title")}, &error);
  if (predicate) predicate->evaluate(record);
  return 0;
}
