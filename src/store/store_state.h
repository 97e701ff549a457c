// What one CorvaneStore holds, grouped by the job it serves. Each group with a lock of its own
// guards only its own fields, and no group's lock is held while another's is taken, so there
// is no lock order between them. The one lock held across other work is the liveness lock
// (see Liveness), and nothing that runs under it waits for a store thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "corvane/cache/cache.h"
#include "corvane/foundation/date_format.h"
#include "corvane/foundation/file_event_stream.h"
#include "corvane/foundation/mutex.h"
#include "corvane/foundation/observable.h"
#include "corvane/foundation/operation_queue.h"
#include "corvane/foundation/run_loop.h"
#include "corvane/foundation/serial_queue.h"
#include "corvane/security/sea_crypto.h"
#include "corvane/store/corvane_store.h"
#include "corvane/store/store_environment.h"
#include "foundation/observer_list.h"

namespace corvane {

// Lets work queued for the main run loop find out whether its store still exists. The lock is
// held while such work runs, so the destructor waits for a running piece instead of pulling
// the store from under it.
struct CorvaneStore::Liveness {
  RecursiveMutex mutex;  // a guarded piece may post and run another one in place
  bool alive CORVANE_GUARDED_BY(mutex) = true;
};

// Told when the store's log changes (observeLog()).
struct CorvaneStore::LogObservers : ObserverList<> {};

struct CorvaneStore::State {
  // ---- Fixed at opening ----------------------------------------------------------------------
  Value storeOptions;  // the options without "CorvaneUpToChange"
  Value environmentValue;
  StoreEnvironment* environment = nullptr;
  Env* env = nullptr;
  RunLoop* mainLoop = nullptr;
  std::shared_ptr<StoreVolumeQueries> volumes;
  std::shared_ptr<Liveness> liveness = std::make_shared<Liveness>();
  std::optional<std::string> password;
  std::optional<std::string> cacheRootURL;
  Value upToChange;
  std::string session, userName, fullUserName, machineName, osVersion;
  DateFormatter dateFormatter{kChangeNameDatePattern, DateTimeZone::gmt()};
  std::shared_ptr<CorvaneCache> cache;

  // ---- The package: its paths, Info.plist, cipher and entity folder names --------------------
  struct Package {
    mutable Mutex mutex;
    Value userInfo CORVANE_GUARDED_BY(mutex);
    mutable Value info CORVANE_GUARDED_BY(mutex);  // nil until read
    std::string entitiesURL CORVANE_GUARDED_BY(mutex),
        changesURL CORVANE_GUARDED_BY(mutex), cacheURL CORVANE_GUARDED_BY(mutex), errorsURL CORVANE_GUARDED_BY(mutex);
    mutable Mutex cryptoMutex;
    // Made from Info.plist on first use.
    std::shared_ptr<const SeaCrypto> crypto CORVANE_GUARDED_BY(cryptoMutex);
    // Set once at opening, read-only afterwards.
    std::unordered_map<std::string, std::string> entityKeys, reverseEntityKeys;
    std::vector<const EntityDescription*> entityList;
  } package;

  // ---- Metadata: one caller computes it, the others wait for it -------------------------------
  struct Metadata {
    mutable Mutex mutex;
    mutable Value cached CORVANE_GUARDED_BY(mutex);
    mutable bool fetching CORVANE_GUARDED_BY(mutex) = false;
    mutable std::thread::id fetcher CORVANE_GUARDED_BY(mutex);
    mutable uint64_t generation CORVANE_GUARDED_BY(mutex) = 0;  // counts setMetadata() calls
    mutable std::condition_variable fetched;
  } metadata;

  // ---- Contexts and object IDs ----------------------------------------------------------------
  struct Contexts {
    mutable Mutex mutex;
    std::vector<std::weak_ptr<ManagedObjectContext>> list CORVANE_GUARDED_BY(mutex);
  } contexts;
  struct ObjectIDs {
    Mutex mutex;
    std::unordered_map<const ManagedObject*, std::string> chosenUIDs CORVANE_GUARDED_BY(mutex);
    std::unordered_map<std::string, ObjectID> byReference CORVANE_GUARDED_BY(mutex);
  } objectIDs;

  // ---- The change writer: the save path -------------------------------------------------------
  struct Writer {
    std::unique_ptr<OperationQueue> queue;
    std::atomic<bool> blockSaves{false};
    std::atomic<int64_t> operationsCount{0};
    std::atomic<int64_t> operationsValue{0};
    Mutex nameDateMutex;
    // Of the last change name, since 2001, and the clock's time when it was named.
    int64_t lastNameMillisecond CORVANE_GUARDED_BY(nameDateMutex) = INT64_MIN;
    int64_t lastClockMillisecond CORVANE_GUARDED_BY(nameDateMutex) = INT64_MIN;
    Mutex progressMutex;
    Value progressInfo CORVANE_GUARDED_BY(progressMutex);
  } writer;

  // ---- The update pass ----------------------------------------------------------------------
  struct Updates {
    explicit Updates(RunLoop* mainLoop) : readQueue(std::string(kFrameworkBundleIdentifier) + ".ReadQueue", mainLoop) {}
    SerialQueue readQueue;
    double retryDelay = 10.0;
    double debounceDelay = 5.0;
    std::atomic<bool> closed{false};
    std::atomic<bool> recover{false};
    std::atomic<bool> updating{false};
    std::atomic<bool> hasRemoteFiles{false};
    std::atomic<size_t> changesFileCount{0};
    std::atomic<size_t> finishedPasses{0};
    Mutex tokensMutex;
    RunLoop::Token updateToken CORVANE_GUARDED_BY(tokensMutex), processToken CORVANE_GUARDED_BY(tokensMutex);
  } updates;

  // ---- The log and diagnostics --------------------------------------------------------------
  struct Log {
    explicit Log(RunLoop* mainLoop) : errorLevel(std::string(kCorvaneLogTypeSuccess), mainLoop) {}
    Observable<std::string> errorLevel;
    mutable Mutex mutex;
    std::deque<StoreLogEntry> entries CORVANE_GUARDED_BY(mutex);  // newest first
    Value errorRecords CORVANE_GUARDED_BY(mutex) = Value::mutableArray();
    Value loadingIssues CORVANE_GUARDED_BY(mutex) = Value::mutableArray();
    std::shared_ptr<LogObservers> observers = std::make_shared<LogObservers>();
    RunLoop::Token refreshToken CORVANE_GUARDED_BY(mutex);
  } log;

  // ---- The folder watch ---------------------------------------------------------------------
  struct Watch {
    mutable Mutex mutex;
    bool observing CORVANE_GUARDED_BY(mutex) = false;
    // Made and destroyed on the main run loop.
    std::unique_ptr<FileEventStream> eventStream CORVANE_GUARDED_BY(mutex);
  } watch;

  // ---- Content checksums --------------------------------------------------------------------
  struct Checksums {
    Mutex mutex;
    std::string lastCheckSum CORVANE_GUARDED_BY(mutex);  // the checkSum() at which content was completed
    Value content CORVANE_GUARDED_BY(mutex);             // nil until one completed
  } checksums;

  State(RunLoop* loop) : updates(loop), log(loop) {}
};

// One change file as a pass read it: what to do with it, the change itself (an empty one for a
// damaged file read while recovering) and what validation made of it.
struct CorvaneStore::ChangeRead {
  ChangeReading outcome = ChangeReading::Apply;
  Value change;
  Value combined;
  Value parsedObjects;
  ChangeRead& as(ChangeReading reading) {
    outcome = reading;
    return *this;
  }
};

}  // namespace corvane
