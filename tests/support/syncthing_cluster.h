// Real Syncthing instances for end-to-end tests: each device's copy of a shared folder is kept
// in step by a Syncthing process of its own, and the processes reach one another only on
// 127.0.0.1.
//
// The cluster generates each instance's keys and writes its whole configuration: listening on a
// free loopback port, the other instances' loopback addresses, discovery, relays, NAT traversal,
// usage reporting and upgrades off, the file watcher on with a one-second delay, and a REST API
// key of its own. It knows when the devices are in sync from the REST API (every folder idle,
// nothing needed, every device complete for every other, the same global state everywhere).
// Processes are started and stopped by their ids; the destructor stops them all.
//
// Threads: one thread drives a cluster.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "corvane/foundation/value.h"

namespace corvane::testing {

class SyncthingCluster {
 public:
  // `work`: a folder for the instances' homes and logs. `folders`: each device's copy of the
  // shared folder (made when missing).
  SyncthingCluster(std::string work, std::vector<std::string> folders);
  ~SyncthingCluster();
  SyncthingCluster(const SyncthingCluster&) = delete;
  SyncthingCluster& operator=(const SyncthingCluster&) = delete;

  // Whether the syncthing binary is on the PATH.
  static bool installed();

  // Generates and configures every instance, starts them and waits until their REST APIs answer
  // and they are connected to one another. False with the reason otherwise.
  bool start(std::string* error);
  // Stops one instance (a device going offline) and starts it again.
  void stop(size_t device);
  bool restart(size_t device, std::string* error);
  bool isRunning(size_t device) const { return instances_[device].pid > 0; }

  // Asks every running instance to scan its folder now, then waits until they all agree: idle,
  // nothing needed, each complete for the others, the same global state, twice in a row.
  bool waitUntilInSync(double timeoutSeconds, std::string* error);

  // The instance's log, for a failing test to print.
  std::string log(size_t device) const;

 private:
  struct Instance {
    std::string home;
    std::string folder;
    std::string deviceID;
    std::string apiKey;
    int guiPort = 0;
    int listenPort = 0;
    pid_t pid = -1;
  };

  bool launch(size_t device, std::string* error);
  bool waitUntilConnected(size_t device, double timeoutSeconds, std::string* error);
  // A REST call; the parsed JSON answer, or nullopt on any failure.
  std::optional<Value> rest(size_t device, const std::string& method, const std::string& path) const;
  std::string configuration(size_t device) const;

  std::string work_;
  std::vector<Instance> instances_;
};

}  // namespace corvane::testing
