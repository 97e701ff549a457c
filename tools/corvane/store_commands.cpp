// `corvane create / info / insert / update / delete / dump / changes`: make a document, look
// at it, change its objects and read its history from the command line, through the same store
// an application uses (so every change is a change file like an application's save).
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "corvane/document/volume.h"
#include "corvane/foundation/date_format.h"
#include "corvane/foundation/json.h"
#include "corvane/graph/managed_object_context.h"
#include "corvane/graph/predicate.h"
#include "corvane/security/digest.h"
#include "corvane/security/package_encryption.h"
#include "corvane/security/sea_crypto.h"
#include "corvane/store/corvane_package.h"
#include "store_session.h"

namespace corvane::cli {
namespace {

void printJSON(const Value& value) {
  std::optional<std::string> text = valueToJson(value, JsonStyle::Pretty);
  std::cout << (text ? *text : std::string("null")) << "\n";
}

// ---- Values from the command line -----------------------------------------------------------

// A failed parse: the message and whether it is a usage error (exit 2) or a bad value (exit 1).
struct ParseFailure {
  std::string message;
  bool usage = false;
};

std::optional<Value> parseInteger(const std::string& text, int64_t low, int64_t high) {
  int64_t n = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), n);
  if (ec != std::errc() || end != text.data() + text.size() || n < low || n > high) return std::nullopt;
  return Value(static_cast<long long>(n));
}

std::optional<Value> parseAttribute(const AttributeDescription& attribute, const std::string& text,
                                    std::string* problem) {
  switch (attribute.attributeType()) {
    case AttributeType::String:
    case AttributeType::UUID:
    case AttributeType::URI:
      return Value(text);
    case AttributeType::Integer16:
      if (auto v = parseInteger(text, INT16_MIN, INT16_MAX))
        return Value::number(NumberKind::Short, v->longLongValue());
      *problem = "an integer from -32768 to 32767";
      return std::nullopt;
    case AttributeType::Integer32:
      if (auto v = parseInteger(text, INT32_MIN, INT32_MAX)) return Value::number(NumberKind::Int, v->longLongValue());
      *problem = "a 32-bit integer";
      return std::nullopt;
    case AttributeType::Integer64:
      if (auto v = parseInteger(text, INT64_MIN, INT64_MAX)) return v;
      *problem = "a 64-bit integer";
      return std::nullopt;
    case AttributeType::Decimal:
      if (auto d = Decimal::fromString(text); d && !d->isNaN()) return Value(*d);
      *problem = "a decimal number";
      return std::nullopt;
    case AttributeType::Double:
    case AttributeType::Float: {
      char* end = nullptr;
      const double d = text.empty() ? 0 : std::strtod(text.c_str(), &end);
      if (text.empty() || end != text.c_str() + text.size() || !std::isfinite(d)) {
        *problem = "a number";
        return std::nullopt;
      }
      return attribute.attributeType() == AttributeType::Float ? Value::floatNumber(static_cast<float>(d))
                                                               : Value::doubleNumber(d);
    }
    case AttributeType::Boolean:
      if (text == "true") return Value(true);
      if (text == "false") return Value(false);
      *problem = "true or false";
      return std::nullopt;
    case AttributeType::Date:
      if (auto seconds = timestampFormatter().parse(text)) return Value::date(*seconds);
      *problem = "a date like 2024-05-17T09:41:07.250+0000 or 2024-05-17T09:41:07.250Z";
      return std::nullopt;
    case AttributeType::BinaryData: {
      if (!text.starts_with("@")) {
        *problem = "@FILE, the file holding the bytes";
        return std::nullopt;
      }
      Bytes bytes;
      Error error;
      if (!Env::defaultEnv()->readFile(text.substr(1), &bytes, &error)) {
        *problem = "@FILE naming a readable file (" + text.substr(1) + ": " + error.localizedDescription + ")";
        return std::nullopt;
      }
      return Value::data(std::move(bytes));
    }
    default:
      *problem = "a type this tool does not write";
      return std::nullopt;
  }
}

