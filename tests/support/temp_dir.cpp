#include "support/temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace corvane::testing {

TempDir::TempDir() {
  std::string base = std::filesystem::temp_directory_path().string() + "/corvane-test-XXXXXX";
  if (mkdtemp(base.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = base;
}

TempDir::~TempDir() {
  // Set CORVANE_KEEP_TEST_DIRS to look at what a failing test left behind.
  if (std::getenv("CORVANE_KEEP_TEST_DIRS") != nullptr) {
    std::cerr << "kept " << path_ << "\n";
    return;
  }
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void writeTextFile(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

std::string readTextFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

bool pathExists(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}

}  // namespace corvane::testing
