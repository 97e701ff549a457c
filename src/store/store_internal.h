// Helpers shared by the store's source files.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"

namespace corvane {

class AttributeDescription;
class Env;

namespace store_internal {

// Store and document refusals: domain "Corvane", code -1.
Error storeError(const std::string& description);

// A path from a store option that is a path string, a "file://" URL string or a URL value;
// nullopt for anything else.
std::optional<std::string> pathFromLocation(const Value& location);

// "2024-05-17T09:41:07.250+0000": the dates of change files, in GMT.
std::string timestampString(double secondsSince2001);
// A change's "date": a date value, or a text in the form above (any zone offset).
std::optional<double> dateFromChangeValue(const Value& value);

// The cache answers numbers as decimals (their file form is decimal text); objects want the
// kind their attribute declares. A number for a string attribute shows as its text, a text
// for a number or boolean attribute as what it reads as (see Value's accessors), a number for
// a date as seconds since 2001; a value with no reading in the attribute's type as nil.
Value modelValueForAttribute(const AttributeDescription& attribute, const Value& value);

// Reads a file through the Env; nullopt when it cannot be read.
std::optional<Bytes> readBytes(Env* env, const std::string& path);

// A mutable dictionary holding the entries of `value` (empty when it is no dictionary).
Value mutableDictionaryCopy(const Value& value);

// The first name in a change that may not become part of a path (its "name", "previousName",
// the entity names and UIDs of "changes" and "refreshes", the data-file names of their records);
// nullopt when every one is a plain file name.
std::optional<std::string> nonPlainNameInChange(const Value& change);

// The extension of a change file name, compared as the platform's "like" would.
bool hasJSONExtension(std::string_view name);

}  // namespace store_internal
}  // namespace corvane
