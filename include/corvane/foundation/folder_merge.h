// Two file-manager operations used when a sync client has split a folder into conflicting
// copies: creating a folder only when it is missing, and merging one folder's contents into
// another so that the source disappears and each of its items ends up at the same relative
// path in the destination, replacing what was there.
//
// Threads: any thread; the caller makes sure nobody else changes the two folders meanwhile.
#pragma once

#include <string>

#include "corvane/foundation/env.h"
#include "corvane/foundation/error.h"

namespace corvane {

// When something exists at `path`, answers whether it is a folder (a plain file is left
// alone and answers false); otherwise creates the folder with its parents.
bool createDirectoryAtPathIfNeeded(Env* env, const std::string& path);

// Moves every item of `source` to the same relative path under `destination`: folders are
// created, files (and links) replace what stands at their place, destination items with no
// counterpart are kept. Then the source folder is removed.
//
// With an `error` pointer, the first failing remove or move stops the merge at once, leaving
// the source in place partly merged, and is reported through it. Without one, failures go
// unseen and the merge runs to the end. Each step is logged.
void corvaneMergeContentsOfPath(Env* env, const std::string& source, const std::string& destination, Error* error);

}  // namespace corvane
