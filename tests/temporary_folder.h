#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

namespace volorn {

// A folder of a test's own, removed with everything in it at the end.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "volorn-test-XXXXXX").string();
    if (!mkdtemp(name.data())) throw std::runtime_error("mkdtemp");
    path_ = name;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string path() const { return path_.string(); }
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

  // Makes the folders above the file as well.
  void write(std::string_view name, std::string_view content) const {
    const std::filesystem::path file = path_ / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
  }

  // Empty for what is no regular file.
  std::string read(std::string_view name) const {
    if (!std::filesystem::is_regular_file(path_ / name)) return {};
    std::ifstream file(path_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  std::filesystem::path path_;
};

}  // namespace volorn
