// What a sample of this machine costs, beside a bare reading of the files involved and beside the libraries
// of ps(1) and of the desktop's system monitor. All read every process, in turn, and what counts is the
// median of the ratios within a turn: what drifts in the machine's speed drops out.
#include "bench/sampler_real.h"

#include <dirent.h>
#include <fcntl.h>
#include <glibtop.h>
#include <glibtop/close.h>
#include <glibtop/proclist.h>
#include <glibtop/procmap.h>
#include <glibtop/procmem.h>
#include <glibtop/procstate.h>
#include <glibtop/proctime.h>
#include <glibtop/procuid.h>
#include <libproc2/pids.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/idle_processes.h"
#include "bench/measure.h"
#include "libtop/libtop.h"
#include "platform/fake/fake_host.h"
#include "platform/linux/devices/linux_device_registry.h"
#include "platform/linux/file_descriptor.h"
#include "platform/linux/linux_kernel.h"

namespace volorn {
namespace {

using linux_host::FileDescriptor;
using linux_host::RegionSource;

struct Cost {
  double cpu_us;
  double system_us;  // of it, by the kernel's clock ticks: to be trusted in large sums alone
  double wall_us;
};

Cost measure(const std::function<void()>& work) {
  rusage before = {};
  rusage after = {};
  const auto begin = std::chrono::steady_clock::now();
  getrusage(RUSAGE_SELF, &before);
  work();
  getrusage(RUSAGE_SELF, &after);
  const std::chrono::duration<double, std::micro> wall = std::chrono::steady_clock::now() - begin;
  const double user_us = 1e3 * (bench::milliseconds(after.ru_utime) - bench::milliseconds(before.ru_utime));
  const double system_us = 1e3 * (bench::milliseconds(after.ru_stime) - bench::milliseconds(before.ru_stime));
  return {.cpu_us = user_us + system_us, .system_us = system_us, .wall_us = wall.count()};
}

// A started sampler of this machine, warm by one sample.
class RealSampler {
 public:
  explicit RealSampler(RegionSource source, bool remembers = false) : kernel_("/proc", source) {
    if (remembers) kernel_.rememberProcesses();
    if (libtop_init(nullptr, nullptr) != 0) throw std::runtime_error("the sampler does not start");
    sample(true);
  }
  ~RealSampler() { libtop_fini(); }
  RealSampler(const RealSampler&) = delete;
  RealSampler& operator=(const RealSampler&) = delete;

  void sample(bool walk_regions) {
    if (libtop_sample(walk_regions, false) != 0) throw std::runtime_error("a sample failed");
  }

 private:
  fake::FakeHost host_;
  linux_host::LinuxKernel kernel_;
  linux_host::SupplyReadings supplies_{"/sys"};
  linux_host::LinuxDeviceRegistry devices_{"/sys", supplies_};
  Services services_ = host_.servicesWith(kernel_, devices_);
  ScopedServices installed_{services_};
};

Cost costOfSample(RegionSource source, bool walk_regions) {
  RealSampler sampler(source);
  return measure([&] { sampler.sample(walk_regions); });
}

// The mean of many, from the third on: by then what did not change is remembered.
Cost costOfRememberingSample() {
  constexpr int kSamples = 48;
  RealSampler sampler(RegionSource::best, true);
  sampler.sample(true);
  const Cost all = measure([&] {
    for (int i = 0; i < kSamples; ++i) sampler.sample(true);
  });
  return {.cpu_us = all.cpu_us / kSamples,
          .system_us = all.system_us / kSamples,
          .wall_us = all.wall_us / kSamples};
}

// How many processes the machine has: those that idle, and others.
double countProcesses() {
  const RealSampler sampler(RegionSource::best);
  double count = 0;
  while (libtop_piterate()) ++count;
  return count;
}

// Opens, reads and closes these files of every process, and does nothing with them.
void readBare(std::initializer_list<const char*> files) {
  const std::unique_ptr<DIR, int (*)(DIR*)> list(opendir("/proc"), closedir);
  static char buffer[65536];
  while (const dirent* entry = readdir(list.get())) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    for (const char* file : files) {
      const std::string path = std::string(entry->d_name) + '/' + file;
      const FileDescriptor opened(openat(dirfd(list.get()), path.c_str(), O_RDONLY | O_CLOEXEC));
      while (opened && read(opened.get(), buffer, sizeof buffer) > 0) continue;
    }
  }
}

void readProcps() {
  static pids_item items[] = {PIDS_ID_PID,     PIDS_ID_PPID,     PIDS_ID_PGRP, PIDS_ID_EUID,
                              PIDS_CMD,        PIDS_STATE,       PIDS_NLWP,    PIDS_TICS_ALL,
                              PIDS_TICS_BEGAN, PIDS_FLT_MIN,     PIDS_FLT_MAJ, PIDS_VM_SIZE,
                              PIDS_VM_RSS,     PIDS_VM_RSS_ANON, PIDS_FLAGS,   PIDS_PROCESSOR};
  pids_info* info = nullptr;
  if (procps_pids_new(&info, items, static_cast<int>(std::size(items))) < 0 ||
      !procps_pids_reap(info, PIDS_FETCH_THREADS_TOO)) {
    throw std::runtime_error("libproc2 fails");
  }
  procps_pids_unref(&info);
}

void readGlibtop(bool with_maps) {
  glibtop_proclist list = {};
  pid_t* const pids = glibtop_get_proclist(&list, GLIBTOP_KERN_PROC_ALL, 0);
  for (guint64 i = 0; i < list.number; ++i) {
    glibtop_proc_state state;
    glibtop_proc_uid uid;
    glibtop_proc_mem memory;
    glibtop_proc_time time;
    glibtop_get_proc_state(&state, pids[i]);
    glibtop_get_proc_uid(&uid, pids[i]);
    glibtop_get_proc_mem(&memory, pids[i]);
    glibtop_get_proc_time(&time, pids[i]);
    if (!with_maps) continue;
    glibtop_proc_map map;
    g_free(glibtop_get_proc_map(&map, pids[i]));
  }
  g_free(pids);
}

struct Contender {
  const char* name;
  std::function<Cost()> run;
  std::vector<Cost> costs = {};

