// How commands of the `corvane` tool plug in: each command file defines a registration that
// adds a CLI11 subcommand to the application and a callback that runs it. Exit status: 0 on
// success, 1 for a failure (one line on standard error), 2 for a usage error.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <string>
#include <vector>

namespace corvane::cli {

inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

// Adds one subcommand to `app`. The subcommand's callback stores its exit status in *status.
using CommandSetup = std::function<void(CLI::App& app, int* status)>;

struct CommandRegistration {
  CommandRegistration(int order, CommandSetup setup);
};

// Prints "corvane: <message>" on standard error and returns kExitFailure.
int fail(const std::string& message);

}  // namespace corvane::cli
