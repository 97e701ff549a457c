#include "package_password.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "corvane/document/corvane_document.h"
#include "corvane/foundation/plist.h"
#include "corvane/security/document_password.h"
#include "corvane/security/package_encryption.h"
#include "corvane/store/corvane_package.h"
#include "corvane/store/corvane_store.h"
#include "store_session.h"

namespace corvane::cli {
namespace {

// Longer lines are not passwords anybody types; the bound also keeps a mistaken
// --password-file /dev/zero from eating memory.
constexpr size_t kMaxPasswordLength = 4096;

// Reads up to the first newline (or end of input) from fd. False on a read error or when the
// line is longer than kMaxPasswordLength.
bool readLine(int fd, std::string* line) {
  line->clear();
  char c;
  for (;;) {
    ssize_t n = ::read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0 || c == '\n') break;
    if (line->size() == kMaxPasswordLength) return false;
    line->push_back(c);
  }
  if (!line->empty() && line->back() == '\r') line->pop_back();  // a file saved with CRLF
  return true;
}

}  // namespace

std::optional<std::string> passwordFromFile(const std::string& path, std::string* error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = "cannot read the password file " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  std::string line;
  bool ok = readLine(fd, &line);
  ::close(fd);
  if (!ok) {
    *error = "cannot read a password from the first line of " + path;
    return std::nullopt;
  }
  return line;
}

namespace {

// The password kept for the package when the tool's setting says to use it; nullopt otherwise,
// also when the keychain fails (the person is asked then, as the document does).
std::optional<std::string> keptPassword(Env* env, const std::string& package) {
  const std::string identifier = CorvanePackage::documentIdentifierForURL(package, env);
  if (identifier.empty() || !toolDefaults()->boolForKey(dontShowPasswordPromptAgainKey(identifier)))
    return std::nullopt;
  return findDocumentPassword({toolApplication().identifier, identifier}, nullptr, defaultKeychain());
}

}  // namespace

std::optional<std::string> passwordFromTerminal(const std::string& prompt) {
  int fd = ::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return std::nullopt;
  termios saved{};
  bool restore = ::tcgetattr(fd, &saved) == 0;
  if (restore) {
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    ::tcsetattr(fd, TCSAFLUSH, &quiet);
  }
  [[maybe_unused]] ssize_t written = ::write(fd, prompt.data(), prompt.size());
  std::string line;
  bool ok = readLine(fd, &line);
  if (restore) ::tcsetattr(fd, TCSAFLUSH, &saved);
  ::close(fd);
  if (!ok) return std::nullopt;
  return line;
}

void addPasswordOptions(CLI::App* command, PasswordOptions* options) {
  command
      ->add_option("--password-file", options->passwordFile,
                   "Read the password from the first line of FILE (else $CORVANE_PASSWORD, else one kept by "
                   "`corvane password save`, else a prompt)")
      ->type_name("FILE");
}

std::optional<std::string> obtainPassword(Env* env, const PasswordOptions& options, const std::string& prompt,
                                          std::string* error) {
  if (!options.passwordFile.empty()) return passwordFromFile(options.passwordFile, error);
  if (std::optional<std::string> fromEnvironment = env->environmentVariable(kPasswordEnvironmentVariable)) {
    return fromEnvironment;
  }
  if (std::optional<std::string> typed = passwordFromTerminal(prompt)) return typed;
  *error = std::string("no password: give --password-file FILE or set ") + kPasswordEnvironmentVariable +
           " (there is no terminal to ask on)";
  return std::nullopt;
}

std::optional<OpenedPackage> openPackage(Env* env, const std::string& package, EncryptionNeed need,
                                         const PasswordOptions& options, std::string* error) {
  const std::string infoPath = pathJoin(package, "Info.plist");
  bool isDirectory = false;
  if (!env->fileExists(package, &isDirectory) || !isDirectory) {
    *error = package + " is not a folder: a Corvane document is a package folder";
    return std::nullopt;
  }
  if (!env->fileExists(infoPath)) {
    *error = infoPath + " is missing: " + package + " is not a Corvane package";
    return std::nullopt;
  }
  OpenedPackage opened;
  opened.path = package;
  Error readError;
  if (!readPropertyListFile(env, infoPath, &opened.info, &readError) || !opened.info.isDictionary()) {
    std::string reason =
        readError.localizedDescription.empty() ? "not a property-list dictionary" : readError.localizedDescription;
    *error = infoPath + " could not be read: " + reason;
    return std::nullopt;
  }
  if (!isEncryptedPackageInfo(opened.info)) {
    if (need == EncryptionNeed::Required) {
      *error = package + " is not encrypted";
      return std::nullopt;
    }
    return opened;
  }
  std::optional<EncryptionParameters> parameters = encryptionParameters(opened.info);
  if (!parameters->salt || !parameters->verifier) {
    *error = infoPath + " has a damaged \"Encryption\" entry (its \"Salt\" or \"Info\" is missing)";
    return std::nullopt;
  }
  // A kept password is tried only when none is given: a given one that is wrong is reported.
  if (options.passwordFile.empty() && !env->environmentVariable(kPasswordEnvironmentVariable)) {
    SeaCrypto keptCipher(env);
    if (std::optional<std::string> kept = keptPassword(env, package);
        kept && canOpenWithPassword(opened.info, *kept, env, &keptCipher)) {
      opened.cipher = std::move(keptCipher);
      return opened;
    }
  }
  std::optional<std::string> password = obtainPassword(env, options, "Password for " + package + ": ", error);
  if (!password) return std::nullopt;
  SeaCrypto cipher(env);
  if (!canOpenWithPassword(opened.info, *password, env, &cipher)) {
    *error = "wrong password for " + package;
    return std::nullopt;
  }
  opened.cipher = std::move(cipher);
  return opened;
}

}  // namespace corvane::cli
