#include "platform/linux/kernel/task_ports.h"

#include <algorithm>

#include "platform/linux/kernel/ports.h"

namespace volorn::linux_host {

PortName TaskPorts::lend(const Port& port) {
  if (free_ports_.empty()) {
    // So that to hand back takes no memory.
    if (free_ports_.capacity() <= ports_.size()) free_ports_.reserve(2 * ports_.size() + 16);
    ports_.push_back(port);
    return kFirstLentPort + static_cast<PortName>(ports_.size() - 1);
  }
  const PortName name = free_ports_.back();
  free_ports_.pop_back();
  ports_[name - kFirstLentPort] = port;
  return name;
}

TaskPorts::Port* TaskPorts::find(PortName name, Kind kind) {
  if (name < kFirstLentPort || name - kFirstLentPort >= ports_.size()) return nullptr;
  Port& port = ports_[name - kFirstLentPort];
  return port.kind == kind ? &port : nullptr;
}

void TaskPorts::reserve(std::size_t count) {
  const std::size_t all = ports_.size() + count - std::min(count, free_ports_.size());
  free_ports_.reserve(all);
  ports_.reserve(all);
}

PortName TaskPorts::lendTask(std::int32_t pid) {
  return lend({.kind = Kind::task, .pid = pid});
}

void TaskPorts::lendThreads(PortName task, std::size_t count, std::vector<PortName>& ports) {
  const Port* owner = find(task, Kind::task);
  if (!owner || owner->slot == kNoSlot) return;
  const std::uint32_t slot = owner->slot;
  reserve(count);
  ports.reserve(count);
  slots_[slot]->threads.reserve(slots_[slot]->threads.size() + count);
  for (std::uint32_t thread = 0; thread < count; ++thread) {
    const PortName name = lend({.kind = Kind::thread, .thread = thread, .slot = slot});
    slots_[slot]->threads.push_back(name);
    ports.push_back(name);
  }
}

Task* TaskPorts::task(PortName name) {
  Port* port = find(name, Kind::task);
  if (!port) return nullptr;
  if (port->slot == kNoSlot) {
    if (free_slots_.empty()) {
      if (free_slots_.capacity() <= slots_.size()) free_slots_.reserve(2 * slots_.size() + 4);
      slots_.push_back(std::make_unique<Slot>(reader_));
      free_slots_.push_back(static_cast<std::uint32_t>(slots_.size() - 1));
    }
    port->slot = free_slots_.back();
    free_slots_.pop_back();
    slots_[port->slot]->task.begin(port->pid);
  }
  return &slots_[port->slot]->task;
}

std::optional<TaskPorts::Thread> TaskPorts::thread(PortName name) {
  const Port* port = find(name, Kind::thread);
  if (!port) return std::nullopt;
  return Thread{.task = &slots_[port->slot]->task, .index = port->thread};
}

bool TaskPorts::handBack(PortName name) {
  const Port* task = find(name, Kind::task);
  if (!task && !find(name, Kind::thread)) return false;
  if (task && task->slot != kNoSlot) freeSlot(task->slot);
  freePort(name);
  return true;
}

void TaskPorts::freePort(PortName name) {
  ports_[name - kFirstLentPort] = {};
  free_ports_.push_back(name);
}

void TaskPorts::freeSlot(std::uint32_t number) {
  Slot& slot = *slots_[number];
  for (const PortName name : slot.threads) {
    const Port* thread = find(name, Kind::thread);
    if (thread && thread->slot == number) freePort(name);
  }
  slot.threads.clear();
  slot.task.begin(0);  // closes what is open
  free_slots_.push_back(number);
}

}  // namespace volorn::linux_host