// The object named by "Entity/UID", which must be of `destination` (or a sub-entity).
Retained<ManagedObject> referencedObject(StoreSession& session, const RelationshipDescription& relationship,
                                         const std::string& reference, std::string* message) {
  const size_t slash = reference.find('/');
  const std::string entityName = slash == std::string::npos ? std::string() : reference.substr(0, slash);
  const std::string uid = slash == std::string::npos ? std::string() : reference.substr(slash + 1);
  const EntityDescription* entity = session.model().entity(entityName);
  if (entity == nullptr || uid.empty()) {
    *message = relationship.name() + ": '" + reference + "' is not Entity/UID of an entity of the model";
    return nullptr;
  }
  if (!entity->isKindOfEntity(relationship.destinationEntity())) {
    *message = relationship.name() + ": " + entityName + " is not a " + relationship.destinationEntityName();
    return nullptr;
  }
  ObjectID id = session.store().newObjectIDForEntity(entity, Value(uid));
  Retained<ManagedObject> object = id ? session.context().existingObjectWithID(id) : nullptr;
  if (!object) *message = relationship.name() + ": no object " + reference + " in the document";
  return object;
}

// Applies KEY=VALUE, REL+=E/U, REL-=E/U and --null KEY to an object. Nothing is saved here;
// a failure leaves the context to be thrown away.
std::optional<ParseFailure> applyAssignments(StoreSession& session, ManagedObject& object,
                                             const std::vector<std::string>& assignments,
                                             const std::vector<std::string>& nulls) {
  const EntityDescription& entity = object.entity();
  auto unknown = [&](const std::string& key) {
    return ParseFailure{entity.name() + " has no attribute or relationship '" + key + "'"};
  };
  for (const std::string& key : nulls) {
    if (entity.property(key) == nullptr) return unknown(key);
    const RelationshipDescription* relationship = entity.relationship(key);
    if (relationship != nullptr && relationship->isToMany()) {
      object.setToMany(key, {});
    } else if (relationship != nullptr) {
      object.setToOne(key, nullptr);
    } else {
      object.setValue(key, Value());
    }
  }
  for (const std::string& assignment : assignments) {
    const size_t equals = assignment.find('=');
    if (equals == std::string::npos || equals == 0) {
      return ParseFailure{"'" + assignment + "' is not KEY=VALUE", true};
    }
    std::string key = assignment.substr(0, equals);
    const std::string text = assignment.substr(equals + 1);
    char mode = '=';
    if (key.back() == '+' || key.back() == '-') {
      mode = key.back();
      key.pop_back();
    }
    const PropertyDescription* property = entity.property(key);
    if (property == nullptr) return unknown(key);
    if (const AttributeDescription* attribute = entity.attribute(key)) {
      if (mode != '=') return ParseFailure{key + " is an attribute: use " + key + "=VALUE", true};
      std::string problem;
      std::optional<Value> value = parseAttribute(*attribute, text, &problem);
      if (!value) return ParseFailure{key + ": '" + text + "' is not " + problem};
      object.setValue(key, *value);
      continue;
    }
    const RelationshipDescription& relationship = *entity.relationship(key);
    std::string message;
    if (!relationship.isToMany()) {
      if (mode != '=') return ParseFailure{key + " is a to-one relationship: use " + key + "=Entity/UID", true};
      if (text.empty()) {
        object.setToOne(key, nullptr);
        continue;
      }
      Retained<ManagedObject> target = referencedObject(session, relationship, text, &message);
      if (!target) return ParseFailure{message};
      object.setToOne(key, target.get());
      continue;
    }
    std::vector<Retained<ManagedObject>> members;
    size_t begin = 0;
    while (begin <= text.size() && !text.empty()) {
      size_t comma = text.find(',', begin);
      if (comma == std::string::npos) comma = text.size();
      const std::string reference = text.substr(begin, comma - begin);
      if (!reference.empty()) {
        Retained<ManagedObject> target = referencedObject(session, relationship, reference, &message);
        if (!target) return ParseFailure{message};
        members.push_back(target);
      }
      begin = comma + 1;
    }
    if (mode == '=') {
      object.setToMany(key, members);
    } else {
      if (members.size() != 1) return ParseFailure{key + mode + "= takes one Entity/UID", true};
      if (mode == '+') {
        object.addToMany(key, members[0].get());
      } else {
        object.removeFromMany(key, members[0].get());
      }
    }
  }
  return std::nullopt;
}

// ---- Commands ----------------------------------------------------------------------------------

struct ObjectCommandOptions {
  StoreOptions store;
  std::string entity;
  std::string uid;
  std::vector<std::string> assignments;
  std::vector<std::string> nulls;
};

int openFailed(const std::string& error) { return fail(error); }

// A value the user typed that does not fit: a usage error when the assignment itself is
// malformed, else a failure.
int failed(const ParseFailure& failure) {
  if (failure.usage) {
    std::cerr << "corvane: " << failure.message << "\n";
    return kExitUsage;
  }
  return fail(failure.message);
}

