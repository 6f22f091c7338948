#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace volorn {

// The resident memory of one process. The name is the kernel's short one, any bytes but NUL.
struct ProcessMemory {
  std::int32_t pid;
  std::string_view name;
  std::array<std::uint8_t, 16> uuid;  // of the executable image; zeros when it has none
  std::int32_t rpages;                // pages of 4096 bytes; below 0 or too few from 2 GiB on
  std::uint64_t resident_bytes;
};

// What is asked about a process, in this order.
enum class MemoryStep { proc_name, proc_pidinfo, task_for_pid, task_info_basic, task_info_extmod };

// A process that could not be read.
struct ProcessMemoryFailure {
  std::int32_t pid;
  std::string_view name;  // empty when that is what failed
  MemoryStep step;
  std::string_view text;  // as logged
};

// Takes what a walk over the processes finds, while it finds it. Texts and names last as long as the call.
class ProcessMemorySink {
 public:
  virtual ~ProcessMemorySink() = default;

  virtual void addProcess(const ProcessMemory& process) = 0;
  virtual void addFailure(const ProcessMemoryFailure& failure) = 0;

  // There is no list of processes, so nothing else comes. `text`: as logged.
  virtual void addListFailure(std::string_view text) = 0;
};

// Hands every process to `sink`, in the kernel's order, and writes failures to the system log. The task ports
// that it takes stay lent.
void walkProcessMemory(ProcessMemorySink& sink);

// 32 digits, lower case.
std::string uuidText(const std::array<std::uint8_t, 16>& uuid);

// Makes the report's text of what it is told.
class ProcessMemoryText : public ProcessMemorySink {
 public:
  ProcessMemoryText();

  void addProcess(const ProcessMemory& process) override;
  void addFailure(const ProcessMemoryFailure& failure) override;
  void addListFailure(std::string_view text) override;

  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

// Reports how many pages of memory each process has, as a text for people.
class voLornMemory {
 public:
  // A header, then a line for each process: name, image identifier, resident pages. A process that cannot be
  // read has an error text instead; most of these end in no newline, so that the next line continues them.
  // Names stand as they are, control bytes too.
  static std::string getMemoryData();
};

}  // namespace volorn
