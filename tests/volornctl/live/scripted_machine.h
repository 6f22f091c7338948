#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "libtop/libtop.h"
#include "platform/fake/fake_host.h"
#include "volornctl/live/live_sampler.h"
#include "volornctl/live/lookups.h"
#include "volornctl/live/readings.h"

namespace volorn::ctl {

// A machine of a few processes with every kind of name, and as many alike as are asked for, whose next second
// begins with each sample.
class ScriptedSampler : public Sampler {
 public:
  explicit ScriptedSampler(std::size_t more_processes) {
    host_.kernel.memory_bytes = std::uint64_t{8} << 30;
    host_.kernel.load_averages = {0.5, 1.25, 10};
    host_.kernel.vm = {};
    host_.kernel.vm.free_count = 1 << 20;
    host_.kernel.vm.wire_count = 1 << 17;
    host_.kernel.vm_count = VmStatistics64::kCount;
    host_.clock.seconds_since_1970 = kStart;
    add(1, 0, 0, "init", RunState::waiting);
    add(2, 0, 0, "kthreadd", RunState::waiting).basic.virtual_size = 0;
    add(3, 2, 0, "kworker/0:1", RunState::waiting).basic.virtual_size = 0;
    add(40, 1, 1000, "busy", RunState::running);
    add(41, 40, 1000, "worker", RunState::uninterruptible);
    add(4194303, 41, 1001, "\xE6\xBC\xA2\xE5\xAD\x97", RunState::waiting);  // two wide characters
    add(43, 41, 1001, "e\xCC\x81te\xCC\x81", RunState::stopped);            // combining ones
    add(44, 1, 4294967294, "a\n\x1b[2J\xFF", RunState::halted);
    for (std::size_t i = 0; i < more_processes; ++i) {
      add(static_cast<std::int32_t>(1000 + i), 1, 1000, "alike", RunState::waiting);
    }
    libtop_init(nullptr, nullptr);
  }

  ~ScriptedSampler() override { libtop_fini(); }

  Sample take() override {
    ++host_.uptime.seconds;
    ++host_.clock.seconds_since_1970;
    host_.kernel.ticks.user += 60;
    host_.kernel.ticks.system += 35;
    host_.kernel.ticks.idle += 5;
    for (auto& [pid, task] : host_.kernel.tasks) {
      if (pid == 40) task.basic.user_time.seconds += 1;
      task.events.counters[kTaskEventFaults] += pid % 7;
    }
    host_.thermal.level = 3;
    KernelNotes notes;
    MachineReading reading = takeReading(notes);
    reading.available_bytes = std::uint64_t{6} << 30;
    Sample sample = sampleOf(reading, before_ ? &*before_ : nullptr);
    before_ = std::move(reading);
    host_.calls.clear();
    return sample;
  }

 private:
  static constexpr double kStart = 1795406706.0;  // 2026-11-23 04:05:06 UTC

  fake::FakeTask& add(std::int32_t pid, std::int32_t parent, std::uint32_t uid, const std::string& name,
                      RunState state) {
    fake::FakeTask& task = host_.kernel.addTask(pid, name);
    task.threads[0].run_state = state;
    task.process.ppid = static_cast<std::uint32_t>(parent);
    task.process.uid = uid;
    task.process.started.seconds = static_cast<std::int64_t>(kStart) - 100 * (pid % 1000);
    task.basic.virtual_size = std::uint64_t{123} << 20;
    task.basic.resident_size = static_cast<std::uint64_t>(pid % 1000) << 16;
    task.vm.internal_bytes = 4096;
    task.port_count = 7;
    task.regions = {{.address = 4096,
                     .size = 8192,
                     .top = {.object_id = 0,
                             .ref_count = 1,
                             .private_pages_resident = 2,
                             .shared_pages_resident = 0,
                             .share_mode = ShareMode::private_pages}}};
    return task;
  }

  fake::FakeHost host_;
  const Services services_ = host_.services();
  const ScopedServices scoped_{services_};
  std::optional<MachineReading> before_;
};

class ScriptedLookups : public Lookups {
 public:
  Found lookUp(const Wanted& wanted) override {
    Found found;
    for (const std::uint32_t uid : wanted.users)
      found.users[uid] = uid == 0 ? "root" : "user" + std::to_string(uid);
    for (const ProcessId& id : wanted.command_lines) {
      found.command_lines[id] = id.pid == 40 ? "/usr/bin/busy --without end" : "";
    }
    if (wanted.opened) {
      found.opened = OpenedProcess{
          .id = *wanted.opened,
          .threads = {{.id = 45, .state = 'D', .cpu_seconds = 1.5, .name = "its thread"}},
          .regions = {{{.kind = "anonymous", .regions = 2, .virtual_bytes = 8192, .resident_bytes = 4096}}}};
    }
    return found;
  }
};

}  // namespace volorn::ctl