int runCreate(const StoreOptions& options, const std::string& identifier, bool encrypted) {
  std::string error;
  std::optional<std::string> password;
  Env* env = Env::defaultEnv();
  if (encrypted || !options.password.passwordFile.empty() || env->environmentVariable(kPasswordEnvironmentVariable)) {
    password = obtainPassword(env, options.password, "Password for the new document: ", &error);
    if (!password) return fail(error);
    if (password->empty()) return fail("an empty password is not a password");
  }
  std::unique_ptr<StoreSession> session = StoreSession::create(options, identifier, password, &error);
  if (!session) return openFailed(error);
  const std::string created = session->store().documentIdentifier();
  session->close();
  std::cout << created << "\n";
  return kExitSuccess;
}

int runInsert(const ObjectCommandOptions& options) {
  std::string error;
  std::unique_ptr<StoreSession> session = StoreSession::open(options.store, &error);
  if (!session) return openFailed(error);
  session->reportProblems();
  const EntityDescription* entity = session->model().entity(options.entity);
  if (entity == nullptr) return fail("unknown entity '" + options.entity + "' in " + options.store.model);
  if (entity->isAbstract()) return fail(options.entity + " is abstract: insert one of its sub-entities");
  Retained<ManagedObject> object = session->context().insertNewObject(entity);
  if (auto failure = applyAssignments(*session, *object, options.assignments, options.nulls)) {
    return failed(*failure);
  }
  if (!session->save(&error)) return fail(error);
  const std::string uid = storeUID(object->objectID());
  session->close();
  std::cout << uid << "\n";
  return kExitSuccess;
}

int runUpdateOrDelete(const ObjectCommandOptions& options, bool deleting) {
  std::string error;
  std::unique_ptr<StoreSession> session = StoreSession::open(options.store, &error);
  if (!session) return openFailed(error);
  session->reportProblems();
  const EntityDescription* entity = session->model().entity(options.entity);
  if (entity == nullptr) return fail("unknown entity '" + options.entity + "' in " + options.store.model);
  ObjectID id = session->store().newObjectIDForEntity(entity, Value(options.uid));
  Retained<ManagedObject> object = id ? session->context().existingObjectWithID(id) : nullptr;
  if (!object) {
    std::string message = "no " + options.entity + " with UID " + options.uid + " in " + options.store.package;
    if (std::string note = session->waitingNoteFor(options.entity, options.uid); !note.empty()) message += "; " + note;
    return fail(message);
  }
  if (deleting) {
    session->context().deleteObject(object.get());
  } else if (auto failure = applyAssignments(*session, *object, options.assignments, options.nulls)) {
    return failed(*failure);
  }
  if (!session->save(&error)) return fail(error);
  session->close();
  return kExitSuccess;
}

struct DumpOptions {
  StoreOptions store;
  std::string entity;
  std::string where;
  std::string sort;
  size_t limit = 0;
};

int runDump(const DumpOptions& options) {
  std::string error;
  std::unique_ptr<StoreSession> session = StoreSession::open(options.store, &error);
  if (!session) return openFailed(error);
  session->reportProblems();
  std::optional<Predicate> predicate;
  if (!options.where.empty()) {
    Error parseError;
    predicate = Predicate::parse(options.where, {}, &parseError);
    if (!predicate) return fail("--where: " + parseError.localizedDescription);
  }
  std::vector<const EntityDescription*> entities;
  if (!options.entity.empty()) {
    const EntityDescription* entity = session->model().entity(options.entity);
    if (entity == nullptr) return fail("unknown entity '" + options.entity + "' in " + options.store.model);
    for (const EntityDescription* e : entity->selfAndAllSubentities()) {
      if (!e->isAbstract()) entities.push_back(e);
    }
  } else {
    for (const EntityDescription* e : session->model().entities()) {
      if (!e->isAbstract()) entities.push_back(e);
    }
  }
  if (!options.sort.empty()) {
    for (const EntityDescription* e : entities) {
      if (e->property(options.sort) == nullptr) return fail("--sort: " + e->name() + " has no '" + options.sort + "'");
    }
  }
  std::vector<Retained<ManagedObject>> objects;
  for (const EntityDescription* e : entities) {
    FetchRequest request(e->name());
    request.setIncludesSubentities(false);
    if (predicate) request.setPredicate(predicate);
    Error fetchError;
    std::optional<std::vector<Retained<ManagedObject>>> found;
    try {
      found = session->context().fetch(request, &fetchError);
    } catch (const Exception& exception) {
      return fail("--where: " + exception.reason());
    }
    if (!found) return fail(fetchError.localizedDescription);
    objects.insert(objects.end(), found->begin(), found->end());
  }
  std::vector<std::pair<std::string, std::string>> keys;  // entity name and UID, the default order
  std::stable_sort(objects.begin(), objects.end(), [](const auto& a, const auto& b) {
    const std::string ea = a->entity().name(), eb = b->entity().name();
    return ea != eb ? ea < eb : storeUID(a->objectID()) < storeUID(b->objectID());
  });
  if (!options.sort.empty()) {
    SortDescriptor descriptor(options.sort);
    std::stable_sort(objects.begin(), objects.end(),
                     [&](const auto& a, const auto& b) { return descriptor.compare(*a, *b) < 0; });
  }
  if (options.limit != 0 && objects.size() > options.limit) objects.resize(options.limit);
  std::vector<Value> dumped;
  dumped.reserve(objects.size());
  for (const auto& object : objects) dumped.push_back(dumpObject(*object));
  printJSON(Value::array(std::move(dumped)));
  session->close();
  return kExitSuccess;
}

