#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

#include "tests/temporary_folder.h"

namespace volorn::linux_host {

// Stands in for /sys or /proc.
class FixtureTree {
 public:
  // Each line of `files` is a path, a blank, and what the file there says.
  explicit FixtureTree(std::string_view files = {}) {
    std::istringstream lines{std::string(files)};
    for (std::string path, content; lines >> path && std::getline(lines >> std::ws, content);) {
      write(path, content + '\n');
    }
  }

  std::string root() const { return folder_.path(); }

  // Where `path` is in the tree, its folder made.
  std::filesystem::path at(std::string_view path) const {
    std::filesystem::create_directories((folder_ / path).parent_path());
    return folder_ / path;
  }

  void write(std::string_view path, std::string_view content) const { folder_.write(path, content); }

 private:
  TemporaryFolder folder_;
};

// What a process's files tell, or a thread's.
struct ProcessFixture {
  std::string_view name = "worker";
  char state = 'S';
  int threads = 1;
  int user_ticks = 0;
  int system_ticks = 0;
  int start_ticks = 1000;
  int start_code = 4194304;
  int context_switches = 6;
  int resident_kib = 8;
  int private_kib = 4;
  int effective_user = 8;

  std::string stat(int pid) const {
    const auto number = [](int value) { return ' ' + std::to_string(value); };
    return std::to_string(pid) + " (" + std::string(name) + ") " + state + " 1 2 0 0 -1 64 10 0 3 0" +
           number(user_ticks) + number(system_ticks) + " 0 0 20 0" + number(threads) + " 0" +
           number(start_ticks) + " 4096 1 99" + number(start_code) + " 2 3 0 0 0 0 0 0 0 0 0 17 0 0\n";
  }

  void write(const FixtureTree& tree, int pid, const std::string& above = {}) const {
    const std::string folder = above + std::to_string(pid) + "/";
    tree.write(folder + "stat", stat(pid));
    tree.write(folder + "status", "Uid:\t7\t" + std::to_string(effective_user) +
                                      "\t9\t9\nVmSize:\t16 kB\nVmRSS:\t" + std::to_string(resident_kib) +
                                      " kB\nRssAnon:\t4 kB\nVmPTE:\t1 kB\nvoluntary_ctxt_switches:\t" +
                                      std::to_string(context_switches) + "\n");
    tree.write(folder + "statm", "4 " + std::to_string(resident_kib * 1024 / sysconf(_SC_PAGESIZE)) + " 0\n");
    tree.write(folder + "fd/0", "");
    tree.write(folder + "auxv", std::string(8, '\0'));  // of 64 bits
    tree.write(folder + "smaps", "1000-5000 rw-p 00000000 00:00 0 \nPrivate_Dirty: " +
                                     std::to_string(private_kib) + " kB\nShared_Dirty: 4 kB\n");
  }
};

inline void writeSystem(const FixtureTree& tree) {
  tree.write("stat", "cpu  1 2 3 4 5 6 7\n");
  tree.write("meminfo", "MemTotal: 4000 kB\nMemFree: 1000 kB\nActive: 600 kB\nInactive: 400 kB\n");
  tree.write("vmstat", "pgpgin 80\npgpgout 160\n");
}

struct UnreadableFile {
  const char* what;
  int error;  // what readFile() says; 0 where the file can be read, and only its text is no value
  void (*make)(const std::filesystem::path& path);
};

inline constexpr UnreadableFile kUnreadableFiles[] = {
    {"missing", ENOENT, [](const auto&) {}},
    {"folder", EISDIR, [](const auto& path) { std::filesystem::create_directory(path); }},
    {"FIFO", EINVAL, [](const auto& path) { mkfifo(path.c_str(), 0600); }},
    {"endless device", EINVAL, [](const auto& path) { std::filesystem::create_symlink("/dev/zero", path); }},
    {"link to itself", ELOOP, [](const auto& path) { std::filesystem::create_symlink(path, path); }},
    {"16 MiB", EFBIG, [](const auto& path) { std::ofstream(path) << std::string(16 << 20, '1'); }},
    {"EIO", EIO, [](const auto& path) { std::filesystem::create_symlink("/proc/self/mem", path); }},
    {"empty", 0, [](const auto& path) { std::ofstream(path).flush(); }},
    {"NUL bytes", 0, [](const auto& path) { std::ofstream(path) << std::string(3, '\0') << "7\n"; }},
    {"beyond 64 bits", 0, [](const auto& path) { std::ofstream(path) << "9223372036854775808\n"; }},
};

}  // namespace volorn::linux_host
