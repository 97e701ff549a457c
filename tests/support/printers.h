// Lets GoogleTest print Values in failure messages.
#pragma once

#include <ostream>

#include "corvane/foundation/value.h"

namespace corvane {
inline void PrintTo(const Value& v, std::ostream* os) { *os << v.description(); }
}  // namespace corvane
