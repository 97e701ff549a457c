#include "corvane/foundation/interaction.h"

#include "corvane/foundation/log.h"
#include "corvane/foundation/mutex.h"

namespace corvane {

Interaction::~Interaction() = default;

AlertAnswer Interaction::answerAlert(const Alert& alert) { return AlertAnswer{runAlert(alert), false}; }

std::optional<PasswordAnswer> Interaction::promptPassword(const PasswordPrompt& prompt) {
  std::optional<std::string> password = askPassword(prompt.message);
  if (!password) return std::nullopt;
  return PasswordAnswer{std::move(*password), false};
}

std::optional<SavePanelAnswer> Interaction::runSavePanel(const SavePanel&) { return std::nullopt; }

void Interaction::beginProgress(const std::string&) {}
void Interaction::updateProgress(double, const std::string&) {}
void Interaction::endProgress() {}
void Interaction::requestTermination() {}

size_t HeadlessInteraction::runAlert(const Alert& alert) {
  logLine(alert.informativeText.empty() ? alert.message : alert.message + ": " + alert.informativeText,
          LogLevel::Warning);
  return 0;
}

void HeadlessInteraction::revealInFileViewer(const std::string& path) { logLine("Show in file viewer: " + path); }

void HeadlessInteraction::openFile(const std::string& path) { logLine("Open: " + path); }

std::optional<std::string> HeadlessInteraction::askPassword(const std::string& message) {
  logLine("Password needed, nobody to ask: " + message, LogLevel::Warning);
  return std::nullopt;
}

namespace {

Mutex& defaultMutex() {
  static Mutex mutex;
  return mutex;
}

std::shared_ptr<Interaction>& defaultSlot() CORVANE_REQUIRES(defaultMutex()) {
  // Never destroyed: a store may still show something while the process exits.
  static auto* interaction = new std::shared_ptr<Interaction>(std::make_shared<HeadlessInteraction>());
  return *interaction;
}

}  // namespace

void setDefaultInteraction(std::shared_ptr<Interaction> interaction) {
  MutexLock lock(&defaultMutex());
  defaultSlot() = interaction ? std::move(interaction) : std::make_shared<HeadlessInteraction>();
}

std::shared_ptr<Interaction> defaultInteraction() {
  MutexLock lock(&defaultMutex());
  return defaultSlot();
}

}  // namespace corvane
