// Load on `corvane sync-server`: 100 clients at once, each posting records of one of 10
// documents as fast as the server answers, over plain HTTP on loopback. Reports requests per
// second and the latency percentiles. The server is the real binary, started by the benchmark.
//
//   build/release/bench/sync_server_bench   (CORVANE_BENCH_SECONDS=N for N seconds; default 10)
#include <httplib.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kClients = 100;
constexpr int kDocuments = 10;

std::string record(int client) {
  return "{\"documentIdentifier\":\"document-" + std::to_string(client % kDocuments) +
         "\",\"deviceIdentifier\":\"device-" + std::to_string(client) +
         "\",\"changesInfo\":\"120 in Cache / 120 on "
         "Disk\",\"checkSum\":\"A1B2C3\",\"contentChecksum\":{\"Note\":\"0F1E2D\","
         "\"Folder\":\"ABCDEF\"},\"contentChecksumVersion\":7,\"bundleVersion\":\"12\",\"url\":\"file:///home/me/"
         "Notes.corvane\",\"version\":\"12\"}";
}

}  // namespace

int main() {
  const char* given = std::getenv("CORVANE_BENCH_SECONDS");
  const double seconds = given != nullptr && std::atof(given) > 0 ? std::atof(given) : 10.0;
  const int port = 30000 + static_cast<int>(::getpid() % 20000);
  const std::string listen = "127.0.0.1:" + std::to_string(port);
  const pid_t server = fork();
  if (server == 0) {
    freopen("/dev/null", "w", stdout);
    execl(CORVANE_CLI_PATH, "corvane", "sync-server", "--listen", listen.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  // Ready once it answers.
  for (int i = 0; i < 100; ++i) {
    httplib::Client probe("127.0.0.1", port);
    if (probe.Post("/Tools/SyncTest/post.php", record(0), "application/json")) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::atomic<bool> stop{false};
  std::atomic<long> failures{0};
  std::mutex mutex;
  std::vector<double> latencies;
  std::vector<std::thread> clients;
  const auto start = std::chrono::steady_clock::now();
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      httplib::Client client("127.0.0.1", port);
      client.set_keep_alive(false);  // as the devices do: a connection a poll
      const std::string body = record(c);
      std::vector<double> mine;
      while (!stop) {
        const auto sent = std::chrono::steady_clock::now();
        httplib::Result result = client.Post("/Tools/SyncTest/post.php", body, "application/json");
        if (!result || result->status != 200) {
          if (failures++ == 0) {
            std::fprintf(stderr, "first failure: %s\n",
                         result ? ("status " + std::to_string(result->status)).c_str()
                                : httplib::to_string(result.error()).c_str());
          }
        }
        mine.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - sent).count());
      }
      std::lock_guard<std::mutex> lock(mutex);
      latencies.insert(latencies.end(), mine.begin(), mine.end());
    });
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop = true;
  for (std::thread& t : clients) t.join();
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  kill(server, SIGTERM);
  waitpid(server, nullptr, 0);
  std::sort(latencies.begin(), latencies.end());
  auto percentile = [&](double p) {
    return latencies.empty() ? 0.0
                             : latencies[std::min(latencies.size() - 1, static_cast<size_t>(p * latencies.size()))];
  };
  std::printf("%d clients, %d documents, %.1f s: %zu requests, %.0f requests/s, %ld failed\n", kClients, kDocuments,
              elapsed, latencies.size(), static_cast<double>(latencies.size()) / elapsed, failures.load());
  std::printf("latency ms: median %.2f, 99th percentile %.2f, max %.2f\n", percentile(0.5), percentile(0.99),
              latencies.empty() ? 0.0 : latencies.back());
  return failures.load() == 0 ? 0 : 1;
}
