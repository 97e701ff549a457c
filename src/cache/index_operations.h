// The two operations of the cache's background filling, run on its index queue at the lowest
// priority: one per concrete entity, which queues one more per UID of the entity, which loads
// that object through the store unless the cache already holds it.
#pragma once

#include <string>

#include "corvane/foundation/operation_queue.h"

namespace corvane {

class CorvaneCache;
class EntityDescription;

// The cache waits for its index queue before it goes, so the raw pointers stay valid while an
// operation runs.
class CorvaneIndexOperation : public Operation {
 public:
  CorvaneIndexOperation(const EntityDescription* entity, CorvaneCache* cache, OperationQueue* queue)
      : entity_(entity), cache_(cache), queue_(queue) {}
  void main() override;

 private:
  const EntityDescription* entity_;
  CorvaneCache* cache_;
  OperationQueue* queue_;
};

class CorvaneIndexLoadOperation : public Operation {
 public:
  CorvaneIndexLoadOperation(const EntityDescription* entity, std::string uid, CorvaneCache* cache)
      : entity_(entity), uid_(std::move(uid)), cache_(cache) {}
  void main() override;

 private:
  const EntityDescription* entity_;
  std::string uid_;
  CorvaneCache* cache_;
};

}  // namespace corvane
