#include "corvane/foundation/error.h"

#include <cstring>

#include <fmt/format.h>

namespace corvane {
namespace {

// strerror_r comes in a GNU flavour (returns the text) and an XSI flavour (fills the buffer);
// overloads pick whichever the C library declares. strerror itself is not thread-safe.
[[maybe_unused]] const char* errorText(int result, const char* buffer) {
  return result == 0 ? buffer : "Unknown error";
}
[[maybe_unused]] const char* errorText(const char* result, const char* /*buffer*/) { return result; }

std::string systemErrorText(int err) {
  char buffer[256] = {};
  return errorText(strerror_r(err, buffer, sizeof buffer), buffer);
}

}  // namespace

Error Error::fromErrno(int err, const std::string& what) {
  const std::string reason = systemErrorText(err);
  std::string text = what.empty() ? reason : fmt::format("{}: {}", what, reason);
  Value info;
  if (!what.empty()) info = dict({{"NSFilePath", what}});
  return Error(kPOSIXErrorDomain, err, std::move(text), {}, std::move(info));
}

std::string Error::description() const {
  return fmt::format("Error Domain={} Code={} \"{}\"", domain, code, localizedDescription);
}

}  // namespace corvane
