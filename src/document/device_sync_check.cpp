#include "corvane/document/device_sync_check.h"

#include <httplib.h>
#include <pthread.h>
#include <signal.h>  // NOLINT(modernize-deprecated-headers): POSIX sigset_t, not <csignal>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <thread>
#include <unordered_set>

#include "corvane/document/corvane_document.h"
#include "corvane/foundation/interaction.h"
#include "corvane/foundation/json.h"
#include "corvane/foundation/log.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/store_diagnostics.h"

namespace corvane {

namespace {

constexpr const char* kPostPath = "/Tools/SyncTest/post.php";
constexpr int kMaxPolls = 60;  // (60 s / 5 s) × 5: five minutes

class HttpSyncTransport final : public DeviceSyncTransport {
 public:
  explicit HttpSyncTransport(HttpTransportOptions options) : options_(std::move(options)) {}
  void post(const std::string& url, const std::string& body,
            std::function<void(std::optional<std::string>)> done) override {
    // One short-lived thread a request: a poll every few seconds needs no pool.
    std::thread([options = options_, url, body, done = std::move(done)] {
      // A server that goes away mid-request must not end the host: the TLS layer writes with
      // write(), which raises SIGPIPE on this thread; blocked here, the write fails instead.
      sigset_t pipe;
      sigemptyset(&pipe);
      sigaddset(&pipe, SIGPIPE);
      pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
      const size_t path = url.find('/', url.find("://") == std::string::npos ? 0 : url.find("://") + 3);
      httplib::Client client(url.substr(0, path));
      client.enable_server_certificate_verification(true);
      if (!options.caFile.empty()) client.set_ca_cert_path(options.caFile.c_str());
      const auto seconds = static_cast<time_t>(options.timeoutSeconds);
      client.set_connection_timeout(seconds);
      client.set_read_timeout(seconds);
      client.set_write_timeout(seconds);
      httplib::Headers headers = {{"Cache-Control", "no-cache"}};
      httplib::Result result =
          client.Post(path == std::string::npos ? "/" : url.substr(path).c_str(), headers, body, "application/json");
      if (!result || result->status != 200) {
        done(std::nullopt);
        return;
      }
      done(result->body);
    }).detach();
  }

 private:
  HttpTransportOptions options_;
};

bool lessCaseInsensitive(const std::string& a, const std::string& b) {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) < std::tolower(static_cast<unsigned char>(y));
  });
}

}  // namespace

DeviceSyncTransport::~DeviceSyncTransport() = default;

std::shared_ptr<DeviceSyncTransport> httpSyncTransport(HttpTransportOptions options) {
  return std::make_shared<HttpSyncTransport>(std::move(options));
}

DeviceSyncCheck::DeviceSyncCheck(CorvaneDocument& document, DeviceSyncCheckOptions options)
    : document_(document),
      options_(std::move(options)),
      transport_(options_.transport ? options_.transport : httpSyncTransport()),
      loop_(document.options().mainLoop != nullptr ? *document.options().mainLoop : RunLoop::main()),
      status_(kWaiting),
      updates_(0, &loop_) {
  if (options_.deviceIdentifier) {
    deviceIdentifier_ = *options_.deviceIdentifier;
  } else if (auto fromEnvironment = document.env()->environmentVariable("CORVANE_DEVICE_IDENTIFIER");
             fromEnvironment && !fromEnvironment->empty()) {
    deviceIdentifier_ = *fromEnvironment;
  } else {
    deviceIdentifier_ = document.deviceIdentifier();
  }
}

DeviceSyncCheck::~DeviceSyncCheck() {
  next_.cancel();
  alive_.reset();
}

std::string DeviceSyncCheck::postURL() const {
  std::string host = options_.host;
  while (host.ends_with('/')) host.pop_back();
  return host + kPostPath;
}

Value DeviceSyncCheck::deviceRecord() const {
  CorvaneStore* store = document_.store();
  const ApplicationInfo application = document_.options().application.value_or(ApplicationInfo::current());
  Value record = Value::mutableDictionary();
  record.set(Value("documentIdentifier"), Value(document_.documentIdentifier()));
  record.set(Value("deviceIdentifier"), Value(deviceIdentifier_));
  record.set(Value("changesInfo"), Value(store != nullptr ? StoreDiagnostics(*store).changesInfo() : std::string()));
  record.set(Value("checkSum"), Value(store != nullptr ? store->checkSum() : std::string()));
  record.set(Value("contentChecksum"), store != nullptr ? store->contentChecksum() : Value::dictionary());
  record.set(Value("contentChecksumVersion"), Value(kContentChecksumVersion));
  record.set(Value("bundleVersion"), Value(application.version));
  record.set(Value("url"), Value("file://" + document_.fileURL()));
  record.set(Value("version"), Value(application.version));
  return record.copy();
}

void DeviceSyncCheck::pollDeviceInfo() {
  CORVANE_DCHECK(loop_.isMainThread());
  pollCount_ = 0;
  detail_.reset();
  loadDeviceInfo();
}

