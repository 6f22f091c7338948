#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "platform/work_queue.h"

namespace volorn {

// When a job may be started, in seconds since the reference date of Date. One-shot: nothing repeats.
struct JobDescription {
  double window_start_time = 0.0;
  double window_end_time = 0.0;

  friend bool operator==(const JobDescription&, const JobDescription&) = default;
};

// What the agent tells of a job. Only the low 32 bits of the status count, as a signed number.
struct JobEvent {
  bool expired = false;
  std::int64_t job_status = 0;
};

// The job agent, which starts this program when the window of its job opens.
class Waketide {
 public:
  using EventHandler = std::function<void(std::string_view job_name, const JobEvent& event)>;

  virtual ~Waketide() = default;

  // Events reach `handler` on `queue`. The agent keeps the handler until the process ends.
  virtual void WaketideInit(std::string_view client_name, WorkQueue& queue, EventHandler handler) = 0;

  // The newest description under a name takes effect.
  virtual void WaketideAddJob(std::string_view job_name, const JobDescription& description) = 0;

  virtual std::optional<JobDescription> WaketideCopyJob(std::string_view job_name) = 0;
};

}  // namespace volorn