  double medianOf(double Cost::*figure) const {
    std::vector<double> values;
    for (const Cost& cost : costs) values.push_back(cost.*figure);
    return bench::median(values);
  }
  double sumOf(double Cost::*figure) const {
    double sum = 0;
    for (const Cost& cost : costs) sum += cost.*figure;
    return sum;
  }
};

// A ratio of two contenders, by their places, and what it is to be at most.
struct Reach {
  std::size_t of;
  std::size_t to;
  double at_most;
};

void report(const std::vector<Contender>& contenders, double processes) {
  std::printf("%-26s %11s %12s %10s\n", "per process", "cpu", "wall", "in kernel");
  for (const Contender& contender : contenders) {
    std::printf("%-26s %8.1f us %9.1f us %8.0f %%\n", contender.name,
                contender.medianOf(&Cost::cpu_us) / processes, contender.medianOf(&Cost::wall_us) / processes,
                100 * contender.sumOf(&Cost::system_us) / contender.sumOf(&Cost::cpu_us));
  }
}

void report(const std::vector<Contender>& contenders, const Reach& reach) {
  const Contender& of = contenders[reach.of];
  const Contender& to = contenders[reach.to];
  std::vector<double> ratios;
  for (std::size_t i = 0; i < of.costs.size(); ++i) ratios.push_back(of.costs[i].cpu_us / to.costs[i].cpu_us);
  const double ratio = bench::median(ratios);
  std::printf("%-26s / %-20s %5.2f  (at most %.2f%s)\n", of.name, to.name, ratio, reach.at_most,
              ratio <= reach.at_most ? "" : ": MISSED");
}

// Ticks tell the kernel's share, so that a small sum would say little.
void reportKernelShare(double at_least) {
  constexpr double kEnoughUs = 3e6;
  RealSampler sampler(RegionSource::best);
  Cost sum = {};
  while (sum.cpu_us < kEnoughUs) {
    const Cost cost = measure([&] { sampler.sample(false); });
    sum.cpu_us += cost.cpu_us;
    sum.system_us += cost.system_us;
  }
  const double share = sum.system_us / sum.cpu_us;
  std::printf("sample, for %.0f s, in kernel %23.0f %%  (at least %.0f %%%s)\n", kEnoughUs / 1e6, 100 * share,
              100 * at_least, share >= at_least ? "" : ": MISSED");
}

}  // namespace

int measureRealSamples(int processes, int rounds) try {
  const bench::IdleProcesses idle(processes);
  std::vector<Contender> contenders = {
      {"sample", [] { return costOfSample(RegionSource::best, false); }},
      {"bare stat, status, sched", [] { return measure([] {
                                          readBare({"stat", "status", "sched"});
                                        }); }},
      {"libproc2 with threads", [] { return measure(readProcps); }},
      {"libgtop", [] { return measure([] { readGlibtop(false); }); }},
      {"sample with regions", [] { return costOfSample(RegionSource::best, true); }},
      {"the same from text", [] { return costOfSample(RegionSource::smaps, true); }},
      {"bare smaps", [] { return measure([] { readBare({"smaps"}); }); }},
      {"libgtop with maps", [] { return measure([] { readGlibtop(true); }); }},
      {"remembering, regions too", costOfRememberingSample},
      {"bare schedstat", [] { return measure([] { readBare({"schedstat"}); }); }},
      {"bare stat", [] { return measure([] { readBare({"stat"}); }); }},
  };
  for (int i = 0; i < rounds; ++i) {
    for (Contender& contender : contenders) contender.costs.push_back(contender.run());
  }
  report(contenders, countProcesses());
  reportKernelShare(0.8);
  for (const Reach& reach : {Reach{0, 2, 2.0}, Reach{4, 6, 0.6}, Reach{5, 6, 1.15}, Reach{4, 7, 1.0},
                             Reach{5, 7, 1.0}, Reach{8, 9, 2.0}}) {
    report(contenders, reach);
  }
  glibtop_close();
  return 0;
} catch (const std::exception& error) {
  std::printf("sampler: %s\n", error.what());
  return 1;
}

}  // namespace volorn
