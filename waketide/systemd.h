#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <string>

namespace volorn::waketide {

struct SystemdLibrary;

// The service manager of this machine, over the system bus. Everything throws std::runtime_error.
class Systemd {
 public:
  Systemd();
  ~Systemd();
  Systemd(const Systemd&) = delete;
  Systemd& operator=(const Systemd&) = delete;

  // The newest run of volorn.service since boot.
  struct Run {
    std::uint64_t started_us = 0;  // since 1970, by the clock of then; 0 when none is known
    std::uint64_t ended_us = 0;    // likewise; 0 while it runs

    friend bool operator==(const Run&, const Run&) = default;
  };
  Run lastRun();

  // Returns when the stop is asked for; the timer goes some time after. No timer is no failure.
  void stopTimer();

  // Makes the transient volorn.timer, which elapses once, at `calendar` as OnCalendar= takes it. False while
  // there is another one.
  bool startTimer(const std::string& calendar);

  // When volorn.timer elapses next, in microseconds since 1970; 0 or the greatest value for never.
  std::uint64_t timerElapse();

 private:
  std::uint64_t timestamp(const char* path, const char* interface, const char* property);

  std::unique_ptr<SystemdLibrary> library_;
  sd_bus* bus_ = nullptr;
};

}  // namespace volorn::waketide
