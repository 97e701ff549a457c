#include "terminal_interaction.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "package_password.h"

namespace corvane::cli {
namespace {

constexpr int kBarWidth = 30;

void printAlert(const Alert& alert) {
  std::fprintf(stderr, "corvane: %s%s%s\n", alert.message.c_str(), alert.informativeText.empty() ? "" : ": ",
               alert.informativeText.c_str());
}

bool yes(const std::optional<std::string>& answer) {
  return answer && !answer->empty() && ((*answer)[0] == 'y' || (*answer)[0] == 'Y');
}

}  // namespace

std::optional<std::string> askOnTerminal(const std::string& question) {
  int fd = ::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return std::nullopt;
  std::optional<std::string> answer;
  if (::write(fd, question.data(), question.size()) == static_cast<ssize_t>(question.size())) {
    std::string line;
    char c;
    ssize_t n;
    while ((n = ::read(fd, &c, 1)) == 1 && c != '\n') {
      if (line.size() < 256) line.push_back(c);
    }
    if (n == 1 || !line.empty()) answer = line;
  }
  ::close(fd);
  return answer;
}

size_t TerminalInteraction::runAlert(const Alert& alert) {
  printAlert(alert);
  return 0;
}

void TerminalInteraction::revealInFileViewer(const std::string& path) {
  std::fprintf(stderr, "corvane: see %s\n", path.c_str());
}

void TerminalInteraction::openFile(const std::string& path) {
  std::fprintf(stderr, "corvane: open %s\n", path.c_str());
}

std::optional<std::string> TerminalInteraction::askPassword(const std::string& message) {
  return passwordFromTerminal(message + ": ");
}

AlertAnswer TerminalInteraction::answerAlert(const Alert& alert) {
  printAlert(alert);
  AlertAnswer answer;
  if (alert.buttons.size() > 1) {
    std::string question;
    for (size_t i = 0; i < alert.buttons.size(); ++i) {
      question += "  " + std::to_string(i + 1) + ") " + alert.buttons[i];
    }
    std::optional<std::string> chosen = askOnTerminal(question + "  [1]: ");
    if (!chosen) return answer;  // no terminal: the default button, nothing suppressed
    const size_t index = chosen->empty() ? 1 : static_cast<size_t>(std::max(0, std::atoi(chosen->c_str())));
    answer.button = index >= 1 && index <= alert.buttons.size() ? index - 1 : 0;
  }
  if (alert.showsSuppressionButton) answer.suppressed = yes(askOnTerminal("  Do not show this message again? [y/N]: "));
  return answer;
}

std::optional<PasswordAnswer> TerminalInteraction::promptPassword(const PasswordPrompt& prompt) {
  if (givenPassword_) {
    refusal_ = Refusal::GivenPasswordWrong;
    return std::nullopt;
  }
  int probe = ::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (probe < 0) {
    refusal_ = Refusal::NoTerminal;
    return std::nullopt;
  }
  ::close(probe);
  std::optional<std::string> typed = passwordFromTerminal(prompt.message + ": ");
  if (!typed || typed->empty()) {
    refusal_ = Refusal::Cancelled;
    return std::nullopt;
  }
  refusal_ = Refusal::None;
  PasswordAnswer answer{*typed, false};
  if (prompt.offersKeychain) answer.saveInKeychain = yes(askOnTerminal("Keep it in the keychain? [y/N]: "));
  return answer;
}

void TerminalInteraction::beginProgress(const std::string& title) {
  progressTitle_ = title;
  drawing_ = false;
}

void TerminalInteraction::updateProgress(double fraction, const std::string& text) {
  if (::isatty(STDERR_FILENO) == 0) return;
  std::string bar;
  if (fraction >= 0) {
    const int filled = static_cast<int>(std::clamp(fraction, 0.0, 1.0) * kBarWidth);
    bar = "[" + std::string(static_cast<size_t>(filled), '#') +
          std::string(static_cast<size_t>(kBarWidth - filled), '.') + "] " +
          std::to_string(static_cast<int>(std::clamp(fraction, 0.0, 1.0) * 100)) + "% ";
  }
  const std::string title = progressTitle_.empty() ? "" : progressTitle_ + " ";
  // Back to the start of the line and clear it: the bar is redrawn in place.
  std::fprintf(stderr, "\r\033[K%s%s%s", title.c_str(), bar.c_str(), text.c_str());
  std::fflush(stderr);
  drawing_ = true;
}

void TerminalInteraction::endProgress() {
  if (drawing_) {
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
  }
  drawing_ = false;
  progressTitle_.clear();
}

}  // namespace corvane::cli
