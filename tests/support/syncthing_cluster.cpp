#include "support/syncthing_cluster.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "corvane/foundation/env.h"
#include "corvane/foundation/json.h"

namespace corvane::testing {

namespace {

constexpr const char* kFolderID = "corvane";

// A port nobody listens on now (the kernel's choice for a socket bound to port 0).
int freeLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return 0;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

// One HTTP/1.0 exchange with a loopback server (no chunked answers to read); the body, or
// nullopt when the connection fails or the status is not 200.
std::optional<std::string> httpExchange(int port, const std::string& request) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return std::nullopt;
  timeval timeout{10, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  std::string answer;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
    char buffer[65536];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) answer.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  const size_t body = answer.find("\r\n\r\n");
  if (!answer.starts_with("HTTP/1.") || answer.find(" 200 ") != answer.find(' ') || body == std::string::npos) {
    return std::nullopt;
  }
  return answer.substr(body + 4);
}

bool waitFor(double seconds, const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < end) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  return condition();
}

std::string readAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Runs a command to its end with its output in `output`; its exit status.
int runCommand(std::vector<std::string> arguments, const std::string& output) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(out, 1);
    ::dup2(out, 2);
    std::vector<char*> argv;
    for (std::string& a : arguments) argv.push_back(a.data());
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

SyncthingCluster::SyncthingCluster(std::string work, std::vector<std::string> folders) : work_(std::move(work)) {
  for (size_t i = 0; i < folders.size(); ++i) {
    Instance instance;
    instance.home = pathJoin(work_, "syncthing-" + std::to_string(i));
    instance.folder = std::move(folders[i]);
    instances_.push_back(std::move(instance));
  }
}

SyncthingCluster::~SyncthingCluster() {
  for (size_t i = 0; i < instances_.size(); ++i) stop(i);
}

bool SyncthingCluster::installed() { return runCommand({"syncthing", "--version"}, "/dev/null") == 0; }

bool SyncthingCluster::start(std::string* error) {
  Env* env = Env::defaultEnv();
  for (size_t i = 0; i < instances_.size(); ++i) {
    Instance& instance = instances_[i];
    Error failure;
    // The folder marker tells Syncthing that the folder is there on purpose.
    if (!env->createDirectory(pathJoin(instance.folder, ".stfolder"), true, &failure) ||
        !env->createDirectory(instance.home, true, &failure)) {
      *error = failure.description();
      return false;
    }
    const std::string output = pathJoin(instance.home, "generate.log");
    if (runCommand({"syncthing", "generate", "--home=" + instance.home, "--no-default-folder"}, output) != 0 ||
        runCommand({"syncthing", "serve", "--home=" + instance.home, "--device-id"}, output) != 0) {
      *error = "syncthing could not generate keys: " + readAll(output);
      return false;
    }
    std::string id = readAll(output);
    while (!id.empty() && (id.back() == '\n' || id.back() == '\r')) id.pop_back();
    instance.deviceID = id;
    instance.apiKey = "corvane-test-" + env->newUUIDString();
    instance.guiPort = freeLoopbackPort();
    instance.listenPort = freeLoopbackPort();
  }
  for (size_t i = 0; i < instances_.size(); ++i) {
    std::ofstream(pathJoin(instances_[i].home, "config.xml")) << configuration(i);
    if (!launch(i, error)) return false;
  }
  for (size_t i = 0; i < instances_.size(); ++i) {
    if (!waitUntilConnected(i, 60, error)) return false;
  }
  return true;
}

std::string SyncthingCluster::configuration(size_t device) const {
  const Instance& self = instances_[device];
  std::ostringstream xml;
  xml << "<configuration version=\"36\">\n";
  xml << "  <folder id=\"" << kFolderID << "\" label=\"" << kFolderID << "\" path=\"" << self.folder
      << "\" type=\"sendreceive\" rescanIntervalS=\"3600\" fsWatcherEnabled=\"true\" fsWatcherDelayS=\"1\" "
         "ignorePerms=\"false\" autoNormalize=\"true\">\n"
      << "    <filesystemType>basic</filesystemType>\n";
  for (const Instance& other : instances_) xml << "    <device id=\"" << other.deviceID << "\"></device>\n";
  xml << "    <minDiskFree unit=\"%\">0</minDiskFree>\n"
      << "    <versioning></versioning>\n"
      << "  </folder>\n";
  for (size_t i = 0; i < instances_.size(); ++i) {
    xml << "  <device id=\"" << instances_[i].deviceID << "\" name=\"device-" << i
        << "\" compression=\"metadata\" introducer=\"false\">\n"
        << "    <address>tcp://127.0.0.1:" << instances_[i].listenPort << "</address>\n"
        << "  </device>\n";
  }
  xml << "  <gui enabled=\"true\" tls=\"false\">\n"
      << "    <address>127.0.0.1:" << self.guiPort << "</address>\n"
      << "    <apikey>" << self.apiKey << "</apikey>\n"
      << "  </gui>\n"
      << "  <options>\n"
      << "    <listenAddress>tcp://127.0.0.1:" << self.listenPort << "</listenAddress>\n"
      << "    <globalAnnounceEnabled>false</globalAnnounceEnabled>\n"
      << "    <localAnnounceEnabled>false</localAnnounceEnabled>\n"
      << "    <relaysEnabled>false</relaysEnabled>\n"
      << "    <natEnabled>false</natEnabled>\n"
      << "    <urAccepted>-1</urAccepted>\n"
      << "    <autoUpgradeIntervalH>0</autoUpgradeIntervalH>\n"
      << "    <startBrowser>false</startBrowser>\n"
      << "    <crashReportingEnabled>false</crashReportingEnabled>\n"
      << "    <reconnectionIntervalS>1</reconnectionIntervalS>\n"
      << "    <minHomeDiskFree unit=\"%\">0</minHomeDiskFree>\n"
      << "  </options>\n"
      << "</configuration>\n";
  return xml.str();
}

