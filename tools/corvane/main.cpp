// corvane — the command-line tool for the people who support users of Corvane documents.
#include <algorithm>
#include <iostream>
#include <utility>

#include "command.h"

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

int main(int argc, char** argv) {
  using namespace corvane::cli;
  CLI::App app{"corvane: inspect, check and repair Corvane documents"};
  app.require_subcommand(1);
  app.set_help_all_flag("--help-all", "Show the help of every command");
  int status = kExitSuccess;
  auto& commands = registry();
  std::stable_sort(commands.begin(), commands.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  for (auto& [order, setup] : commands) setup(app, &status);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int code = app.exit(e);
    return code == 0 ? kExitSuccess : kExitUsage;
  }
  return status;
}
