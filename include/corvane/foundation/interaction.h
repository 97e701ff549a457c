// The seam to the person at the computer: alerts, revealing and opening files, password
// prompts. The library never draws anything itself. A desktop host implements Interaction with
// its toolkit, the command-line tool with the terminal, and everything else gets
// HeadlessInteraction, which logs what it would have shown and answers with the default button.
//
// Threads: the library calls an Interaction on its main run loop's thread only.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace corvane {

struct Alert {
  std::string message;
  std::string informativeText;
  // The buttons, the default one first; none means a single "OK".
  std::vector<std::string> buttons;
};

class Interaction {
 public:
  virtual ~Interaction();
  // Shows a modal alert and answers the index of the button chosen (0 is the default one).
  virtual size_t runAlert(const Alert& alert) = 0;
  // Shows a file or folder in the desktop's file viewer.
  virtual void revealInFileViewer(const std::string& path) = 0;
  // Opens a file with the application the desktop associates with it.
  virtual void openFile(const std::string& path) = 0;
  // Asks for a password; `message` says what for. nullopt when the person cancels.
  virtual std::optional<std::string> askPassword(const std::string& message) = 0;
};

// Logs each request as one console line; alerts answer their default button, password prompts
// cancel.
class HeadlessInteraction : public Interaction {
 public:
  size_t runAlert(const Alert& alert) override;
  void revealInFileViewer(const std::string& path) override;
  void openFile(const std::string& path) override;
  std::optional<std::string> askPassword(const std::string& message) override;
};

// The interaction of whatever is given none of its own: a HeadlessInteraction until a host sets
// another. Any thread; set it before opening documents.
void setDefaultInteraction(std::shared_ptr<Interaction> interaction);
std::shared_ptr<Interaction> defaultInteraction();

}  // namespace corvane
