// Fuzzes the JSON reader and writes back whatever it accepts.
#include <cstddef>
#include <cstdint>

#include "corvane/foundation/json.h"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  Error error;
  std::optional<Value> v = jsonToValue(text, &error);
  if (v) {
    if (isValidJSONObject(*v)) {
      std::optional<std::string> again = valueToJson(*v);
      if (!again || !jsonToValue(*again)) __builtin_trap();
    }
  } else if (error.localizedDescription.empty()) {
    __builtin_trap();  // a refusal always says why
  }
  return 0;
}
