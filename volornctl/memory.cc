#include "volornctl/memory.h"

#include <array>
#include <stdexcept>

#include "platform/linux/read_only_host.h"
#include "snapshot/voLornMemory.h"
#include "volornctl/json_text.h"
#include "volornctl/table.h"

namespace volorn::ctl {
namespace {

// By MemoryStep.
constexpr std::array kStepNames = {"proc_name", "proc_pidinfo", "task_for_pid", "task_info_basic",
                                   "task_info_extmod"};
static_assert(kStepNames.size() == static_cast<std::size_t>(MemoryStep::task_info_extmod) + 1);

[[noreturn]] void failWithoutList(std::string_view text) {
  throw std::runtime_error("the processes cannot be listed: " + std::string(text));
}

// The report's own text, so that nothing but the names is another.
class EscapedText : public ProcessMemorySink {
 public:
  void addProcess(const ProcessMemory& process) override {
    const std::string name = escaped(process.name);
    ProcessMemory shown = process;
    shown.name = name;
    text_.addProcess(shown);
  }

  void addFailure(const ProcessMemoryFailure& failure) override {
    const std::string name = escaped(failure.name);
    ProcessMemoryFailure shown = failure;
    shown.name = name;
    text_.addFailure(shown);
  }

  void addListFailure(std::string_view text) override { failWithoutList(text); }

  const std::string& text() const { return text_.text(); }

 private:
  ProcessMemoryText text_;
};

class JsonRows : public ProcessMemorySink {
 public:
  void addProcess(const ProcessMemory& process) override {
    Json& row = addRow(process.pid, process.name);
    row["uuid"] = uuidText(process.uuid);
    row["rpages"] = process.rpages;
  }

  void addFailure(const ProcessMemoryFailure& failure) override {
    addRow(failure.pid, failure.name)["error"] = kStepNames[static_cast<std::size_t>(failure.step)];
  }

  void addListFailure(std::string_view text) override { failWithoutList(text); }

  const Json& rows() const { return rows_; }

 private:
  Json& addRow(std::int32_t pid, std::string_view name) {
    Json& row = rows_.emplace_back();
    row["pid"] = pid;
    row["name"] = name;
    return row;
  }

  Json rows_ = Json::array();
};

}  // namespace

std::string memoryText() {
  EscapedText report;
  walkProcessMemory(report);
  return report.text();
}

std::string memoryJson() {
  JsonRows report;
  walkProcessMemory(report);
  Json document;
  document["schema"] = kJsonSchema;
  document["processes"] = report.rows();
  return jsonLine(document);
}

CLI::App* MemoryCommand::addTo(CLI::App& program) {
  CLI::App* command = program.add_subcommand("memory", "Show how much memory each process holds");
  command->add_flag("--json", json_, kJsonHelp);
  return command;
}

void MemoryCommand::run(const Surroundings& surroundings) {
  const linux_host::ReadOnlyHost host;
  surroundings.output.write(json_ ? memoryJson() : memoryText());
}

}  // namespace volorn::ctl
