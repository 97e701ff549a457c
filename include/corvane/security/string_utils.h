// Helpers over the strings the store writes into its files and logs: object references
// ("Entity/UID", "Entity/p42"), names shortened for logs, and the search for a file's copy on
// a backup disk.
//
// Threads: every function may be called from any thread (timeMachineBackupPath asks its Env,
// which is callable from any thread).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane {

class Env;

// The unique-identifier part of an object reference: the text after the last "/" (the whole
// string without one), less a leading "t" or "p" (the temporary and permanent markers).
// "Book/p42" gives "42", "Book/tABC" gives "ABC", "p" gives "".
std::string storeUID(std::string_view reference);

// The entity-name part of an object reference: its first non-empty "/"-separated component.
// nullopt when there is none, or when the text is not valid UTF-8.
std::optional<std::string> storeEntityName(std::string_view reference);

// A name shortened for logs: its first and last character around "…" (U+2026), for example
// "abc" gives "a…c"; a name of fewer than three characters gives "…" alone. Characters are
// Unicode code points, so a multi-byte character is never cut in half.
std::string anonymize(std::string_view name);

// The newest copy of the file at the absolute path `path` on a mounted backup disk laid out as
// "<disk>/Backups.backupdb/<computer name>/<dated snapshot>/<volume name><path>", or on a
// mounted snapshot volume whose own path lies inside a "Backups.backupdb" folder; nullopt
// when there is none. The computer name, the volume and the mounted volumes come from `env`.
std::optional<std::string> timeMachineBackupPath(Env* env, const std::string& path);

}  // namespace corvane
