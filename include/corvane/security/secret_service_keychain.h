// corvane::SecretServiceKeychain — items in the freedesktop Secret Service (GNOME Keyring,
// KWallet's secret service, KeePassXC ...) through libsecret.
//
// Items go to the default collection (the "login" keyring of most desktops), which the
// service encrypts under the user's login password. Every attribute is stored as an item
// attribute, with "xdg:schema" = kSecretServiceSchemaName so that only this library's items
// ever match; the label attribute also becomes the item's label, which keyring managers show.
//
// libsecret talks over GLib's shared session-bus connection, made on first use from
// DBUS_SESSION_BUS_ADDRESS (else $XDG_RUNTIME_DIR/bus); that connection ends the process when
// the bus goes away, as GLib's session connection always does. No prompt is ever shown: items of a locked collection
// are refused with kKeychainErrorInteractionNotAllowed, and unlock() succeeds only when the service can unlock without
// asking the user.
//
// Threads: any thread; operations are serialised by a mutex.
#pragma once

#include <memory>

#include "corvane/foundation/error.h"
#include "corvane/security/keychain.h"

namespace corvane {

inline constexpr const char* kSecretServiceSchemaName = "org.corvane.Keychain";

// The Secret Service of the session bus, or nullptr (and kKeychainErrorNotAvailable with the
// reason) when there is no session bus, no service on it, no default collection, or the
// library was built without libsecret. Never launches a bus.
std::unique_ptr<KeychainBackend> openSecretServiceKeychain(Error* error = nullptr);

}  // namespace corvane