void DeviceSyncCheck::resetDeviceInfo() { next_.cancel(); }

void DeviceSyncCheck::loadDeviceInfo() {
  next_.cancel();
  if (!panelOpen_) return;
  std::weak_ptr<bool> alive = alive_;
  if (pollCount_ > kMaxPolls) {
    devices_.clear();
    updates_.set(pollCount_);
    Alert alert{"Time out", "Please hit continue to restart.", {"Continue"}};
    std::shared_ptr<Interaction> ui = document_.options().interaction;
    (void)(ui ? ui : defaultInteraction())->runAlert(alert);
    if (!alive.expired()) pollDeviceInfo();
    return;
  }
  std::optional<std::string> body = valueToJson(deviceRecord());
  if (!body) return;
  RunLoop* loop = &loop_;
  transport_->post(postURL(), *body, [this, alive, loop](std::optional<std::string> answer) {
    loop->post([this, alive, answer = std::move(answer)] {
      if (alive.expired()) return;
      std::optional<Value> parsed;
      if (answer) parsed = jsonToValue(*answer, nullptr, JsonReadOptions{true, true});
      // A failed request leaves the status as it was; the next poll goes on.
      if (parsed && parsed->isDictionary()) apply(*parsed);
      ++pollCount_;
      updates_.set(pollCount_);
      next_ = loop_.postAfter(options_.pollInterval, [this, alive] {
        if (!alive.expired()) loadDeviceInfo();
      });
    });
  });
}

void DeviceSyncCheck::apply(const Value& answer) {
  Comparison comparison = compare(answer, deviceIdentifier_);
  devices_ = std::move(comparison.devices);
  status_ = std::move(comparison.status);
  detail_ = std::move(comparison.detail);
}

DeviceSyncCheck::Comparison DeviceSyncCheck::compare(const Value& answer, const std::string& thisDevice) {
  Comparison result;
  std::set<std::string> checksums, changes;
  for (const Value& key : answer.keys()) {
    Value record = answer[key.str()].isDictionary() ? answer[key.str()].mutableCopy() : Value::mutableDictionary();
    const std::string device = record["deviceIdentifier"].str();
    if (device == thisDevice)
      record.set(Value("deviceIdentifier"), Value(fmt::format("{} ({})", device, "This device")));
    checksums.insert(record["checkSum"].isString() ? record["checkSum"].str() : record["deviceIdentifier"].str());
    changes.insert(record["changesInfo"].isString() ? record["changesInfo"].str() : record["deviceIdentifier"].str());
    result.devices.push_back(std::move(record));
  }
  if (result.devices.size() < 2) {
    result.status = kWaiting;
    return result;
  }
  const Value& first = result.devices.front();
  const Value& version = first["contentChecksumVersion"];
  const Value& bundle = first["bundleVersion"];
  bool comparable = !version.isNil();
  for (const Value& record : result.devices) {
    if (record["contentChecksumVersion"] != version || (!bundle.isNil() && record["bundleVersion"] != bundle)) {
      comparable = false;
    }
  }
  if (!comparable) {
    // Different builds: only whether every device applied the same history.
    result.status = checksums.size() == 1 && changes.size() == 1 ? kInSync : kMismatch;
    return result;
  }
  const Value& mine = first["contentChecksum"];
  std::vector<std::string> mismatched;
  std::unordered_set<std::string> seen;
  for (size_t i = 1; i < result.devices.size(); ++i) {
    const Value& theirs = result.devices[i]["contentChecksum"];
    std::set<std::string> parts;
    for (const Value& part : mine.keys()) parts.insert(part.str());
    for (const Value& part : theirs.keys()) parts.insert(part.str());
    for (const std::string& part : parts) {
      const Value& a = mine[part];
      const Value& b = theirs[part];
      if (a == Value("incomplete") || b == Value("incomplete") || a == b) continue;
      if (seen.insert(part).second) mismatched.push_back(part);
    }
  }
  if (mismatched.empty()) {
    result.status = kInSync;
    return result;
  }
  std::sort(mismatched.begin(), mismatched.end(), lessCaseInsensitive);
  result.status = kMismatch;
  result.detail = fmt::format("{}", fmt::join(mismatched, ", "));
  return result;
}

std::optional<std::string> DeviceSyncCheck::devicesStatusText() const {
  if (status_ == kWaiting) return "Waiting for other devices. Open the same panel on all your machines.";
  if (status_ == kInSync) return "All in Sync";
  if (status_ == kMismatch) {
    if (detail_) return fmt::format("{}: {}", "Files do not match", *detail_);
    return "Files do not match";
  }
  return std::nullopt;
}

Subscription DeviceSyncCheck::onUpdate(std::function<void()> callback) {
  CORVANE_DCHECK(loop_.isMainThread());
  return updates_.subscribe([callback = std::move(callback)](const int&, const int&) { callback(); });
}

}  // namespace corvane