struct InfoOptions {
  std::string package;
  bool json = false;
};

int runInfo(const InfoOptions& options) {
  Env* env = Env::defaultEnv();
  bool isDirectory = false;
  if (!env->fileExists(options.package, &isDirectory) || !isDirectory) {
    return fail(options.package + " is not a folder: a Corvane document is a package folder");
  }
  const Value info = CorvanePackage::infoDictionaryForURL(options.package, env);
  std::vector<std::string> names;
  size_t changes = 0;
  if (env->listDirectory(pathJoin(options.package, "Changes"), true, &names, nullptr)) {
    for (const std::string& name : names) changes += name.size() > 5 && name.ends_with(".json") ? 1 : 0;
  }
  const Value& application = info["Application"];
  std::string creator = application["CFBundleIdentifier"].str();
  if (!application["CFBundleShortVersionString"].str().empty()) {
    creator += " " + application["CFBundleShortVersionString"].str();
  }
  if (!application["CFBundleVersion"].str().empty()) creator += " (" + application["CFBundleVersion"].str() + ")";
  std::optional<std::string> service = CorvaneServiceType(env, options.package);
  Value out = Value::mutableDictionary();
  out.set(Value("identifier"), info["DocumentIdentifier"].isString() ? info["DocumentIdentifier"] : Value::null());
  out.set(Value("created"), info["DateCreation"].isDate()
                                ? Value(timestampFormatter().format(info["DateCreation"].dateValue()))
                                : Value::null());
  out.set(Value("application"), Value(creator));
  out.set(Value("encrypted"), Value(isEncryptedPackageInfo(info)));
  out.set(Value("changeFiles"), Value(static_cast<long long>(changes)));
  out.set(Value("correctPackage"), Value(CorvanePackage::isCorrectFormat(options.package, env)));
  out.set(Value("service"), service ? Value(*service) : Value::null());
  out.set(Value("localVolume"), Value(CorvaneIsLocalURL(env, options.package)));
  if (options.json) {
    printJSON(out);
    return kExitSuccess;
  }
  auto text = [](const Value& v) { return v.isNull() ? std::string("-") : v.isString() ? v.str() : v.description(); };
  auto yesNo = [](const Value& v) { return std::string(v.boolValue() ? "yes" : "no"); };
  std::cout << "Identifier:      " << text(out["identifier"]) << "\n"
            << "Created:         " << text(out["created"]) << "\n"
            << "Application:     " << text(out["application"]) << "\n"
            << "Encrypted:       " << yesNo(out["encrypted"]) << "\n"
            << "Change files:    " << changes << "\n"
            << "Correct package: " << yesNo(out["correctPackage"]) << "\n"
            << "Service:         " << (service ? *service : std::string("none")) << "\n"
            << "Local volume:    " << yesNo(out["localVolume"]) << "\n";
  return kExitSuccess;
}

struct ChangesOptions {
  std::string package;
  bool json = false;
  PasswordOptions password;
};

long long countObjects(const Value& byEntity) {
  long long n = 0;
  for (const auto& entry : byEntity.entries()) n += static_cast<long long>(entry.second.count());
  return n;
}

