#pragma once

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

// What a whole process costs, beside others that are measured in turn with it.
namespace volorn::bench {

struct Cost {
  double cpu_ms;
  double wall_ms;
};

inline double milliseconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

// For execv; valid as long as the command.
inline std::vector<char*> argumentsOf(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  return arguments;
}

// Runs a command, its first word a path, its output going to `output_fd`. Throws unless it ends with 0.
inline Cost measure(const std::vector<std::string>& command, int output_fd = STDOUT_FILENO) {
  const std::vector<char*> arguments = argumentsOf(command);
  const auto begin = std::chrono::steady_clock::now();
  const pid_t child = vfork();
  if (child == 0) {
    if (output_fd != STDOUT_FILENO) dup2(output_fd, STDOUT_FILENO);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  int status = 0;
  rusage usage = {};
  wait4(child, &status, 0, &usage);
  const std::chrono::duration<double, std::milli> wall = std::chrono::steady_clock::now() - begin;
  if (status != 0) throw std::runtime_error(command[0] + " failed");
  return {.cpu_ms = milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime), .wall_ms = wall.count()};
}

inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

struct Costs {
  std::vector<Cost> runs;

  double medianOf(double Cost::*figure) const {
    std::vector<double> values;
    for (const Cost& run : runs) values.push_back(run.*figure);
    return median(values);
  }
};

// The median of the ratios of each pair: what drifts in the machine's speed drops out.
inline double medianRatio(const Costs& a, const Costs& b, double Cost::*figure) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < a.runs.size(); ++i) ratios.push_back(a.runs[i].*figure / b.runs[i].*figure);
  return median(ratios);
}

inline void report(const char* name, const Costs& costs) {
  std::printf("%-16s cpu %8.2f ms   wall %8.2f ms\n", name, costs.medianOf(&Cost::cpu_ms),
              costs.medianOf(&Cost::wall_ms));
}

inline void reportRatio(const std::string& name, const Costs& a, const Costs& b) {
  std::printf("%-22s cpu %.2f   wall %.2f\n", name.c_str(), medianRatio(a, b, &Cost::cpu_ms),
              medianRatio(a, b, &Cost::wall_ms));
}

}  // namespace volorn::bench
