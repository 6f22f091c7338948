#include "volornctl/live/memory.h"

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/linux/read_only_host.h"
#include "platform/services.h"
#include "snapshot/voLornMemory.h"
#include "volornctl/choices.h"
#include "volornctl/live/process_options.h"
#include "volornctl/text/json_text.h"
#include "volornctl/text/number_text.h"
#include "volornctl/text/table.h"

namespace volorn::ctl {
namespace {

// By MemoryStep.
constexpr std::array kStepNames = {"proc_name", "proc_pidinfo", "task_for_pid", "task_info_basic",
                                   "task_info_extmod"};
static_assert(kStepNames.size() == static_cast<std::size_t>(MemoryStep::task_info_extmod) + 1);

struct MemoryRow {
  std::int32_t pid = 0;
  std::string name = {};
  std::string uuid = {};
  std::int32_t rpages = 0;
  std::uint64_t resident_bytes = 0;
  std::optional<MemoryStep> failed_step = std::nullopt;  // then there is none of the three above
};

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

class Rows : public ProcessMemorySink {
 public:
  void addProcess(const ProcessMemory& process) override {
    rows_.push_back({.pid = process.pid,
                     .name = std::string(process.name),
                     .uuid = uuidText(process.uuid),
                     .rpages = process.rpages,
                     .resident_bytes = process.resident_bytes});
  }

  void addFailure(const ProcessMemoryFailure& failure) override {
    rows_.push_back({.pid = failure.pid, .name = std::string(failure.name), .failed_step = failure.step});
  }

  void addListFailure(std::string_view text) override { failWithoutList(text); }

  std::vector<MemoryRow> take() { return std::move(rows_); }

