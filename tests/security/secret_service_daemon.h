// A private, real Secret Service for tests: a D-Bus session bus of its own (dbus-daemon with a
// configuration in a temporary folder) and gnome-keyring-daemon on it, its login keyring
// unlocked with a known password. libsecret uses GLib's session-bus connection, so the test
// process's DBUS_SESSION_BUS_ADDRESS is pointed at the private bus before anything talks to a
// bus (the user's session is never touched), and that connection is told not to end the
// process when the bus goes away. Both daemons are children of the test process, ended by
// their pids (and by the kernel should the test process die first).
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gio/gio.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "corvane/security/secret_service_keychain.h"
#include "support/temp_dir.h"

extern char** environ;

namespace corvane::testing {

class SecretServiceDaemon {
 public:
  static constexpr const char* kLoginPassword = "corvane-test-login";

  SecretServiceDaemon() { start(); }
  ~SecretServiceDaemon() {
    stop(&keyringPid_);
    stop(&busPid_);
  }
  SecretServiceDaemon(const SecretServiceDaemon&) = delete;
  SecretServiceDaemon& operator=(const SecretServiceDaemon&) = delete;

  // Why the service is not running (empty when it is).
  const std::string& failure() const { return failure_; }
  const std::string& busAddress() const { return address_; }

  // Unlocks the login keyring with the known password, as a user typing it into the prompt
  // would: gnome-keyring's own interface for that, since no prompt can be shown here.
  bool unlockWithLoginPassword(std::string* why) const {
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    GError* error = nullptr;
    GVariant* opened = g_dbus_connection_call_sync(
        bus, "org.freedesktop.secrets", "/org/freedesktop/secrets", "org.freedesktop.Secret.Service", "OpenSession",
        g_variant_new("(sv)", "plain", g_variant_new_string("")), G_VARIANT_TYPE("(vo)"), G_DBUS_CALL_FLAGS_NONE, 5000,
        nullptr, &error);
    GVariant* done = nullptr;
    if (opened != nullptr) {
      const gchar* session = nullptr;
      g_variant_get(opened, "(v&o)", nullptr, &session);
      const std::string password = kLoginPassword;
      GVariant* secret = g_variant_new(
          "(o@ay@ays)", session, g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, "", 0, 1),
          g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, password.data(), password.size(), 1), "text/plain");
      done = g_dbus_connection_call_sync(
          bus, "org.freedesktop.secrets", "/org/freedesktop/secrets",
          "org.gnome.keyring.InternalUnsupportedGuiltRiddenInterface", "UnlockWithMasterPassword",
          g_variant_new("(o@(oayays))", "/org/freedesktop/secrets/collection/login", secret), nullptr,
          G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
      g_variant_unref(opened);
    }
    if (done != nullptr) g_variant_unref(done);
    if (error != nullptr) {
      *why = error->message;
      g_error_free(error);
    }
    g_object_unref(bus);
    return done != nullptr;
  }

  // A new keychain on the private service (nullptr when it is not running).
  std::unique_ptr<KeychainBackend> open(Error* error = nullptr) const {
    return address_.empty() ? nullptr : openSecretServiceKeychain(error);
  }