bool SyncthingCluster::launch(size_t device, std::string* error) {
  Instance& instance = instances_[device];
  const std::string logPath = pathJoin(instance.home, "syncthing.log");
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setsid();
    const int out = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::dup2(out, 1);
    ::dup2(out, 2);
    ::setenv("STNODEFAULTFOLDER", "1", 1);
    ::setenv("STNOUPGRADE", "1", 1);
    const std::string home = "--home=" + instance.home;
    ::execlp("syncthing", "syncthing", "serve", home.c_str(), "--no-browser", "--no-restart", "--no-upgrade",
             static_cast<char*>(nullptr));
    ::_exit(127);
  }
  if (pid < 0) {
    *error = "could not start syncthing";
    return false;
  }
  instance.pid = pid;
  if (!waitFor(60, [&] { return rest(device, "GET", "/rest/system/ping").has_value(); })) {
    *error = "syncthing " + std::to_string(device) + " did not answer: " + log(device);
    return false;
  }
  return true;
}

bool SyncthingCluster::waitUntilConnected(size_t device, double timeoutSeconds, std::string* error) {
  const bool connected = waitFor(timeoutSeconds, [&] {
    std::optional<Value> answer = rest(device, "GET", "/rest/system/connections");
    if (!answer) return false;
    for (size_t other = 0; other < instances_.size(); ++other) {
      if (other == device || !isRunning(other)) continue;
      if (!(*answer)["connections"][instances_[other].deviceID]["connected"].boolValue()) return false;
    }
    return true;
  });
  if (!connected) *error = "syncthing " + std::to_string(device) + " did not connect: " + log(device);
  return connected;
}

void SyncthingCluster::stop(size_t device) {
  Instance& instance = instances_[device];
  if (instance.pid <= 0) return;
  ::kill(instance.pid, SIGTERM);
  int status = 0;
  const bool ended = waitFor(10, [&] { return ::waitpid(instance.pid, &status, WNOHANG) == instance.pid; });
  if (!ended) {
    ::kill(instance.pid, SIGKILL);
    ::waitpid(instance.pid, &status, 0);
  }
  instance.pid = -1;
}

bool SyncthingCluster::restart(size_t device, std::string* error) {
  stop(device);
  if (!launch(device, error)) return false;
  for (size_t i = 0; i < instances_.size(); ++i) {
    if (isRunning(i) && !waitUntilConnected(i, 60, error)) return false;
  }
  return true;
}

std::optional<Value> SyncthingCluster::rest(size_t device, const std::string& method, const std::string& path) const {
  const Instance& instance = instances_[device];
  const std::string request = method + " " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\nX-API-Key: " + instance.apiKey +
                              "\r\nContent-Length: 0\r\n\r\n";
  std::optional<std::string> body = httpExchange(instance.guiPort, request);
  if (!body) return std::nullopt;
  if (body->empty()) return Value::dictionary();
  return jsonToValue(*body);
}

bool SyncthingCluster::waitUntilInSync(double timeoutSeconds, std::string* error) {
  const std::string folder = std::string("?folder=") + kFolderID;
  for (size_t i = 0; i < instances_.size(); ++i) {
    if (isRunning(i)) (void)rest(i, "POST", "/rest/db/scan" + folder);  // returns once scanned
  }
  // What every device must agree on, or "" while one is still busy.
  auto state = [&]() -> std::string {
    std::string agreed;
    for (size_t i = 0; i < instances_.size(); ++i) {
      if (!isRunning(i)) continue;
      std::optional<Value> status = rest(i, "GET", "/rest/db/status" + folder);
      if (!status || (*status)["state"].str() != "idle" || (*status)["needTotalItems"].longLongValue() != 0 ||
          (*status)["localFiles"] != (*status)["globalFiles"] ||
          (*status)["localDirectories"] != (*status)["globalDirectories"]) {
        return {};
      }
      for (size_t other = 0; other < instances_.size(); ++other) {
        if (other == i || !isRunning(other)) continue;
        std::optional<Value> completion =
            rest(i, "GET", "/rest/db/completion" + folder + "&device=" + instances_[other].deviceID);
        if (!completion || (*completion)["completion"].doubleValue() < 100.0) return {};
      }
      const std::string mine = (*status)["globalFiles"].description() + "/" +
                               (*status)["globalDirectories"].description() + "/" +
                               (*status)["globalDeleted"].description() + "/" + (*status)["globalBytes"].description();
      if (!agreed.empty() && agreed != mine) return {};
      agreed = mine;
    }
    return agreed;
  };
  std::string previous;
  const bool settled = waitFor(timeoutSeconds, [&] {
    const std::string now = state();
    const bool same = !now.empty() && now == previous;
    previous = now;
    return same;
  });
  if (!settled) *error = "the devices did not get in sync within " + std::to_string(timeoutSeconds) + " s";
  return settled;
}

std::string SyncthingCluster::log(size_t device) const {
  return readAll(pathJoin(instances_[device].home, "syncthing.log"));
}

}  // namespace corvane::testing
