// corvane::DeviceSyncCheck — whether every device that works on a document sees the same
// content.
//
// While a host shows its devices panel, each device posts a short fingerprint of its view of the
// document (its change-log checksum, a checksum per entity of its content, how far it has
// caught up) to a sync-test endpoint every 5 seconds, and gets back what every device posted for
// the same document. Comparing them gives "All in Sync", "Files do not match" (with the parts
// that differ) or a wait. `corvane sync-server` is such an endpoint.
//
//   DeviceSyncCheck check(*document, {.host = "sync.example.com"});
//   check.setPanelOpen(true);
//   check.pollDeviceInfo();                 // then read devicesStatusText() and devices()
//   auto watch = check.onUpdate([&] { ... });
//
// Threads: the document's main run loop only; requests run on a thread of their own and their
// answers come back through the run loop.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "corvane/foundation/observable.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/value.h"

namespace corvane {

class CorvaneDocument;

// Sends one JSON body by POST and hands back the answer's body, or nullopt when the request
// failed (no connection, a time-out, a certificate that does not check out, a status other
// than 200). `done` may be called on any thread.
class DeviceSyncTransport {
 public:
  virtual ~DeviceSyncTransport();
  virtual void post(const std::string& url, const std::string& jsonBody,
                    std::function<void(std::optional<std::string> body)> done) = 0;
};

struct HttpTransportOptions {
  double timeoutSeconds = 20;
  // Certificates to trust for HTTPS besides none: a CA file (a test's own authority); empty:
  // the system's.
  std::string caFile;
};
// HTTP(S) through cpp-httplib; certificates are always checked for https URLs.
std::shared_ptr<DeviceSyncTransport> httpSyncTransport(HttpTransportOptions options = {});

struct DeviceSyncCheckOptions {
  // The endpoint's scheme and host (and port): "https://sync.example.com",
  // "http://127.0.0.1:8080". The path is always "/Tools/SyncTest/post.php".
  std::string host;
  // This device's identifier. Default: $CORVANE_DEVICE_IDENTIFIER, else the document's.
  std::optional<std::string> deviceIdentifier;
  std::shared_ptr<DeviceSyncTransport> transport;  // default: httpSyncTransport()
  double pollInterval = 5;
};

class DeviceSyncCheck {
 public:
  static constexpr const char* kWaiting = "CorvaneLogTypeWarning";
  static constexpr const char* kInSync = "CorvaneLogTypeSuccess";
  static constexpr const char* kMismatch = "CorvaneLogTypeError";
  static constexpr int kContentChecksumVersion = 7;

  // The document must outlive the check.
  DeviceSyncCheck(CorvaneDocument& document, DeviceSyncCheckOptions options);
  ~DeviceSyncCheck();
  DeviceSyncCheck(const DeviceSyncCheck&) = delete;
  DeviceSyncCheck& operator=(const DeviceSyncCheck&) = delete;

  // The check runs only while the host's panel is open.
  void setPanelOpen(bool open) { panelOpen_ = open; }
  // Starts polling afresh (poll count 0, no detail).
  void pollDeviceInfo();
  // One poll: posts this device's record, or after 60 polls stops and shows "Time out" (its
  // "Continue" starts polling again).
  void loadDeviceInfo();
  // Stops polling.
  void resetDeviceInfo();

  // What this device posts.
  Value deviceRecord() const;
  std::string postURL() const;
  const std::string& deviceIdentifier() const { return deviceIdentifier_; }

  // The outcome of comparing the records an endpoint answered with.
  struct Comparison {
    std::vector<Value> devices;         // the records, this device's marked "(This device)"
    std::string status;                 // kWaiting, kInSync or kMismatch
    std::optional<std::string> detail;  // the parts that differ, sorted, joined with ", "
  };
  static Comparison compare(const Value& answer, const std::string& thisDevice);

  const std::vector<Value>& devices() const { return devices_; }
  const std::string& status() const { return status_; }
  const std::optional<std::string>& detail() const { return detail_; }
  int pollCount() const { return pollCount_; }
  // "Waiting for other devices. ...", "All in Sync", "Files do not match[: parts]", or nullopt.
  std::optional<std::string> devicesStatusText() const;
  // Called on the main run loop after each comparison and when polling times out.
  [[nodiscard]] Subscription onUpdate(std::function<void()> callback);

 private:
  void apply(const Value& answer);

  CorvaneDocument& document_;
  DeviceSyncCheckOptions options_;
  std::string deviceIdentifier_;
  std::shared_ptr<DeviceSyncTransport> transport_;
  RunLoop& loop_;
  RunLoop::Token next_;
  bool panelOpen_ = false;
  int pollCount_ = 0;
  std::vector<Value> devices_;
  std::string status_;
  std::optional<std::string> detail_;
  Observable<int> updates_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace corvane
