// The tool's side of the library's Interaction: a one-shot command has no window, so alerts are
// printed on standard error, questions (a "do not show again" box, a password) are asked on the
// controlling terminal when there is one and answered with the default otherwise, and long work
// draws a one-line progress bar on standard error when that is a terminal.
//
// Threads: the library calls it on the main run loop's thread, which is the tool's only one.
#pragma once

#include <optional>
#include <string>

#include "corvane/foundation/interaction.h"

namespace corvane::cli {

// Asks one question on the controlling terminal and reads the answer line; nullopt when there is
// no terminal or it gives no line.
std::optional<std::string> askOnTerminal(const std::string& question);

class TerminalInteraction final : public Interaction {
 public:
  // `givenPassword`: a password came from --password-file or $CORVANE_PASSWORD. When the
  // document still asks for one, that password was wrong, and a person who gave one on the
  // command line is not asked instead.
  explicit TerminalInteraction(bool givenPassword = false) : givenPassword_(givenPassword) {}

  size_t runAlert(const Alert& alert) override;
  void revealInFileViewer(const std::string& path) override;
  void openFile(const std::string& path) override;
  std::optional<std::string> askPassword(const std::string& message) override;

  AlertAnswer answerAlert(const Alert& alert) override;
  std::optional<PasswordAnswer> promptPassword(const PasswordPrompt& prompt) override;
  void beginProgress(const std::string& title) override;
  void updateProgress(double fraction, const std::string& text) override;
  void endProgress() override;
  // A one-shot command ends by itself; nothing to stop.
  void requestTermination() override {}

  // Why the last password prompt gave no password.
  enum class Refusal { None, GivenPasswordWrong, NoTerminal, Cancelled };
  Refusal passwordRefusal() const { return refusal_; }

 private:
  bool givenPassword_;
  Refusal refusal_ = Refusal::None;
  bool drawing_ = false;  // a progress line is on the terminal
  std::string progressTitle_;
};

}  // namespace corvane::cli