 private:
  std::vector<MemoryRow> rows_;
};

std::optional<std::uint32_t> ownerOf(std::int32_t pid) {
  KinfoProc record = {};
  const std::array<std::int32_t, 4> name = {1, 14, 1, pid};
  return Current().kernel.sysctl(name, record) == 0 ? std::optional(record.uid) : std::nullopt;
}

// Rows that failed have no pages and no identifier: they stand last in both orders of those.
bool isBefore(const MemoryRow& a, const MemoryRow& b, std::string_view order, bool is_reversed) {
  const auto less = [&](const auto& x, const auto& y) { return is_reversed ? y < x : x < y; };
  if (order == "pid") return less(a.pid, b.pid);
  if (order == "name") return less(a.name, b.name);
  if (a.failed_step || b.failed_step) return !a.failed_step && b.failed_step;
  if (order == "uuid") return less(a.uuid, b.uuid);
  return less(b.resident_bytes, a.resident_bytes);  // "resident": the most first
}

std::string sizeCell(std::uint64_t bytes) {
  return sizeText(static_cast<double>(bytes));
}

Cell heading(const char* text, bool right = false) {
  return {.text = text, .strong = true, .right = right};
}

std::string processTable(const std::vector<MemoryRow>& rows, bool has_total, bool colour) {
  std::vector<Row> shown = {{heading("PID", true), heading("Pages", true), heading("Resident", true),
                             heading("UUID"), heading("Name")}};
  std::uint64_t total_bytes = 0;
  const auto add = [&](const std::string& pid, std::uint64_t bytes, const std::string& uuid,
                       std::string name) {
    shown.push_back({{.text = pid, .right = true},
                     {.text = std::to_string(bytes / 4096), .right = true},
                     {.text = sizeCell(bytes), .right = true},
                     {.text = uuid},
                     {.text = std::move(name)}});
  };
  for (const MemoryRow& row : rows) {
    if (row.failed_step) {
      const std::string step = kStepNames.at(static_cast<std::size_t>(*row.failed_step));
      shown.push_back({{.text = std::to_string(row.pid), .right = true},
                       {.text = "-", .right = true},
                       {.text = "-", .right = true},
                       {.text = step + " failed"},
                       {.text = row.name}});
    } else {
      add(std::to_string(row.pid), row.resident_bytes, row.uuid, row.name);
      total_bytes += row.resident_bytes;
    }
  }
  if (has_total) add("Total", total_bytes, "", "");
  return table(shown, colour);
}

// A row for each image identifier, in the order in which they come first; what failed is of none.
std::string groupTable(const std::vector<MemoryRow>& rows, bool has_total, bool colour) {
  struct Group {
    std::string name;
    std::uint64_t processes = 0;
    std::uint64_t bytes = 0;
  };
  std::vector<std::pair<std::string, Group>> groups;
  Group total{.name = ""};
  for (const MemoryRow& row : rows) {
    if (row.failed_step) continue;
    auto group = std::ranges::find(groups, row.uuid, [](const auto& known) { return known.first; });
    if (group == groups.end()) group = groups.insert(groups.end(), {row.uuid, {.name = row.name}});
    for (Group* sum : {&group->second, &total}) {
      ++sum->processes;
      sum->bytes += row.resident_bytes;
    }
  }
  std::ranges::stable_sort(groups,
                           [](const auto& a, const auto& b) { return a.second.bytes > b.second.bytes; });
  std::vector<Row> shown = {
      {heading("Processes", true), heading("Resident", true), heading("UUID"), heading("Name of the first")}};
  const auto add = [&](const std::string& uuid, const Group& group) {
    shown.push_back({{.text = std::to_string(group.processes), .right = true},
                     {.text = sizeCell(group.bytes), .right = true},
                     {.text = uuid},
                     {.text = group.name}});
  };
  for (const auto& [uuid, group] : groups) add(uuid, group);
  if (has_total) add("Total", total);
  return table(shown, colour);
}

std::vector<MemoryRow> readRows(const MemoryChoice& choice) {
  Rows collected;
  walkProcessMemory(collected);
  std::vector<MemoryRow> rows = collected.take();
  std::erase_if(rows, [&](const MemoryRow& row) {
    const bool is_other = !choice.processes.pids.empty() && !choice.processes.pids.contains(row.pid);
    return is_other || (choice.processes.uid && ownerOf(row.pid) != choice.processes.uid);
  });
  if (!choice.order.empty() || choice.is_reversed) {
    const std::string order = choice.order.empty() ? "pid" : choice.order;
    std::ranges::stable_sort(rows, [&](const MemoryRow& a, const MemoryRow& b) {
      return isBefore(a, b, order, choice.is_reversed);
    });
  }
  return rows;
}

}  // namespace

std::string memoryText() {
  EscapedText report;
  walkProcessMemory(report);
  return report.text();
}

std::string memoryTable(const MemoryChoice& choice, bool colour) {
  const std::vector<MemoryRow> rows = readRows(choice);
  return choice.is_grouped ? groupTable(rows, choice.has_total, colour)
                           : processTable(rows, choice.has_total, colour);
}

std::string memoryJson(const MemoryChoice& choice) {
  Json processes = Json::array();
  for (const MemoryRow& row : readRows(choice)) {
    Json& shown = processes.emplace_back();
    shown["pid"] = row.pid;
    shown["name"] = row.name;
    if (row.failed_step) {
      shown["error"] = kStepNames.at(static_cast<std::size_t>(*row.failed_step));
    } else {
      shown["uuid"] = row.uuid;
      shown["rpages"] = row.rpages;
      shown["residentBytes"] = row.resident_bytes;
    }
  }
  Json document;
  document["schema"] = kJsonSchema;
  document["processes"] = std::move(processes);
  return jsonLine(document);
}

CLI::App* MemoryCommand::addTo(CLI::App& program) {
  CLI::App* command = program.add_subcommand("memory", "Show how much memory each process holds");
  const std::vector<std::string> orders = {"pid", "name", "uuid", "resident"};
  command->add_option("-o,--sort", choice_.order, "Order by this column: " + listed(orders))
      ->type_name("BY")
      ->check(oneOf(orders));
  command->add_flag("--reverse", choice_.is_reversed, "Turn the order round");
  addPidOption(*command, choice_.processes);
  addUserOption(*command, choice_.processes);
  command->add_flag("--total", choice_.has_total, "Add up all rows of the table");
  command->add_flag("--group", choice_.is_grouped, "A row of the table for each image identifier");
  command->add_flag("--json", json_, kJsonHelp);
  return command;
}

void MemoryCommand::run(const Surroundings& surroundings) {
  const linux_host::ReadOnlyHost host;
  const bool is_report = choice_ == MemoryChoice();
  surroundings.output.write(json_       ? memoryJson(choice_)
                            : is_report ? memoryText()
                                        : memoryTable(choice_, surroundings.colour));
}

}  // namespace volorn::ctl
