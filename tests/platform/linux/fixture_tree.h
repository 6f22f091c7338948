#pragma once

#include <sys/stat.h>

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
    {"empty", 0, [](const auto& path) { std::ofstream(path).flush(); }},
    {"NUL bytes", 0, [](const auto& path) { std::ofstream(path) << std::string(3, '\0') << "7\n"; }},
    {"beyond 64 bits", 0, [](const auto& path) { std::ofstream(path) << "9223372036854775808\n"; }},
};

}  // namespace volorn::linux_host
