// A JSON notation for whole FastCoding graphs, used by `corvane fast dump` and
// `corvane fast encode` to show and build cache files.
//
// Kinds that JSON lacks are one-key objects: {"$data": base64}, {"$date": seconds since
// 2001-01-01}, {"$decimal": "exact text"}, {"$set": [...]}, {"$orderedSet": [...]},
// {"$url": relative, "$base": base URL, the base's text or null}, {"$point": [x, y]}, {"$size": [w, h]},
// {"$rect": [x, y, w, h]}, {"$range": [location, length]}, {"$vector": [dx, dy]},
// {"$affineTransform": [a, b, c, d, tx, ty]}, {"$transform3D": [16 numbers]},
// {"$indexSet": [[location, length], ...]}, {"$nil": true} for an empty slot. The null value
// is null. A dictionary with a key that is not a string (or a string key starting with "$"
// other than "$class") is {"$dictionary": [[key, value], ...]}. An object is
// {"$class": name, property: value, ...}. A node met again inside itself is {"$cycle": true}.
// {"$alias": "key.path"} is the one-entry dictionary of that name, which the writer replaces by
// the value found from the root along the path ("items.2.name"); it prints back the same way.
// Floating-point NaN and infinities are written as NaN, Infinity and -Infinity.
//
// Threads: both functions are reentrant.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"

namespace corvane {

// The graph under `root` in the notation; nullopt (and an error) when it is too large to
// print (a graph that shares sub-graphs a great many times grows when printed as a tree).
std::optional<std::string> fastGraphToJson(const Value& root, bool pretty, Error* error = nullptr);

// Builds a graph from the notation. Integers become 64-bit numbers (the writer then takes the
// smallest code that holds them), other numbers doubles. Containers are immutable unless
// `mutableContainers`. {"$class": ...} builds an instance when the class is registered and a
// dictionary holding "$class" otherwise. nullopt and an error for invalid JSON or notation.
std::optional<Value> fastGraphFromJson(std::string_view text, bool mutableContainers, Error* error = nullptr);

}  // namespace corvane
