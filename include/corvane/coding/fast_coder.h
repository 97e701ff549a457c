// FastCoder — the FastCoding binary object-graph format, the format of every cache file.
//
// The writer keeps object identity: a node met twice is written once and then referred to by
// index, so shared sub-graphs and cycles through mutable containers and objects survive a
// round trip. Equal immutable strings (and equal URLs) are written once; other nodes are
// shared only when they are the same node.
//
// Objects of registered classes travel by keys or by properties (see coding.h). An object
// whose class is not registered comes back as a mutable dictionary holding "$class" and its
// property values, and such a dictionary is written back as the same object. Two
// dictionary shapes have a meaning for the writer: {"$alias": "key.path"} writes the value
// found by following the key path from the root, and a dictionary with "$class" writes an
// object of that class.
//
// Readers never trust counts: a hostile stream can make them fail, never crash, hang or
// allocate more than the input could describe.
//
// Threads: every function may be called from any thread; calls share nothing.
#pragma once

#include <optional>

#include "corvane/foundation/bytes.h"
#include "corvane/foundation/error.h"
#include "corvane/foundation/value.h"

namespace corvane {

inline constexpr const char* kFastCodingException = "FastCodingException";

class FastCoder {
 public:
  // The bytes of the graph under `root`; nullopt when root is nil. A graph nested deeper than
  // the reader accepts (2000 levels; a coded object that encodes itself gets there) raises
  // corvane::Exception("FastCodingException", ...) instead of exhausting the stack.
  static std::optional<Bytes> dataWithRootObject(const Value& root);

  // The root of the graph in `data`, or nil. Malformed data gives nil with the reason
  // logged (and stored in *error when given); data that is too short or does not start with
  // the format's identifier gives nil silently.
  //
  // Two cases raise corvane::Exception("FastCodingException", ...) to the caller instead:
  // data of 8 to 19 bytes with the current identifier (the header itself is cut short), and
  // any malformed stream of the earlier major version 2, which is read without the guard.
  static Value objectWithData(ByteView data, Error* error = nullptr);

  // As objectWithData, for stored data that is a plain tree of values: a mutable container
  // referenced from inside itself fails the read like any malformed stream, and what was
  // read is freed. (objectWithData builds such a graph, and its reference counts never let
  // it go.)
  static Value acyclicObjectWithData(ByteView data, Error* error = nullptr);

  // As objectWithData, but refuses objects of classes (and nil values): only dictionaries,
  // arrays, sets, strings, numbers, dates, data and the like come back. In version 2 streams
  // the class definition, object, Nil and coded-object codes are refused alike.
  static Value propertyListWithData(ByteView data, Error* error = nullptr);
};

}  // namespace corvane