int runChanges(const ChangesOptions& options) {
  Env* env = Env::defaultEnv();
  if (!CorvanePackage::isCorrectFormat(options.package, env)) {
    return fail(options.package + " is not a Corvane package (it needs Info.plist, Changes and Entities)");
  }
  std::string error;
  std::optional<OpenedPackage> opened =
      openPackage(env, options.package, EncryptionNeed::Optional, options.password, &error);
  if (!opened) return fail(error);
  std::vector<std::string> names;
  Error listError;
  if (!env->listDirectory(pathJoin(options.package, "Changes"), true, &names, &listError)) {
    return fail(pathJoin(options.package, "Changes") + ": " + listError.localizedDescription);
  }
  std::vector<Value> history;
  for (const std::string& name : names) {
    if (!name.ends_with(".json")) continue;
    Value entry = Value::mutableDictionary();
    entry.set(Value("name"), Value(name));
    Bytes bytes;
    std::optional<Value> change;
    if (env->readFile(pathJoin(pathJoin(options.package, "Changes"), name), &bytes, nullptr)) {
      std::optional<Bytes> plain = opened->cipher ? opened->cipher->decryptData(bytes) : std::optional<Bytes>(bytes);
      if (plain) change = jsonToValue(asStringView(*plain));
    }
    if (!change || !change->isDictionary()) {
      entry.set(Value("unreadable"), Value(true));
      history.push_back(entry);
      continue;
    }
    const bool recovery = (*change)["type"] == Value("recovery");
    const Value& content = recovery ? (*change)["refreshes"] : (*change)["changes"];
    const Value& session = (*change)["session"];
    entry.set(Value("date"), (*change)["date"].isString() ? (*change)["date"] : Value::null());
    entry.set(Value("author"), session["fullUserName"].isString() ? session["fullUserName"] : Value::null());
    entry.set(Value("machine"), session["machineName"].isString() ? session["machineName"] : Value::null());
    entry.set(Value("inserted"), Value(countObjects(content["insert"])));
    entry.set(Value("updated"), Value(countObjects(content["update"])));
    entry.set(Value("deleted"), Value(countObjects(content["delete"])));
    entry.set(Value("recovery"), Value(recovery));
    history.push_back(entry);
  }
  if (options.json) {
    printJSON(Value::array(std::move(history)));
    return kExitSuccess;
  }
  for (const Value& entry : history) {
    auto text = [](const Value& v) { return v.isString() ? v.str() : std::string("-"); };
    std::cout << text(entry["name"]);
    if (entry["unreadable"].boolValue()) {
      std::cout << "  (unreadable)\n";
      continue;
    }
    std::cout << "  " << text(entry["date"]) << "  " << text(entry["author"]) << " (" << text(entry["machine"])
              << ")  inserted " << entry["inserted"].longLongValue() << ", updated " << entry["updated"].longLongValue()
              << ", deleted " << entry["deleted"].longLongValue();
    if (entry["recovery"].boolValue()) std::cout << "  [recovery]";
    std::cout << "\n";
  }
  return kExitSuccess;
}

// ---- Registration --------------------------------------------------------------------------------

const char* kValuesFooter =
    "Values are text for their attribute type: numbers and decimals as decimal text, booleans true/false, dates as "
    "2024-05-17T09:41:07.250+0000 (or with Z), binary data as @FILE. A to-one relationship is Entity/UID (empty "
    "clears it); a to-many one a comma-separated list of Entity/UID that replaces the members, or REL+=Entity/UID "
    "and REL-=Entity/UID to add or remove one. --null KEY clears a value. The password of an encrypted document is "
    "read from --password-file, else $CORVANE_PASSWORD, else the keychain (corvane password save), else asked for "
    "on the terminal.";

void setupCreate(CLI::App& app, int* status) {
  auto options = std::make_shared<StoreOptions>();
  auto identifier = std::make_shared<std::string>();
  auto encrypted = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand("create", "Create a new, empty document package");
  command->add_option("package", options->package, "The package folder to create")->required()->type_name("PKG");
  command->add_option("--identifier", *identifier, "The document identifier (default: a new UUID)")->type_name("ID");
  command->add_flag("--encrypted", *encrypted, "Encrypt the document (asks for a password if none is given)");
  addStoreOptions(command, options.get(), true);
  command->footer(
      "With --password-file or $CORVANE_PASSWORD (or --encrypted) the document is encrypted with that password. "
      "Prints the document identifier.");
  command->callback(
      [options, identifier, encrypted, status] { *status = runCreate(*options, *identifier, *encrypted); });
}

