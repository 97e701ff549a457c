// `corvane sync-server`: the endpoint of the device sync check. Each device of a document posts
// its record to /Tools/SyncTest/post.php every few seconds and gets back the latest record of
// every device of the same document.
#include <httplib.h>
#include <signal.h>  // NOLINT(modernize-deprecated-headers): POSIX sigwait and pthread_kill
#include <sys/socket.h>

#include <chrono>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "command.h"
#include "corvane/foundation/json.h"
#include "corvane/foundation/log.h"
#include "corvane/foundation/mutex.h"

namespace corvane::cli {
namespace {

constexpr size_t kMaxBody = size_t{64} * 1024;  // a record is a few hundred bytes
constexpr size_t kWorkers = 128;

struct SyncServerOptions {
  std::string listen = "127.0.0.1:8080";
  std::string cert;
  std::string key;
  double ttl = 600;
};

// What the server keeps: the latest record per (document, device), with when it came.
class Records {
 public:
  explicit Records(double ttl) : ttl_(ttl) {}

  // Stores `record` and answers every fresh record of its document, keyed by device.
  Value post(const Value& record) {
    const auto now = std::chrono::steady_clock::now();
    const std::string document = record["documentIdentifier"].str();
    MutexLock lock(&mutex_);
    for (auto it = records_.begin(); it != records_.end();) {
      it = std::chrono::duration<double>(now - it->second.second).count() > ttl_ ? records_.erase(it) : std::next(it);
    }
    records_[{document, record["deviceIdentifier"].str()}] = {record, now};
    Value answer = Value::mutableDictionary();
    for (auto it = records_.lower_bound({document, std::string()}); it != records_.end() && it->first.first == document;
         ++it) {
      answer.set(Value(it->first.second), it->second.first);
    }
    return answer;
  }

