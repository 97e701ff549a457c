// Errors and exceptions.
//
// Expected failures are return values: an empty result (nullptr, std::nullopt, false) and,
// where the caller passes one, an Error* filled in. Whether an error pointer was given may
// change behaviour (a folder merge stops at the first error only when one was given), so
// functions take Error* and test it for null rather than always building an Error.
//
// The few named exceptions of the system ("FastCodingException", "MergeException",
// "No Transformer", ...) are a corvane::Exception carrying a name and a reason. They are
// caught where the system says they are and turned into an empty result or an Error.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

#include "corvane/foundation/value.h"

namespace corvane {

// The error domains the library reports in.
inline constexpr const char* kCorvaneErrorDomain = "Corvane";
inline constexpr const char* kCorvaneRecoveryErrorDomain = "CorvaneRecovery";
inline constexpr const char* kPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr const char* kCocoaErrorDomain = "NSCocoaErrorDomain";

struct Error {
  std::string domain;
  int64_t code = 0;
  std::string localizedDescription;
  std::string recoverySuggestion;
  Value userInfo;  // nil or a dictionary

  Error() = default;
  Error(std::string domain_, int64_t code_, std::string description = {}, std::string suggestion = {}, Value info = {})
      : domain(std::move(domain_)),
        code(code_),
        localizedDescription(std::move(description)),
        recoverySuggestion(std::move(suggestion)),
        userInfo(std::move(info)) {}

  // An error from an errno value, with the path it concerns in the description.
  static Error fromErrno(int err, const std::string& what);

  bool empty() const noexcept { return domain.empty() && code == 0 && localizedDescription.empty(); }
  // "Error Domain=<domain> Code=<code> \"<description>\"", as logs show errors.
  std::string description() const;
};

// Stores e into *out when the caller asked for errors. Returns false, so that a failing
// function can `return setError(error, ...);`.
inline bool setError(Error* out, Error e) {
  if (out != nullptr) *out = std::move(e);
  return false;
}

class Exception : public std::exception {
 public:
  Exception(std::string name, std::string reason) : name_(std::move(name)), reason_(std::move(reason)) {}
  const std::string& name() const noexcept { return name_; }
  const std::string& reason() const noexcept { return reason_; }
  const char* what() const noexcept override { return reason_.c_str(); }

 private:
  std::string name_;
  std::string reason_;
};

}  // namespace corvane
