// Runs the real `corvane` binary for the command tests: a new session, a private home (with
// the XDG folders inside it), standard input from a file, and the output captured in files.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace corvane::testing {

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

// Starts the tool with only PATH, HOME, the XDG folders under `home` and `environment`. With a
// terminal (a pseudo-terminal's device name), that becomes its controlling terminal and
// standard error; without one the tool has no terminal to prompt on.
inline pid_t startTool(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
                       const std::string& home, const std::string& outPath, const std::string& errPath,
                       const std::string& input = "/dev/null", const std::string& terminal = {}) {
  std::vector<std::string> args = {CORVANE_BINARY_DIR "/bin/corvane"};
  args.insert(args.end(), arguments.begin(), arguments.end());
  std::vector<std::string> env = {"PATH=/usr/bin:/bin", "HOME=" + home, "XDG_DATA_HOME=" + home + "/data",
                                  "XDG_CACHE_HOME=" + home + "/cache", "XDG_CONFIG_HOME=" + home + "/config"};
  env.insert(env.end(), environment.begin(), environment.end());
  std::vector<char*> argv, envp;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    setsid();
    int err;
    if (terminal.empty()) {
      err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    } else {
      err = open(terminal.c_str(), O_RDWR);
      ioctl(err, TIOCSCTTY, 0);
    }
    dup2(open(input.c_str(), O_RDONLY), 0);
    dup2(open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(err, 2);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  return pid;
}

inline int waitForExit(pid_t pid) {
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
}

// Runs the tool to the end in `home` (empty: a fresh private one) and returns its status and output.
inline ToolRun runTool(const std::vector<std::string>& arguments, const std::vector<std::string>& environment = {},
                       const std::string& input = "/dev/null", const std::string& home = "") {
  TempDir capture;
  ToolRun result;
  result.status = waitForExit(
      startTool(arguments, environment, home.empty() ? capture.path() : home, capture / "out", capture / "err", input));
  result.out = readTextFile(capture / "out");
  result.err = readTextFile(capture / "err");
  return result;
}

// Runs the tool with a new pseudo-terminal as its controlling terminal and standard error, types
// `typed` once the terminal shows `waitFor`, and returns what the terminal showed in
// *terminalText (standard output goes to a file, as in runTool()).
inline ToolRun runToolOnTerminal(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
                                 const std::string& home, const std::string& typed, const std::string& waitFor,
                                 std::string* terminalText) {
  TempDir capture;
  ToolRun result;
  int master = posix_openpt(O_RDWR | O_NOCTTY);
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) return result;
  pid_t pid = startTool(arguments, environment, home, capture / "out", "", "/dev/null", ptsname(master));
  auto readSome = [&](int timeoutMs) {
    pollfd p{master, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) return false;
    char buffer[512];
    ssize_t n = read(master, buffer, sizeof buffer);
    if (n <= 0) return false;
    terminalText->append(buffer, static_cast<size_t>(n));
    return true;
  };
  if (!typed.empty()) {
    for (int i = 0; i < 100 && terminalText->find(waitFor) == std::string::npos; ++i) readSome(100);
    [[maybe_unused]] ssize_t written = write(master, typed.data(), typed.size());
  }
  while (readSome(3000)) {
  }
  result.status = waitForExit(pid);
  close(master);
  result.out = readTextFile(capture / "out");
  return result;
}

}  // namespace corvane::testing
