#pragma once

#include <string>
#include <vector>

#include "platform/fake/fake_host.h"
#include "platform/linux/state/state_services.h"

namespace volorn::linux_host {

// The state bindings of one run of the daemon on the folder, `now` in seconds since the reference date.
struct DaemonState {
  explicit DaemonState(const std::string& folder, double now = 1000.0, OnDamage on_damage = OnDamage::kThrow)
      : directory(folder), state_file(directory, host.clock, host.system_log, on_damage) {
    host.clock.seconds_since_1970 = now + kReferenceDateSecondsSince1970;
  }

  const std::vector<std::string>& log() const { return host.system_log.lines; }

  fake::FakeHost host;
  StateDirectory directory;
  StateFile state_file;
  LinuxPreferencesStore preferences{state_file};
  StandIns stand_ins;
  LinuxMetricStore metrics{state_file, host.clock, stand_ins};
  LinuxWaketide waketide{state_file};
};

}  // namespace volorn::linux_host
