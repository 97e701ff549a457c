#include "store_session.h"

#include <algorithm>
#include <cstdio>
#include <iostream>

#include "corvane/foundation/application_info.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/security/digest.h"
#include "corvane/security/package_encryption.h"
#include "corvane/store/corvane_package.h"

namespace corvane::cli {
namespace {

// The store's own words for a pass that stopped at a change whose files have not arrived; a
// one-shot command says that once in plain words instead.
constexpr const char* kMissingFilesRetry = "Missing files: Abort and trying again in some seconds";

std::string joined(const std::vector<std::string>& parts, const std::string& separator) {
  std::string out;
  for (const std::string& part : parts) out += (out.empty() ? "" : separator) + part;
  return out;
}

std::string deviceOf(const ChangeWaitingForFiles& change) {
  if (change.machineName.empty()) return change.fullUserName.empty() ? "another device" : change.fullUserName;
  return change.fullUserName.empty() ? change.machineName : change.machineName + " (" + change.fullUserName + ")";
}

}  // namespace

const DateFormatter& timestampFormatter() {
  static const DateFormatter formatter(kTimestampDatePattern, DateTimeZone::gmt());
  return formatter;
}

std::string referenceOf(const ManagedObject& object) {
  return object.entity().name() + "/" + storeUID(object.objectID());
}

namespace {

Value dumpValue(const AttributeDescription& attribute, const Value& value) {
  switch (attribute.attributeType()) {
    case AttributeType::Decimal:
      return Value(value.decimalValue().toString());
    case AttributeType::Date:
      return Value(timestampFormatter().format(value.dateValue()));
    case AttributeType::BinaryData:
      return dict({{"length", Value(static_cast<long long>(value.bytes().size()))},
                   {"sha256", Value(corvaneSHA256HexDigest(value.bytes()))}});
    case AttributeType::Boolean:
      return Value(value.boolValue());
    case AttributeType::Integer16:
    case AttributeType::Integer32:
    case AttributeType::Integer64:
      return Value(static_cast<long long>(value.longLongValue()));
    case AttributeType::Double:
    case AttributeType::Float:
      return Value::doubleNumber(value.doubleValue());
    case AttributeType::URI:
      return value.isURL() ? Value(value.urlAbsoluteString()) : value;
    default:
      return value;
  }
}

}  // namespace

Value dumpObject(const ManagedObject& object) {
  Value out = Value::mutableDictionary();
  out.set(Value("entity"), Value(object.entity().name()));
  out.set(Value("uid"), Value(storeUID(object.objectID())));
  for (const AttributeDescription* attribute : object.entity().attributes()) {
    const Value value = object.value(attribute->name());
    if (!value.isNil()) out.set(Value(attribute->name()), dumpValue(*attribute, value));
  }
  for (const RelationshipDescription* relationship : object.entity().relationships()) {
    if (!relationship->isToMany()) {
      if (Retained<ManagedObject> target = object.toOne(relationship->name())) {
        out.set(Value(relationship->name()), Value(referenceOf(*target)));
      }
      continue;
    }
    std::vector<std::string> references;
    for (const auto& member : object.toMany(relationship->name())) references.push_back(referenceOf(*member));
    if (!relationship->isOrdered()) std::sort(references.begin(), references.end());
    std::vector<Value> values(references.begin(), references.end());
    out.set(Value(relationship->name()), Value::array(std::move(values)));
  }
  return out;
}

void addStoreOptions(CLI::App* command, StoreOptions* options, bool withModel, bool withPassword) {
  if (withModel) {
    command->add_option("--model", options->model, "The JSON model file of the document's entities")
        ->required()
        ->type_name("MODEL.json");
  }
  command
      ->add_option("--cache-root", options->cacheRoot,
                   "Keep this device's cache of the document under DIR (default: the tool's data folder)")
      ->type_name("DIR");
  command->add_flag("--recover", options->recover,
                    "Recovery mode: go on past damaged or missing change files instead of stopping");
  if (withPassword) addPasswordOptions(command, &options->password);
}

const ApplicationInfo& toolApplication() {
  static const ApplicationInfo tool = [] {
    ApplicationInfo info;
    info.identifier = std::string(kFrameworkBundleIdentifier) + ".cli";
    info.name = "corvane";
    info.version = kFrameworkVersion;
    info.shortVersion = kFrameworkShortVersion;
    return info;
  }();
  return tool;
}

std::shared_ptr<UserDefaults> toolDefaults() {
  static const std::shared_ptr<UserDefaults> defaults = UserDefaults::forApplication(toolApplication().identifier);
  return defaults;
}

std::shared_ptr<ObjectModel> loadModel(const std::string& path, std::string* error) {
  Env* env = Env::defaultEnv();
  if (!env->fileExists(path)) {
    *error = path + ": no such model file";
    return nullptr;
  }
  Error readError;
  std::shared_ptr<ObjectModel> model = ObjectModel::fromFile(path, &readError, env);
  if (!model) *error = path + " is not a valid model: " + readError.localizedDescription;
  return model;
}

StoreSession::~StoreSession() { close(); }

std::unique_ptr<StoreSession> StoreSession::open(const StoreOptions& options, std::string* error) {
  Env* env = Env::defaultEnv();
  bool isDirectory = false;
  if (!env->fileExists(options.package, &isDirectory) || !isDirectory) {
    *error = options.package + " is not a folder: a Corvane document is a package folder";
    return nullptr;
  }
  if (!CorvanePackage::isCorrectFormat(options.package, env)) {
    *error = options.package + " is not a Corvane package (it needs Info.plist, Changes and Entities)";
    return nullptr;
  }
  // A password given on the command line (--password-file, else $CORVANE_PASSWORD) is the only
  // one tried: when it is wrong the command says so rather than quietly opening with a password
  // kept in the keychain. Without one the document asks the keychain (when `corvane password
  // save` or the prompt kept one there), then the person at the terminal.
  DocumentOptions documentOptions;
  if (isEncryptedPackageInfo(CorvanePackage::infoDictionaryForURL(options.package, env))) {
    if (!options.password.passwordFile.empty() || env->environmentVariable(kPasswordEnvironmentVariable)) {
      std::optional<std::string> password = obtainPassword(env, options.password, "", error);
      if (!password) return nullptr;
      documentOptions.password = std::move(password);
      documentOptions.useKeychain = false;
    }
  }
  return openDocument(options, std::move(documentOptions), error);
}

std::unique_ptr<StoreSession> StoreSession::create(const StoreOptions& options, const std::string& identifier,
                                                   const std::optional<std::string>& password, std::string* error) {
  if (Env::defaultEnv()->fileExists(options.package)) {
    *error = options.package + " already exists";
    return nullptr;
  }
  // The document makes the package when its path does not exist yet.
  DocumentOptions documentOptions;
  if (!identifier.empty()) documentOptions.documentIdentifier = identifier;
  documentOptions.password = password;
  return openDocument(options, std::move(documentOptions), error);
}

std::unique_ptr<StoreSession> StoreSession::openDocument(const StoreOptions& options, DocumentOptions documentOptions,
                                                         std::string* error) {
  std::unique_ptr<StoreSession> session(new StoreSession());
  session->model_ = loadModel(options.model, error);
  if (!session->model_) return nullptr;
  Env* env = Env::defaultEnv();
  session->interaction_ = std::make_shared<TerminalInteraction>(documentOptions.password.has_value());
  documentOptions.model = session->model_;
  documentOptions.application = toolApplication();
  documentOptions.interaction = session->interaction_;
  if (std::optional<std::string> machine = env->environmentVariable("CORVANE_MACHINE_NAME");
      machine && !machine->empty()) {
    documentOptions.machineName = *machine;
  }
  // The tool's cache: where it has always been (the data folder, under the tool's identifier),
  // unless the command names another.
  if (!options.cacheRoot.empty()) {
    documentOptions.cacheRoot = options.cacheRoot;
  } else if (const std::string data = env->dataHome(); !data.empty()) {
    documentOptions.cacheRoot = pathJoin(pathJoin(data, toolApplication().identifier), "LocalDatabaseCache");
  }
  documentOptions.recover = options.recover;
  // The keychain is the system's (DocumentOptions::keychain's default): the Secret Service, or
  // the keychain file in the data folder where no session bus offers one. The "do not ask
  // again" settings that make the document use it are the tool's own.
  documentOptions.defaults = toolDefaults();

  Error openError;
  // The document keeps the package's path for its whole life: a path relative to the folder the
  // tool was started in is made absolute once, here.
  session->document_ = CorvaneDocument::open(absolutePath(options.package), documentOptions, &openError);
  if (!session->document_) {
    session->closed_ = true;
    RunLoop::main().discardPendingWork();
    if (!openError.empty()) {
      *error = openError.localizedDescription.empty() ? openError.description() : openError.localizedDescription;
      if (!openError.recoverySuggestion.empty()) *error += " " + openError.recoverySuggestion;
      return nullptr;
    }
    // No reason given: the password prompt gave no password.
    switch (session->interaction_->passwordRefusal()) {
      case TerminalInteraction::Refusal::GivenPasswordWrong:
        *error = "wrong password for " + options.package;
        break;
      case TerminalInteraction::Refusal::NoTerminal:
        *error = std::string("no password: give --password-file FILE or set ") + kPasswordEnvironmentVariable +
                 " (there is no terminal to ask on)";
        break;
      case TerminalInteraction::Refusal::Cancelled:
        *error = "no password given for " + options.package;
        break;
      case TerminalInteraction::Refusal::None:
        *error = "cannot open " + options.package;
        break;
    }
    return nullptr;
  }
  session->context().setUndoManager(nullptr);  // a one-shot command undoes nothing
  session->waiting_ = session->store().changesWaitingForFiles();
  return session;
}

std::vector<std::string> StoreSession::problems() const {
  std::vector<std::string> out;
  if (!document_ || document_->store() == nullptr) return out;
  // Entries about a waiting change name it or one of its missing files.
  auto aboutWaiting = [this](const std::string& message) {
    if (waiting_.empty()) return false;
    if (message == kMissingFilesRetry) return true;
    for (const ChangeWaitingForFiles& change : waiting_) {
      if (message.find(change.name) != std::string::npos) return true;
      for (const std::string& file : change.missingFiles) {
        if (message.ends_with(file)) return true;
      }
    }
    return false;
  };
  const std::vector<StoreLogEntry> entries = document_->store()->logEntries();
  for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
    if (it->type != kCorvaneLogTypeSuccess && it->message != "Reset Log" && it->message != "No changes found" &&
        !aboutWaiting(it->message)) {
      out.push_back(it->message);
    }
  }
  return out;
}

