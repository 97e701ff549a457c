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

enum class AlertStyle { Informational, Warning, Critical };

struct Alert {
  std::string message;
  std::string informativeText;
  // The buttons, the default one first; none means a single "OK".
  std::vector<std::string> buttons;
  AlertStyle style = AlertStyle::Warning;
  // A "Do not show this message again" check box.
  bool showsSuppressionButton = false;
};

struct AlertAnswer {
  size_t button = 0;        // the index of the button chosen (0 is the default one)
  bool suppressed = false;  // the suppression check box was ticked
};

// A document's password prompt: which package, and whether the person may ask for the password
// to be kept in the keychain.
struct PasswordPrompt {
  std::string message;
  std::string path;                // the package
  std::string documentIdentifier;  // its identifier
  bool offersKeychain = true;
};

struct PasswordAnswer {
  std::string password;
  bool saveInKeychain = false;  // keep it, and do not ask again for this document
};

// A save panel: where to save a copy of a document, and whether to encrypt it.
struct SavePanel {
  std::string title;
  std::string directory;       // where the panel opens
  std::string proposedName;    // without the extension
  std::string fileExtension;   // the document's ("corvane"), without the dot
  bool offersPassword = true;  // the password choice below the file list
};

struct SavePanelAnswer {
  std::string path;  // the chosen package path, extension included
  // The copy is encrypted only when this is set, whatever the original is.
  std::optional<std::string> password;
  bool saveInKeychain = false;  // keep the copy's password, and do not ask for it again
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

  // The richer requests below have defaults built on the four above, so an Interaction written
  // before them keeps working.
  // An alert that may carry a suppression check box. Default: runAlert(), never suppressed.
  virtual AlertAnswer answerAlert(const Alert& alert);
  // A document's password prompt. Default: askPassword(message), nothing kept.
  virtual std::optional<PasswordAnswer> promptPassword(const PasswordPrompt& prompt);
  // A save panel; nullopt when the person cancels. Default: cancelled.
  virtual std::optional<SavePanelAnswer> runSavePanel(const SavePanel& panel);
  // A progress sheet over long work: begun once, updated (fraction 0 to 1, or negative when
  // unknown, and a line of text), ended once. Defaults: nothing shown.
  virtual void beginProgress(const std::string& title);
  virtual void updateProgress(double fraction, const std::string& text);
  virtual void endProgress();
  // The person asked the application to quit (an alert's "Quit"). Default: nothing; a host
  // ends its event loop.
  virtual void requestTermination();
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
