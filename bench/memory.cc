// What the memory report costs for 1,000 processes, in pairs with a floor: a bare loop that reads statm, comm
// and the link to the executable of each, and does not have to look for them. Prints medians and their ratio.
//
// Usage: memory [PAIRS]
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/linux/read_only_host.h"
#include "snapshot/voLornMemory.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kProcesses = 1000;

std::vector<std::string> listProcesses() {
  std::vector<std::string> folders;
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") == name.npos) folders.push_back(entry.path());
  }
  return folders;
}

// Makes up what the machine lacks to the number of processes, for as long as it lives.
class Company {
 public:
  Company() {
    const std::size_t others = listProcesses().size();
    for (std::size_t i = others; i < kProcesses; ++i) {
      const pid_t child = fork();
      if (child == 0) run();
      if (child > 0) children_.push_back(child);
    }
    // They are waited for, so that the time of their start does not fall into what is measured.
    for (const pid_t child : children_) {
      siginfo_t event = {};
      waitid(P_PID, static_cast<id_t>(child), &event, WSTOPPED);
    }
  }
  ~Company() {
    for (const pid_t child : children_) kill(child, SIGKILL);
    for (const pid_t child : children_) waitpid(child, nullptr, 0);
  }
  Company(const Company&) = delete;
  Company& operator=(const Company&) = delete;

 private:
  [[noreturn]] static void run() {
    raise(SIGSTOP);
    _exit(0);
  }

  std::vector<pid_t> children_;
};

std::size_t readFile(const std::string& path) {
  std::array<char, 4096> bytes;
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return 0;
  const ssize_t count = read(file, bytes.data(), bytes.size());
  close(file);
  return static_cast<std::size_t>(std::max<ssize_t>(count, 0));
}

std::size_t readBarely(const std::vector<std::string>& folders) {
  std::size_t bytes = 0;
  std::array<char, PATH_MAX> path;
  for (const std::string& folder : folders) {
    bytes += readFile(folder + "/statm");
    bytes += readFile(folder + "/comm");
    const ssize_t count = readlink((folder + "/exe").c_str(), path.data(), path.size());
    bytes += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
  }
  return bytes;
}

template <typename Work>
double microseconds(const Work& work) {
  const auto begin = std::chrono::steady_clock::now();
  if (work() == 0) throw std::runtime_error("nothing was read");
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void compare(int pairs) {
  const Company company;
  std::vector<double> reports_us;
  std::vector<double> floors_us;
  std::vector<double> ratios;
  std::size_t processes = 0;
  for (int i = 0; i < pairs; ++i) {
    const std::vector<std::string> folders = listProcesses();
    processes = folders.size();
    // Anew for each report, which is all that the program does: nothing is remembered from one to the next.
    const volorn::linux_host::ReadOnlyHost host;
    reports_us.push_back(microseconds([] { return volorn::voLornMemory::getMemoryData().size(); }));
    floors_us.push_back(microseconds([&] { return readBarely(folders); }));
    ratios.push_back(reports_us.back() / floors_us.back());
  }
  const auto per_process = [&](const std::vector<double>& all_us) {
    return median(all_us) / static_cast<double>(processes);
  };
  std::printf("%zu processes, %d pairs\n", processes, pairs);
  std::printf("report     %6.2f us each\n", per_process(reports_us));
  std::printf("bare loop  %6.2f us each\n", per_process(floors_us));
  std::printf("report / bare loop  %.2f\n", median(ratios));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    compare(argc > 1 ? std::max(1, std::atoi(argv[1])) : 101);
  } catch (const std::exception& error) {
    std::printf("memory: %s\n", error.what());
    return 1;
  }
}