std::vector<std::string> StoreSession::waitingNotices() const {
  std::vector<std::string> out;
  for (const ChangeWaitingForFiles& change : waiting_) {
    out.push_back("the change " + change.name + " from " + deviceOf(change) + " is still waiting for " +
                  (change.missingFiles.size() == 1 ? "its file " : "its files ") + joined(change.missingFiles, ", ") +
                  " (a sync client has not delivered " + (change.missingFiles.size() == 1 ? "it" : "them") +
                  " yet); it is not applied now, and a later run will apply it once the files are there");
  }
  return out;
}

void StoreSession::reportProblems() const {
  for (const std::string& problem : problems()) std::cerr << "corvane: warning: " << problem << "\n";
  for (const std::string& notice : waitingNotices()) std::cerr << "corvane: " << notice << "\n";
}

std::string StoreSession::waitingNoteFor(const std::string& entity, const std::string& uid) const {
  const std::string reference = entity + "/" + uid;
  for (const ChangeWaitingForFiles& change : waiting_) {
    if (std::find(change.objects.begin(), change.objects.end(), reference) != change.objects.end()) {
      return "it is in the change " + change.name + " from " + deviceOf(change) +
             ", which is still waiting for its files: a later run will find it";
    }
  }
  if (waiting_.empty()) return "";
  return std::to_string(waiting_.size()) + (waiting_.size() == 1 ? " change is" : " changes are") +
         " still waiting for their files: a later run may find it";
}

bool StoreSession::save(std::string* error) {
  CORVANE_ASSERT_MAIN_THREAD();
  // The document returns from a save only once its files are on disk, or with the reason they
  // are not (then nothing of the save is announced to other devices).
  Error saveError;
  if (document_->save(&saveError)) return true;
  *error = saveError.localizedDescription.empty() ? saveError.description() : saveError.localizedDescription;
  if (!saveError.recoverySuggestion.empty()) *error += " " + saveError.recoverySuggestion;
  return false;
}

void StoreSession::close() {
  CORVANE_ASSERT_MAIN_THREAD();
  if (closed_) return;
  closed_ = true;
  if (!document_) return;
  // The document saves what its context holds when it closes; a command keeps only what it
  // saved itself, and one that failed half way keeps nothing.
  if (!document_->isClosed()) {  // a document another device optimized has closed itself
    document_->context().rollback();
    document_->close();
  }
  // The store notes the package among the recent files on a queue of its own, with the
  // document's Env: that must be over before the document (and its Env) goes away.
  CorvanePackage::waitForRecentFilesRegistration();
  document_.reset();
  // The retries a pass scheduled are for a live document; this one is gone.
  RunLoop::main().discardPendingWork();
}

}  // namespace corvane::cli