 private:
  double ttl_;
  Mutex mutex_;
  std::map<std::pair<std::string, std::string>, std::pair<Value, std::chrono::steady_clock::time_point>> records_
      CORVANE_GUARDED_BY(mutex_);
};

// Why a posted record is refused, or "" when it is a record.
std::string refusal(const std::optional<Value>& record) {
  if (!record || !record->isDictionary()) return "the body is not a JSON object";
  for (const char* key : {"documentIdentifier", "deviceIdentifier"}) {
    if (!(*record)[key].isString() || (*record)[key].str().empty()) return std::string("\"") + key + "\" is missing";
  }
  for (const char* key : {"changesInfo", "checkSum", "bundleVersion", "url", "version"}) {
    if (!(*record)[key].isNil() && !(*record)[key].isString()) return std::string("\"") + key + "\" is not a string";
  }
  if (!(*record)["contentChecksum"].isNil() && !(*record)["contentChecksum"].isDictionary()) {
    return "\"contentChecksum\" is not an object";
  }
  const Value& version = (*record)["contentChecksumVersion"];
  if (!version.isNil() && !version.isNumber()) return "\"contentChecksumVersion\" is not a number";
  return {};
}

int runSyncServer(const SyncServerOptions& options) {
  const size_t colon = options.listen.rfind(':');
  if (colon == std::string::npos) return fail("--listen wants ADDR:PORT, not " + options.listen);
  const std::string address = options.listen.substr(0, colon);
  const int port = std::atoi(options.listen.c_str() + colon + 1);
  const std::string portText = options.listen.substr(colon + 1);
  if (portText.empty() || portText.find_first_not_of("0123456789") != std::string::npos || port > 65535) {
    return fail("--listen: no port in " + options.listen);
  }
  if (options.cert.empty() != options.key.empty()) return fail("--cert and --key go together");

  std::unique_ptr<httplib::Server> server;
  if (options.cert.empty()) {
    server = std::make_unique<httplib::Server>();
  } else {
    auto secure = std::make_unique<httplib::SSLServer>(options.cert.c_str(), options.key.c_str());
    if (!secure->is_valid()) return fail("cannot use the certificate " + options.cert + " with the key " + options.key);
    server = std::move(secure);
  }
  auto records = std::make_shared<Records>(options.ttl);
  server->set_payload_max_length(kMaxBody);
  // One worker a connection: enough of them for every device of many documents polling at once
  // over kept-alive connections, and connections that idle give their worker back soon.
  server->new_task_queue = [] { return new httplib::ThreadPool(kWorkers); };
  server->set_keep_alive_timeout(2);
  server->set_read_timeout(10);
  server->Post("/Tools/SyncTest/post.php", [records](const httplib::Request& request, httplib::Response& response) {
    const std::optional<Value> record = jsonToValue(request.body);
    if (std::string why = refusal(record); !why.empty()) {
      response.status = 400;
      response.set_content(why + "\n", "text/plain");
      return;
    }
    response.set_content(valueToJson(records->post(*record)).value_or("{}"), "application/json");
  });
  server->set_logger([](const httplib::Request& request, const httplib::Response& response) {
    std::cout << request.remote_addr << " " << request.method << " " << request.path << " " << response.status << " "
              << request.body.size() << std::endl;
  });

  // A client that goes away mid-answer is that client's loss: over TLS the write would raise
  // SIGPIPE and end the server.
  ::signal(SIGPIPE, SIG_IGN);
  // SIGINT and SIGTERM stop the server from a thread of its own.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  httplib::Server* running = server.get();
  std::thread stopper([signals, running] {
    int received = 0;
    sigwait(&signals, &received);
    running->stop();
  });
  // The library listens with a backlog of 5: a burst of devices connecting at once would wait
  // for their connection to be retried. The listening socket gets the system's limit instead.
  int listening = -1;
  server->set_socket_options([&listening](int socket) {
    int yes = 1;
    (void)setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    listening = socket;
  });
  // Port 0: one the system chooses, printed below.
  const int bound =
      port == 0 ? server->bind_to_any_port(address.c_str()) : (server->bind_to_port(address.c_str(), port) ? port : -1);
  if (bound <= 0) {
    // Wakes the stopper from its sigwait(); the signal is blocked, so nothing is terminated.
    pthread_kill(stopper.native_handle(), SIGTERM);  // NOLINT(bugprone-bad-signal-to-kill-thread)
    stopper.join();
    return fail("cannot listen on " + options.listen);
  }
  if (listening >= 0) (void)::listen(listening, SOMAXCONN);
  std::cout << "listening on " << (options.cert.empty() ? "http://" : "https://") << address << ":" << bound
            << std::endl;
  server->listen_after_bind();
  if (stopper.joinable()) stopper.join();
  std::cout << "stopped" << std::endl;
  return kExitSuccess;
}

void setupSyncServer(CLI::App& app, int* status) {
  auto options = std::make_shared<SyncServerOptions>();
  CLI::App* command = app.add_subcommand("sync-server", "Serve the device sync check's endpoint");
  command->add_option("--listen", options->listen, "Address and port to listen on (port 0: any free one, printed)")
      ->type_name("ADDR:PORT")
      ->capture_default_str();
  command->add_option("--cert", options->cert, "Serve HTTPS with this certificate (PEM)")->type_name("FILE");
  command->add_option("--key", options->key, "The certificate's private key (PEM)")->type_name("FILE");
  command->add_option("--ttl", options->ttl, "Forget a device's record this many seconds after it came")
      ->type_name("SECONDS")
      ->capture_default_str();
  command->footer(
      "Answers POST /Tools/SyncTest/post.php: the body is one device's record (JSON, at most 64 KiB, with "
      "\"documentIdentifier\" and \"deviceIdentifier\"); the answer is the latest record of every device of the same "
      "document, keyed by device. A bad record gets 400 and is not kept. One line per request on standard output; "
      "Ctrl-C or SIGTERM stops it.");
  command->callback([options, status] { *status = runSyncServer(*options); });
}

const CommandRegistration kSyncServer(91, setupSyncServer);

}  // namespace
}  // namespace corvane::cli
