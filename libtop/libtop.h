#pragma once

#include <cstdint>

#include "libtop/process_info.h"
#include "libtop/system_sample.h"
#include "platform/kernel.h"

// Samples the machine and its processes through the installed platform: libtop_init, then libtop_sample any
// number of times, each followed by reads of libtop_tsamp and walks with libtop_piterate, then libtop_fini.
// There is one sampler in a process and it takes no locks: one thread at a time, and no walk while a sample
// is taken. A broken assertion is told on standard error and aborts.
namespace volorn {

// Formats as printf does. The result is ignored.
using PrintFunction = int (*)(void* print_arg, const char* format, ...);

// Starts the sampler, afresh when it is started already. All its messages go to `print_fn`; none when that is
// null. Returns 0, or -1 when a system value, the processor ticks, the device registry or the memory for
// process arguments cannot be had; then no sample may be taken.
int libtop_init(PrintFunction print_fn, void* print_arg);

// Forgets all processes.
void libtop_fini();

// Takes a sample. `walk_regions`: walk the memory regions of every process, which costs most, not just of new
// ones. `shlib_totals`: also sum up the shared libraries. Returns 0 or -1; what a failed sample came to
// before it failed stays. Throws nothing: memory that runs out loses what it was for, that of a record fails
// the sample, and that of the interface list ends the process with exit status 1.
int libtop_sample(bool walk_regions, bool shlib_totals);

// The latest sample. Changed by the next libtop_sample.
const SystemSample* libtop_tsamp();

// The next process of the latest sample by ascending pid; null at the end, after which it begins again. Drops
// processes that the sample did not see. Asserts that there was a sample. The record is valid until the next
// libtop_sample.
const ProcessInfo* libtop_piterate();

// -- The parts of a sample.

enum ProcessUpdate : int { kProcessUpdated = 0, kProcessSkipped = 1, kProcessOutOfMemory = 2 };

// Reads the process of a task into its record, which is made when there is none.
int libtop_process_update(PortName task, bool walk_regions);

// Reads the kernel's record of a process. Returns 0, or -1 after a message.
int kinfo_for_pid(KinfoProc& record, std::int32_t pid);

// -1, 0 or 1 as the pid of `a` is below, equal to or above that of `b`, both signed. Asserts that neither is
// null.
int libtop_p_pinfo_pid_comp(const ProcessInfo* a, const ProcessInfo* b);

// A counter that has seen `raw`. Its total is `total`, or `raw` when that is 0.
Counter64 libtop_i64_init(std::uint64_t total, std::uint32_t raw);

// Adds the way from the last raw value to this one, by less than 2^31 up or down.
void libtop_i64_update(Counter64& counter, std::uint32_t raw);

}  // namespace volorn
