// Fuzzes the FastCoding readers (both tables, both major versions) and writes back whatever
// they accept. Every node a parse registered has its cycles broken afterwards, so that a
// reported leak is a real one; the reader for stored data gets no such help.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "coding/fast_internal.h"
#include "corvane/coding/fast_coder.h"
#include "corvane/foundation/log.h"

using namespace corvane;

namespace {

void readAndWriteBack(ByteView input, bool propertyListOnly) {
  std::vector<Value> nodes;
  try {
    Value root = detail::parseFastCoding(input, {.propertyListOnly = propertyListOnly}, nullptr, &nodes);
    if (!root.isNil()) {
      auto bytes = FastCoder::dataWithRootObject(root);
      if (bytes) {
        std::vector<Value> again;
        detail::parseFastCoding(*bytes, {.propertyListOnly = propertyListOnly}, nullptr, &again);
        detail::breakCycles(again);
      }
    }
  } catch (const Exception&) {
    // Cut headers and every failure of a version 2 stream reach the caller by design.
  }
  detail::breakCycles(nodes);
}

// The reader for stored data must free everything it read, cycles or not, with no help.
void readAsTree(ByteView input) {
  try {
    (void)FastCoder::acyclicObjectWithData(input);
  } catch (const Exception&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    setLogSink([](LogLevel, std::string_view) {});
    return true;
  }();
  (void)quiet;
  ByteView input(data, size);
  readAndWriteBack(input, false);
  readAndWriteBack(input, true);
  readAsTree(input);
  return 0;
}
