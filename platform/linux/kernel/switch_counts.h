#pragma once

#include <cstdint>
#include <vector>

namespace volorn::linux_host {

// The context switches of a process over its life, told by counts that threads take with them when they end.
class SwitchCounts {
 public:
  // Who a thread is: its number is used again.
  struct Thread {
    std::int32_t id;
    std::uint32_t start_ticks;  // the low 32 bits
    std::uint64_t switches;     // of its life

    bool isSame(const Thread& other) const { return id == other.id && start_ticks == other.start_ticks; }
  };

  // The sum over the live threads, and over those ended since they were handed in before, as they were then:
  // it does not fall. Leaves the live threads here and earlier ones in `live`. For a process that has had one
  // thread only, which is the one that outlives all, nothing is kept. `start_code`, of its executable, moves
  // when it executes another; that may be kept from the reader, who then counts switches of that thread
  // twice.
  std::uint64_t totalWith(std::vector<Thread>& live, std::uint64_t start_code);

 private:
  void findExecutor(const Thread& only);

  std::uint64_t start_code_ = 0;
  std::vector<Thread> seen_;  // by id
  std::uint64_t ended_ = 0;   // switches
};

}  // namespace volorn::linux_host
