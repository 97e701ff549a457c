// Fuzzes the property-list reader (XML and binary) and writes back whatever it accepts.
#include <cstddef>
#include <cstdint>

#include "corvane/foundation/plist.h"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Error error;
  std::optional<Value> v = propertyListFromBytes(ByteView(data, size), &error);
  if (v) {
    std::optional<Bytes> xml = xmlPropertyListBytes(*v);
    if (xml) propertyListFromBytes(*xml);
  } else if (error.localizedDescription.empty()) {
    __builtin_trap();
  }
  return 0;
}
