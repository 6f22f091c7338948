#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace volorn::linux_host {

// What a process has of its own; zeros for the memory of one without any (the kernel's own, one that has
// ended).
struct ProcessStatus {
  std::uint32_t effective_uid = 0;
  std::uint64_t virtual_bytes = 0;
  std::uint64_t resident_bytes = 0;
  std::uint64_t anonymous_bytes = 0;  // resident; Linux has told it since 4.5
  std::uint64_t page_table_bytes = 0;
  std::uint64_t context_switches = 0;  // of the first thread alone
};

// The text of /proc/PID/status, a field a line:
//   Name:	bash
//   Uid:	1000	1000	1000	1000
//   VmSize:	    4488 kB
//   VmRSS:	    2016 kB
//   RssAnon:	     484 kB
//   VmPTE:	      44 kB
//   voluntary_ctxt_switches:	5
//   nonvoluntary_ctxt_switches:	0
// Newlines in the name are escaped there. None where a field that is there cannot be read, or there is no
// Uid.
std::optional<ProcessStatus> parseProcessStatus(std::string_view text);

}  // namespace volorn::linux_host
