// What the document's source files share.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <iterator>
#include <string>

#include "corvane/foundation/application_info.h"
#include "corvane/foundation/error.h"

namespace corvane::document_internal {

inline Error documentError(std::string description, std::string suggestion = {}) {
  return Error(kFrameworkBundleIdentifier, -1, std::move(description), std::move(suggestion));
}

// A byte count as people read it ("95.4 MB"), in decimal units as file managers show them.
inline std::string byteCountText(uint64_t bytes) {
  static const char* units[] = {"bytes", "KB", "MB", "GB", "TB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1000.0 && unit + 1 < std::size(units)) {
    value /= 1000.0;
    ++unit;
  }
  return unit == 0 ? fmt::format("{} bytes", bytes) : fmt::format("{:.1f} {}", value, units[unit]);
}

}  // namespace corvane::document_internal
