#include "corvane/store/store_environment.h"
#include "store/store_state.h"

#include <mutex>

namespace corvane {

StoreVolumeQueries::~StoreVolumeQueries() = default;

bool StoreVolumeQueries::isOnDisk(Env* env, const std::string& path) { return env->fileExists(path); }

std::optional<std::string> StoreVolumeQueries::serviceType(Env* /*env*/, const std::string& /*path*/) {
  return std::nullopt;
}

bool StoreVolumeQueries::isLocalURL(Env* env, const std::string& path) {
  // Only a volume known to be remote refuses; an unknown one counts as local.
  std::optional<VolumeInfo> volume = env->volumeForPath(path);
  return !volume || volume->isLocal;
}

Value StoreVolumeQueries::volumeInformation(Env* /*env*/, const std::string& /*path*/) { return Value(); }

namespace {

struct DefaultQueries {
  std::mutex mutex;
  std::shared_ptr<StoreVolumeQueries> queries = std::make_shared<StoreVolumeQueries>();
};

DefaultQueries& defaults() {
  static auto* d = new DefaultQueries;  // never destroyed: stores may ask until exit
  return *d;
}

}  // namespace

void setDefaultStoreVolumeQueries(std::shared_ptr<StoreVolumeQueries> queries) {
  DefaultQueries& d = defaults();
  std::lock_guard<std::mutex> lock(d.mutex);
  d.queries = queries ? std::move(queries) : std::make_shared<StoreVolumeQueries>();
}

std::shared_ptr<StoreVolumeQueries> defaultStoreVolumeQueries() {
  DefaultQueries& d = defaults();
  std::lock_guard<std::mutex> lock(d.mutex);
  return d.queries;
}

std::shared_ptr<Interaction> StoreEnvironment::interactionOrDefault() const {
  return interaction ? interaction : defaultInteraction();
}

ApplicationInfo StoreEnvironment::applicationOrCurrent() const {
  return application ? *application : ApplicationInfo::current();
}

StoreEnvironment* StoreEnvironment::fromOptions(const Value& options) {
  if (!options.isDictionary()) return nullptr;
  return dynamic_cast<StoreEnvironment*>(options["CorvaneStoreEnvironment"].objectPointer());
}

}  // namespace corvane
