#pragma once

#include "platform/work_queue.h"

namespace volorn::linux_host {

// A queue is a name for who asked: no thread and no event loop serves one.
class LinuxWorkQueues : public WorkQueues {
 public:
  std::shared_ptr<WorkQueue> createSerialQueue(std::string_view /*label*/) override {
    return std::make_shared<WorkQueue>();
  }
  WorkQueue& mainQueue() override { return main_queue_; }

 private:
  WorkQueue main_queue_;
};

}  // namespace volorn::linux_host
