#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/kernel.h"
#include "platform/linux/kernel/task.h"

namespace volorn::linux_host {

// The ports of tasks and threads that are lent, and the tasks behind them. The ports of a task's threads end
// with the task's own.
class TaskPorts {
 public:
  struct Thread {
    Task* task;
    std::size_t index;  // of Task::threads()
  };

  explicit TaskPorts(TaskReader& reader) : reader_(reader) {}

  // Takes the memory for so many ports more, so that to lend them takes none.
  void reserve(std::size_t count);

  // Lends a port of the process's task. The process is not looked at yet.
  PortName lendTask(std::int32_t pid);

  // Appends a port for each of the task's threads, so many.
  void lendThreads(PortName task, std::size_t count, std::vector<PortName>& ports);

  // Null, or none, when no such port is lent. A task stays where it is while its port is lent.
  Task* task(PortName port);
  std::optional<Thread> thread(PortName port);

  // False when no such port is lent.
  bool handBack(PortName port);

 private:
  static constexpr std::uint32_t kNoSlot = UINT32_MAX;

  struct Slot {
    explicit Slot(TaskReader& reader) : task(reader) {}
    Task task;
    std::vector<PortName> threads;  // lent once, perhaps handed back since
  };

  enum class Kind : std::uint8_t { none, task, thread };
  struct Port {
    Kind kind = Kind::none;
    std::int32_t pid = 0;          // of a task
    std::uint32_t thread = 0;      // of a thread
    std::uint32_t slot = kNoSlot;  // of a task: from its first use on
  };

  PortName lend(const Port& port);
  Port* find(PortName name, Kind kind);
  void freePort(PortName name);
  void freeSlot(std::uint32_t number);

  TaskReader& reader_;
  std::vector<Port> ports_;  // port n is entry n - kFirstLentPort
  std::vector<PortName> free_ports_;
  std::vector<std::unique_ptr<Slot>> slots_;
  std::vector<std::uint32_t> free_slots_;
};

}  // namespace volorn::linux_host
