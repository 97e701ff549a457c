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

void corvaneMergeContentsOfPath(Env* env, const std::string& source, const std::string& destination,
                                Error* error) {
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
    if (attrs && attrs->isDirectory) {
      logLine("   create directory");
      env->createDirectory(destinationItem, true, error);
    } else {
      if (env->fileExists(destinationItem) || env->attributes(destinationItem)) {
        logLine("   removeItemAtPath");
        env->removeItem(destinationItem, error);
      }
      if (error == nullptr || error->empty()) {
        logLine("   moveItemAtPath");
        env->moveItem(sourceItem, destinationItem, error);
      }
    }
    if (error != nullptr && !error->empty()) {
      logLine("ERROR: " + error->description());
      return;
    }
  }
  env->removeItem(source, nullptr);
}

}  // namespace corvane
