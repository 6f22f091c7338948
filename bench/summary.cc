// What one whole `volornctl summary` costs on this machine with so many more processes, in pairs with two
// other programs: smem, which reads the same regions of each process, and ps with its column of proportional
// sizes, which reads one total of each. Prints medians and ratios.
//
// Usage: summary [PROCESSES [PAIRS]], by default 600 and 9. Root sees everyone's memory.
#include <fcntl.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/idle_processes.h"
#include "bench/measure.h"

namespace {

using namespace volorn::bench;

void compare(int processes, int pairs) {
  const std::filesystem::path here = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const std::vector<std::string> summary = {here.parent_path() / "volornctl", "summary"};
  const std::vector<std::string> smem = {"/usr/bin/smem"};
  const std::vector<std::string> ps = {"/usr/bin/ps", "-eo", "pid,pss,rss,comm"};
  const volorn::linux_host::FileDescriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
  const IdleProcesses idle(processes);
  for (const auto& command : {summary, smem, ps}) measure(command, nowhere.get());
  Costs summary_costs;
  Costs smem_costs;
  Costs ps_costs;
  for (int i = 0; i < pairs; ++i) {
    summary_costs.runs.push_back(measure(summary, nowhere.get()));
    smem_costs.runs.push_back(measure(smem, nowhere.get()));
    ps_costs.runs.push_back(measure(ps, nowhere.get()));
  }
  report("summary", summary_costs);
  report("smem", smem_costs);
  report("ps", ps_costs);
  reportRatio("smem / summary", smem_costs, summary_costs);
  reportRatio("summary / ps", summary_costs, ps_costs);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    compare(argc > 1 ? std::atoi(argv[1]) : 600, argc > 2 ? std::atoi(argv[2]) : 9);
  } catch (const std::exception& error) {
    std::printf("summary: %s\n", error.what());
    return 1;
  }
  return 0;
}
