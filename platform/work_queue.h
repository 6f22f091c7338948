#pragma once

#include <memory>
#include <string_view>

namespace volorn {

// A queue on which work is run one piece after the other. This system names queues and puts nothing on them.
class WorkQueue {
 public:
  WorkQueue() = default;
  virtual ~WorkQueue() = default;
  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;
};

class WorkQueues {
 public:
  virtual ~WorkQueues() = default;

  virtual std::shared_ptr<WorkQueue> createSerialQueue(std::string_view label) = 0;

  // The queue of the process's main thread. It is served only by a process that runs an event loop.
  virtual WorkQueue& mainQueue() = 0;
};

}  // namespace volorn
