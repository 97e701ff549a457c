// The entries of a store's log and the repair menus attached to some of them.
//
// The log says what the store did and what went wrong, newest entry first. An entry that
// reports a damaged or missing change file carries a menu of repairs: each item is plain data
// (a title, an action name and the file it concerns), so that a host can show the items and
// hand the chosen one back to CorvaneStore::performMenuItem(), and a headless host or a test
// can invoke the same repairs directly.
//
// Threads: plain values; copy them anywhere.
#pragma once

#include <string>
#include <vector>

#include "corvane/foundation/value.h"

namespace corvane {

// Menu actions.
inline constexpr const char* kStoreMenuActionDiscardChange = "discardChange";  // move the change file aside
inline constexpr const char* kStoreMenuActionInsertChange = "insertChange";    // write a recovery change there
inline constexpr const char* kStoreMenuActionShowInFinder = "showInFinder";    // reveal the file

struct StoreMenuItem {
  std::string title;   // "Ignore", "Show in Finder"
  std::string action;  // one of the kStoreMenuAction constants
  std::string path;    // the file the action works on
  friend bool operator==(const StoreMenuItem&, const StoreMenuItem&) = default;
};

struct StoreLogEntry {
  double date = 0;      // seconds since 2001
  std::string message;  // with the change's date and author inserted when one was given
  std::string type;     // kCorvaneLogTypeSuccess, kCorvaneLogTypeWarning or kCorvaneLogTypeError
  std::vector<StoreMenuItem> menu;

  // {"date", "message", "menu" (when there is one: an array of {"title", "action", "path"}),
  // "CorvaneLogType"}.
  Value dictionary() const;
};

}  // namespace corvane
