#include "corvane/foundation/check.h"

#include <cstdio>
#include <cstdlib>

namespace corvane {

void dcheckFailed(const char* file, int line, const char* condition) {
  // Straight to standard error: the log sink may be a test's capture, or the very code that
  // broke its contract.
  std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, condition);
  std::fflush(stderr);
  std::abort();
}

}  // namespace corvane