void setupInfo(CLI::App& app, int* status) {
  auto options = std::make_shared<InfoOptions>();
  CLI::App* command = app.add_subcommand("info", "Show a document's identity, history size and location");
  command->add_option("package", options->package, "The document package")->required()->type_name("PKG");
  command->add_flag("--json", options->json, "Print one JSON object");
  command->footer(
      "Shows the identifier, creation date, creating application, whether it is encrypted, the number of change "
      "files, whether the folder is a correct package, the sync service that owns it and whether its volume is "
      "local. Needs no password.");
  command->callback([options, status] { *status = runInfo(*options); });
}

void setupObjectCommand(CLI::App& app, int* status, const std::string& name) {
  auto options = std::make_shared<ObjectCommandOptions>();
  const bool inserting = name == "insert";
  const bool deleting = name == "delete";
  CLI::App* command = app.add_subcommand(name, inserting  ? "Insert an object and print its UID"
                                               : deleting ? "Delete an object"
                                                          : "Change values of an object");
  command->add_option("package", options->store.package, "The document package")->required()->type_name("PKG");
  command->add_option("entity", options->entity, "The entity of the object")->required()->type_name("ENTITY");
  if (!inserting) command->add_option("uid", options->uid, "The object's UID")->required()->type_name("UID");
  if (!deleting) {
    command->add_option("assignments", options->assignments, "Values to set")->type_name("KEY=VALUE");
    command->add_option("--null", options->nulls, "Clear the value of KEY")->type_name("KEY");
  }
  addStoreOptions(command, &options->store, true);
  command->footer(kValuesFooter);
  command->callback([options, status, inserting, deleting] {
    *status = inserting ? runInsert(*options) : runUpdateOrDelete(*options, deleting);
  });
}

void setupDump(CLI::App& app, int* status) {
  auto options = std::make_shared<DumpOptions>();
  CLI::App* command = app.add_subcommand("dump", "Print the document's objects as JSON");
  command->add_option("package", options->store.package, "The document package")->required()->type_name("PKG");
  command->add_option("--entity", options->entity, "Only objects of this entity (and its sub-entities)")
      ->type_name("E");
  command->add_option("--where", options->where, "Only objects matching this predicate, e.g. \"age > 30\"")
      ->type_name("PREDICATE");
  command->add_option("--sort", options->sort, "Order by this key (ascending)")->type_name("KEY");
  command->add_option("--limit", options->limit, "At most N objects")->type_name("N");
  addStoreOptions(command, &options->store, true);
  command->footer(
      "Each object is {\"entity\", \"uid\", attributes with a value, relationships}: strings and numbers as JSON, "
      "decimals as exact text, dates as yyyy-MM-dd'T'HH:mm:ss.SSSZ in GMT, binary data as {\"length\", \"sha256\"}, "
      "a to-one relationship as \"Entity/UID\", a to-many one as an array of them (sorted unless ordered). Objects "
      "are ordered by entity name, then UID, unless --sort says otherwise.");
  command->callback([options, status] { *status = runDump(*options); });
}

void setupChanges(CLI::App& app, int* status) {
  auto options = std::make_shared<ChangesOptions>();
  CLI::App* command = app.add_subcommand("changes", "List a document's change files, oldest first");
  command->add_option("package", options->package, "The document package")->required()->type_name("PKG");
  command->add_flag("--json", options->json, "Print a JSON array");
  addPasswordOptions(command, &options->password);
  command->footer(
      "Each change: its name, date, author's full name and machine, and how many objects it inserted, updated and "
      "deleted; recovery changes (written to repair a history) are marked.");
  command->callback([options, status] { *status = runChanges(*options); });
}

const CommandRegistration kCreate(10, [](CLI::App& app, int* status) { setupCreate(app, status); });
const CommandRegistration kInfo(11, [](CLI::App& app, int* status) { setupInfo(app, status); });
const CommandRegistration kInsert(12, [](CLI::App& app, int* status) { setupObjectCommand(app, status, "insert"); });
const CommandRegistration kUpdate(13, [](CLI::App& app, int* status) { setupObjectCommand(app, status, "update"); });
const CommandRegistration kDelete(14, [](CLI::App& app, int* status) { setupObjectCommand(app, status, "delete"); });
const CommandRegistration kDump(15, [](CLI::App& app, int* status) { setupDump(app, status); });
const CommandRegistration kChanges(16, [](CLI::App& app, int* status) { setupChanges(app, status); });

}  // namespace
}  // namespace corvane::cli
