// `corvane fast dump` and `corvane fast encode`: show a FastCoding file (a cache file) as JSON,
// and build one from JSON, for the people who support users and for tests.
#include <cstdio>
#include <memory>
#include <string>

#include "command.h"
#include "corvane/coding/fast_coder.h"
#include "corvane/coding/fast_json.h"
#include "corvane/foundation/env.h"
#include "corvane/foundation/log.h"
#include "package_password.h"

namespace corvane::cli {
namespace {

constexpr const char* kNotationHelp =
    "JSON notation: kinds that JSON lacks are one-key objects: {\"$data\": base64}, {\"$date\": seconds since "
    "2001-01-01}, {\"$decimal\": \"exact text\"}, {\"$set\": [...]}, {\"$orderedSet\": [...]}, {\"$url\": relative, "
    "\"$base\": base URL as {\"$url\": ...} or as its text, or null}, {\"$point\": [x, y]}, {\"$size\": [w, h]}, "
    "{\"$rect\": [x, y, w, h]}, {\"$range\": "
    "[location, length]}, {\"$vector\": [dx, dy]}, {\"$affineTransform\": [a, b, c, d, tx, ty]}, {\"$transform3D\": "
    "[16 numbers]}, {\"$indexSet\": [[location, length], ...]}, {\"$nil\": true} for an empty slot. null is the null "
    "value. A dictionary with keys that are not strings is {\"$dictionary\": [[key, value], ...]}. An object is "
    "{\"$class\": name, property: value, ...}. A node met again inside itself (a cycle) is {\"$cycle\": true}. "
    "{\"$alias\": \"key.path\"} is the dictionary of that one entry, which encode replaces by the value found from "
    "the root along the path (\"items.2.name\": key items, element 2, key name).";

bool readInput(const std::string& path, Bytes* out, std::string* error) {
  if (path.empty() || path == "-") {
    uint8_t chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, stdin)) > 0) out->insert(out->end(), chunk, chunk + n);
    if (std::ferror(stdin)) {
      *error = "standard input could not be read";
      return false;
    }
    return true;
  }
  Env* env = Env::defaultEnv();
  bool isDirectory = false;
  if (!env->fileExists(path, &isDirectory)) {
    *error = path + ": no such file";
    return false;
  }
  if (isDirectory) {
    *error = path + " is a folder, not a file";
    return false;
  }
  Error readError;
  if (!env->readFile(path, out, &readError)) {
    *error = path + " could not be read: " + readError.localizedDescription;
    return false;
  }
  return true;
}

struct DumpOptions {
  std::string file;
  std::string package;
  bool compact = false;
  PasswordOptions password;
};

int runDump(const DumpOptions& options) {
  Bytes bytes;
  std::string error;
  if (!readInput(options.file, &bytes, &error)) return fail(error);
  if (!options.package.empty()) {
    // Caches of encrypted documents are encrypted whole, so the file is deciphered first.
    auto package = openPackage(Env::defaultEnv(), options.package, EncryptionNeed::Optional, options.password, &error);
    if (!package) return fail(error);
    if (package->cipher) {
      auto plain = package->cipher->decryptData(bytes);
      if (!plain) return fail(options.file + " could not be decrypted: wrong password or damaged file");
      bytes = std::move(*plain);
    }
  }
  Value root;
  Error readError;
  // The reader logs its reason too; here it is printed once, as the command's failure.
  LogSink previous = setLogSink([](LogLevel, std::string_view) {});
  try {
    root = FastCoder::objectWithData(bytes, &readError);
  } catch (const Exception& e) {
    setLogSink(previous);
    return fail(e.reason());
  }
  setLogSink(previous);
  if (!readError.empty()) return fail(readError.localizedDescription);
  auto json = fastGraphToJson(root, !options.compact, &readError);
  if (!json) return fail(readError.localizedDescription);
  json->push_back('\n');
  if (std::fwrite(json->data(), 1, json->size(), stdout) != json->size() || std::fflush(stdout) != 0)
    return fail("could not write to standard output");
  return kExitSuccess;
}

struct EncodeOptions {
  std::string file;
  std::string output;
  bool mutableContainers = false;
};

int runEncode(const EncodeOptions& options) {
  Bytes text;
  std::string error;
  if (!readInput(options.file, &text, &error)) return fail(error);
  Error jsonError;
  auto root = fastGraphFromJson(asStringView(text), options.mutableContainers, &jsonError);
  if (!root) return fail(jsonError.localizedDescription);
  auto bytes = FastCoder::dataWithRootObject(*root);
  if (!bytes) return fail("a root of {\"$nil\": true} has no FastCoding form");
  if (options.output == "-") {
    if (std::fwrite(bytes->data(), 1, bytes->size(), stdout) != bytes->size() || std::fflush(stdout) != 0)
      return fail("could not write to standard output");
    return kExitSuccess;
  }
  Error writeError;
  if (!Env::defaultEnv()->writeFileAtomically(options.output, *bytes, &writeError))
    return fail(options.output + " could not be written: " + writeError.localizedDescription);
  return kExitSuccess;
}

void setupFastCommand(CLI::App& app, int* status) {
  CLI::App* fast =
      app.add_subcommand("fast", "Show FastCoding files (the local cache's files) as JSON, and build them");
  fast->require_subcommand(1);
  fast->footer(kNotationHelp);

  auto dump = std::make_shared<DumpOptions>();
  CLI::App* dumpCommand = fast->add_subcommand("dump", "Print the object graph of a FastCoding file as JSON");
  dumpCommand->add_option("file", dump->file, "The FastCoding file, or - for standard input")
      ->required()
      ->type_name("FILE");
  dumpCommand
      ->add_option("--package", dump->package,
                   "Decrypt the file first with this document package's password (caches of encrypted "
                   "documents are encrypted whole)")
      ->type_name("PKG");
  dumpCommand->add_flag("--compact", dump->compact, "One line instead of indented JSON");
  addPasswordOptions(dumpCommand, &dump->password);
  dumpCommand->footer(std::string("A file that does not decode prints the reader's reason and exits with status 1. ") +
                      kNotationHelp);
  dumpCommand->callback([dump, status] { *status = runDump(*dump); });

  auto encode = std::make_shared<EncodeOptions>();
  CLI::App* encodeCommand = fast->add_subcommand("encode", "Write FastCoding data from JSON in the dump notation");
  encodeCommand->add_option("file", encode->file, "The JSON file, or - (the default) for standard input")
      ->type_name("FILE");
  encodeCommand
      ->add_option("-o,--output", encode->output,
                   "Write the FastCoding data to FILE atomically (- for standard output)")
      ->required()
      ->type_name("OUT");
  encodeCommand->add_flag("--mutable", encode->mutableContainers,
                          "Make arrays, dictionaries, sets and index sets mutable");
  encodeCommand->footer(std::string("Integers are written with the smallest code that holds them; containers are "
                                    "immutable unless --mutable. ") +
                        kNotationHelp);
  encodeCommand->callback([encode, status] { *status = runEncode(*encode); });
}

const CommandRegistration kFast(70, setupFastCommand);

}  // namespace
}  // namespace corvane::cli
