#include "store_session.h"

#include <algorithm>
#include <cstdio>

#include "corvane/document/volume.h"
#include "corvane/foundation/application_info.h"
#include "corvane/foundation/interaction.h"
#include "corvane/foundation/notification_center.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/security/digest.h"
#include "corvane/security/package_encryption.h"

namespace corvane::cli {
namespace {

// The store's alerts and "Show in Finder" on the terminal: a tool has no window to show them in,
// so it names them, on standard error, where its other messages go.
class TerminalInteraction final : public Interaction {
 public:
  size_t runAlert(const Alert& alert) override {
    std::fprintf(stderr, "corvane: %s%s%s\n", alert.message.c_str(), alert.informativeText.empty() ? "" : ": ",
                 alert.informativeText.c_str());
    return 0;
  }
  void revealInFileViewer(const std::string& path) override { std::fprintf(stderr, "corvane: see %s\n", path.c_str()); }
  void openFile(const std::string& path) override { std::fprintf(stderr, "corvane: open %s\n", path.c_str()); }
  std::optional<std::string> askPassword(const std::string& message) override {
    return passwordFromTerminal(message + ": ");
  }
};

// An update pass that takes longer than this is not waited for (it goes on; the command works
// with what has been applied).
constexpr double kOpenTimeoutSeconds = 600;

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

void addStoreOptions(CLI::App* command, StoreOptions* options, bool withModel) {
  if (withModel) {
    command->add_option("--model", options->model, "The JSON model file of the document's entities")
        ->required()
        ->type_name("MODEL.json");
  }
  command->add_option("--cache-root", options->cacheRoot,
                      "Keep this device's cache of the document under DIR (default: the tool's data folder)")
      ->type_name("DIR");
  command->add_flag("--recover", options->recover,
                    "Recovery mode: go on past damaged or missing change files instead of stopping");
  addPasswordOptions(command, &options->password);
}

void prepareStoreEnvironment() {
  static bool prepared = false;
  if (prepared) return;
  prepared = true;
  ApplicationInfo tool;
  tool.identifier = std::string(kFrameworkBundleIdentifier) + ".cli";
  tool.name = "corvane";
  tool.version = kFrameworkVersion;
  tool.shortVersion = kFrameworkShortVersion;
  ApplicationInfo::setCurrent(tool);
  setDefaultStoreVolumeQueries(std::make_shared<DocumentVolumeQueries>());
  setDefaultInteraction(std::make_shared<TerminalInteraction>());
  CorvaneStore::registerStoreType();
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
  prepareStoreEnvironment();
  Env* env = Env::defaultEnv();
  bool isDirectory = false;
  if (!env->fileExists(options.package, &isDirectory) || !isDirectory) {
    *error = options.package + " is not a folder: a Corvane document is a package folder";
    return nullptr;
  }
  if (!CorvaneStore::isCorrectFormat(options.package, env)) {
    *error = options.package + " is not a Corvane package (it needs Info.plist, Changes and Entities)";
    return nullptr;
  }
  // The password is checked before anything else is read or written.
  Value extra = Value::mutableDictionary();
  const Value info = CorvaneStore::infoDictionaryForURL(options.package, env);
  if (isEncryptedPackageInfo(info)) {
    std::optional<std::string> password =
        obtainPassword(env, options.password, "Password for " + options.package + ": ", error);
    if (!password) return nullptr;
    if (!CorvaneStore::canOpenURL(options.package, *password, env)) {
      *error = "wrong password for " + options.package;
      return nullptr;
    }
    extra.set(Value(kCorvanePasswordOption), Value(*password));
  }
  return openStore(options, extra, error);
}

std::unique_ptr<StoreSession> StoreSession::create(const StoreOptions& options, const std::string& identifier,
                                                   const std::optional<std::string>& password, std::string* error) {
  prepareStoreEnvironment();
  if (Env::defaultEnv()->fileExists(options.package)) {
    *error = options.package + " already exists";
    return nullptr;
  }
  Value extra = Value::mutableDictionary();
  if (!identifier.empty()) extra.set(Value(kCorvaneDocumentIdentifierOption), Value(identifier));
  if (password) extra.set(Value(kCorvanePasswordOption), Value(*password));
  return openStore(options, extra, error);
}

std::unique_ptr<StoreSession> StoreSession::openStore(const StoreOptions& options, const Value& extra,
                                                      std::string* error) {
  std::unique_ptr<StoreSession> session(new StoreSession());
  session->model_ = loadModel(options.model, error);
  if (!session->model_) return nullptr;
  Value storeOptions = extra.mutableCopy();
  if (!options.cacheRoot.empty()) storeOptions.set(Value(kCorvaneCacheRootURLOption), Value(options.cacheRoot));
  if (options.recover) storeOptions.set(Value(kCorvaneRecoverOption), Value(true));

  int ready = 0;
  NotificationCenter::Observer observer =
      NotificationCenter::defaultCenter().addObserver(kCorvaneReadyNotification, nullptr,
                                                      [&ready](const Notification&) { ++ready; });
  session->coordinator_ = std::make_shared<CorvanePersistentStoreCoordinator>(session->model_);
  Error openError;
  auto* store = session->coordinator_->addPersistentStore(kCorvaneStoreType, "", options.package,
                                                          storeOptions.copy(), &openError);
  if (store == nullptr) {
    *error = openError.localizedDescription;
    session->closed_ = true;
    return nullptr;
  }
  session->store_ = static_cast<CorvaneStore*>(store);
  RunLoop::main().runUntil([&ready] { return ready > 0; }, kOpenTimeoutSeconds);
  RunLoop::main().runOnce();  // the log entries posted last
  session->context_ = CorvaneManagedObjectContext::create(ConcurrencyType::MainQueue);
  session->context_->setPersistentStoreCoordinator(session->coordinator_);
  session->context_->setUndoManager(nullptr);
  return session;
}

std::vector<std::string> StoreSession::problems() const {
  std::vector<std::string> out;
  if (store_ == nullptr) return out;
  const std::vector<StoreLogEntry> entries = store_->logEntries();
  for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
    if (it->type != kCorvaneLogTypeSuccess && it->message != "Reset Log" && it->message != "No changes found") {
      out.push_back(it->message);
    }
  }
  return out;
}

bool StoreSession::save(std::string* error) {
  // The store returns from a save only once its files are on disk, or with the reason they
  // are not (then nothing of the save is announced to other devices).
  Error saveError;
  if (context_->save(&saveError)) return true;
  *error = saveError.localizedDescription.empty() ? saveError.description() : saveError.localizedDescription;
  if (!saveError.recoverySuggestion.empty()) *error += " " + saveError.recoverySuggestion;
  return false;
}

void StoreSession::close() {
  if (closed_) return;
  closed_ = true;
  context_.reset();
  if (store_ != nullptr) store_->close();
  coordinator_.reset();
  store_ = nullptr;
  RunLoop::main().discardPendingWork();
}

}  // namespace corvane::cli
