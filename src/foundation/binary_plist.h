// Private: the binary property-list reader behind propertyListFromBytes.
#pragma once

#include <optional>
#include <string>

#include "corvane/foundation/bytes.h"
#include "corvane/foundation/value.h"

namespace corvane::detail {

bool isBinaryPropertyList(ByteView bytes);
// The root of a "bplist00" file, or nullopt with the reason. Never trusts a count or an
// offset: every read is checked against the file, and cycles and deep nesting are refused.
std::optional<Value> readBinaryPropertyList(ByteView bytes, bool mutableContainers, std::string* reason);

}  // namespace corvane::detail
