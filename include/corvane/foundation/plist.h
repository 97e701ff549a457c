// Property lists to and from corvane::Value: XML and binary in, XML out.
//
// Kinds map one to one: dictionary (string keys), array, string, integer (a long-long number),
// real (a double), boolean, date (seconds since 2001; the XML form keeps whole seconds, a
// binary list microseconds) and data. Other
// Value kinds have no property-list form and make writing fail.
//
// Threads: all functions are reentrant.
#pragma once

#include <optional>
#include <string>

#include "corvane/foundation/bytes.h"
#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"

namespace corvane {

class Env;

inline constexpr int kMaxPropertyListDepth = 512;

// Parses XML or binary property-list bytes. Containers are created mutable when asked.
std::optional<Value> propertyListFromBytes(ByteView bytes, Error* error = nullptr, bool mutableContainers = false);

// The XML form of `value`; nullopt (and an error) when something in it has no plist form.
std::optional<Bytes> xmlPropertyListBytes(const Value& value, Error* error = nullptr);

// True when every value in the graph has a property-list form.
bool isValidPropertyList(const Value& value);

// Reads and parses a property-list file through `env`.
bool readPropertyListFile(Env* env, const std::string& path, Value* out, Error* error = nullptr,
                          bool mutableContainers = false);

// Writes `value` as an XML property list, atomically, through `env`.
[[nodiscard]] bool writePropertyListFile(Env* env, const std::string& path, const Value& value, Error* error = nullptr);

}  // namespace corvane
