// A fresh temporary folder for one test, removed with everything in it at the end.
#pragma once

#include <string>

namespace corvane::testing {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path()/relative
  std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

// Small file helpers for tests (plain POSIX; the code under test goes through Env).
void writeTextFile(const std::string& path, const std::string& text);  // creates parent folders
std::string readTextFile(const std::string& path);
bool pathExists(const std::string& path);

}  // namespace corvane::testing