 private:
  void start() {
    const std::string home = dir_ / "home";
    const std::string runtime = dir_ / "runtime";
    writeTextFile(dir_ / "bus.conf",
                  "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                  " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                  "<busconfig>\n  <type>session</type>\n  <listen>unix:dir=" +
                      dir_.path() +
                      "</listen>\n"
                      "  <auth>EXTERNAL</auth>\n"
                      "  <policy context=\"default\">\n    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                      "    <allow eavesdrop=\"true\"/>\n    <allow own=\"*\"/>\n  </policy>\n</busconfig>\n");
    writeTextFile(home + "/.keep", "");
    writeTextFile(runtime + "/.keep", "");
    ::chmod(runtime.c_str(), 0700);

    // dbus-daemon in the foreground (so that its pid is the child's), printing its address.
    // Pipes are close-on-exec; each child gets only its end, under a fixed number.
    int addressPipe[2];
    if (::pipe2(addressPipe, O_CLOEXEC) != 0) return fail("pipe failed");
    busPid_ = spawn({"dbus-daemon", "--nofork", "--config-file=" + (dir_ / "bus.conf"), "--print-address=3"}, {}, -1,
                    addressPipe[1], dir_ / "daemons.log");
    ::close(addressPipe[1]);
    std::string address;
    char c;
    while (::read(addressPipe[0], &c, 1) == 1 && c != '\n') address += c;
    ::close(addressPipe[0]);
    if (busPid_ <= 0 || address.empty()) return fail("dbus-daemon did not start (is Debian's dbus-daemon installed?)");

    // gnome-keyring-daemon reads the login password from its standard input up to the end.
    int passwordPipe[2];
    if (::pipe2(passwordPipe, O_CLOEXEC) != 0) return fail("pipe failed");
    keyringPid_ = spawn({"gnome-keyring-daemon", "--foreground", "--unlock", "--components=secrets"},
                        {"HOME=" + home, "XDG_DATA_HOME=" + home + "/data", "XDG_CONFIG_HOME=" + home + "/config",
                         "XDG_CACHE_HOME=" + home + "/cache", "XDG_RUNTIME_DIR=" + runtime,
                         "DBUS_SESSION_BUS_ADDRESS=" + address, "PATH=/usr/bin:/bin"},
                        passwordPipe[0], -1, dir_ / "daemons.log");
    ::close(passwordPipe[0]);
    const std::string password = kLoginPassword;
    const bool written =
        ::write(passwordPipe[1], password.data(), password.size()) == static_cast<ssize_t>(password.size());
    ::close(passwordPipe[1]);
    if (keyringPid_ <= 0 || !written) {
      return fail("gnome-keyring-daemon did not start (is Debian's gnome-keyring installed?)");
    }

    ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    if (bus == nullptr) return fail("cannot connect to the private bus " + address);
    g_dbus_connection_set_exit_on_close(bus, FALSE);
    g_object_unref(bus);  // GLib keeps the shared connection

    // Ready once the service answers with a default collection.
    Error error;
    for (int attempt = 0; attempt < 100; ++attempt) {
      if (openSecretServiceKeychain(&error)) {
        address_ = address;
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    fail("the Secret Service did not answer: " + error.localizedDescription +
         "; the daemons said: " + readTextFile(dir_ / "daemons.log"));
  }

  void fail(std::string why) { failure_ = std::move(why); }

  // Starts a program found on PATH with `standardInput` as its descriptor 0, `output` as its
  // descriptor 3 (when not -1), standard output and error appended to `logPath`, and with
  // `environment` (or this process's when empty). The child is ended when the test process
  // ends, even by a crash, so that no daemon outlives a test run. Returns its pid or -1.
  static pid_t spawn(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
                     int standardInput, int output, const std::string& logPath) {
    std::vector<char*> argv;
    for (const std::string& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (const std::string& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    char** childEnvironment = environment.empty() ? environ : envp.data();
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    // In the child: only async-signal-safe calls until exec.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(127);
    const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (standardInput >= 0) ::dup2(standardInput, 0);
    if (output >= 0) ::dup2(output, 3);
    if (log >= 0) {
      ::dup2(log, 1);
      ::dup2(log, 2);
    }
    ::execvpe(argv[0], argv.data(), childEnvironment);
    ::_exit(127);
  }

  static void stop(pid_t* pid) {
    if (*pid <= 0) return;
    ::kill(*pid, SIGTERM);
    int status = 0;
    ::waitpid(*pid, &status, 0);
    *pid = -1;
  }

  TempDir dir_;
  pid_t busPid_ = -1;
  pid_t keyringPid_ = -1;
  std::string address_;
  std::string failure_;
};

}  // namespace corvane::testing
