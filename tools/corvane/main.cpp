// corvane — the command-line tool for the people who support users of Corvane documents.
#include <algorithm>
#include <cstring>
#include <iostream>
#include <utility>

#include "command.h"
#include "corvane/foundation/log.h"

namespace corvane::cli {
namespace {
std::vector<std::pair<int, CommandSetup>>& registry() {
  static std::vector<std::pair<int, CommandSetup>> commands;
  return commands;
}
}  // namespace

CommandRegistration::CommandRegistration(int order, CommandSetup setup) {
  registry().emplace_back(order, std::move(setup));
}

int fail(const std::string& message) {
  std::cerr << "corvane: " << message << "\n";
  return kExitFailure;
}

}  // namespace corvane::cli

// An exception that escapes a command is a bug: terminating, with its core, is what we want.
int main(int argc, char** argv) {  // NOLINT(bugprone-exception-escape)
  using namespace corvane::cli;
  CLI::App app{"corvane: inspect, check and repair Corvane documents"};
  app.require_subcommand(1);
  app.set_help_all_flag("--help-all", "Show the help of every command");
  // The library narrates its work on the console log; a command shows only its warnings and
  // errors unless asked for everything. Commands run inside parse(), so decide before it.
  bool verbose = false;
  app.add_flag("-v,--verbose", verbose, "Show the library's informational log lines on standard error");
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-v") == 0 || std::strcmp(argv[i], "--verbose") == 0) verbose = true;
  }
  if (!verbose) {
    corvane::setLogSink([console = corvane::standardErrorLogSink()](corvane::LogLevel level, std::string_view line) {
      // A document names its new error level ("Document X: CorvaneLogTypeWarning"); the commands
      // say in words what the store found instead.
      if (line.starts_with("Document ") && line.find(": CorvaneLogType") != std::string_view::npos) return;
      if (level == corvane::LogLevel::Warning || level == corvane::LogLevel::Error) console(level, line);
    });
  }
  int status = kExitSuccess;
  auto& commands = registry();
  std::stable_sort(commands.begin(), commands.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  for (auto& [order, setup] : commands) setup(app, &status);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int code = app.exit(e);
    return code == 0 ? kExitSuccess : kExitUsage;
  }
  return status;
}
