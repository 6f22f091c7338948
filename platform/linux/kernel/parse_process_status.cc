#include "platform/linux/kernel/parse_process_status.h"

#include <array>

#include "platform/linux/parse_fields.h"
#include "platform/linux/parse_number.h"

namespace volorn::linux_host {
namespace {

struct SizeField {
  std::string_view key;
  std::uint64_t ProcessStatus::*bytes;
};

constexpr std::array kSizeFields = {
    SizeField{"VmSize", &ProcessStatus::virtual_bytes},
    SizeField{"VmRSS", &ProcessStatus::resident_bytes},
    SizeField{"RssAnon", &ProcessStatus::anonymous_bytes},
    SizeField{"VmPTE", &ProcessStatus::page_table_bytes},
    SizeField{"VmPMD", &ProcessStatus::page_table_bytes},  // told apart before Linux 4.15
};

bool addSize(std::string_view key, std::string_view value, ProcessStatus& status) {
  for (const SizeField& field : kSizeFields) {
    if (field.key != key) continue;
    const std::optional<std::uint64_t> kib = parseKib(value);
    status.*field.bytes += kib.value_or(0) * 1024;
    return kib.has_value();
  }
  return true;
}

bool addSwitches(std::string_view value, ProcessStatus& status) {
  std::uint64_t switches = 0;
  if (!FieldReader(value).take(switches)) return false;
  status.context_switches += switches;
  return true;
}

}  // namespace

std::optional<ProcessStatus> parseProcessStatus(std::string_view text) {
  ProcessStatus status;
  bool has_uid = false;
  while (!text.empty()) {
    const std::string_view line = takeLine(text);
    const std::size_t colon = line.find(':');
    if (colon == line.npos) continue;
    const std::string_view key = line.substr(0, colon);
    const std::string_view value = line.substr(colon + 1);
    if (key == "Uid") {
      FieldReader ids(value);  // real, effective, saved, of the file system
      has_uid = ids.skip(1) && ids.take(status.effective_uid);
    } else if (key.ends_with("voluntary_ctxt_switches")) {
      if (!addSwitches(value, status)) return std::nullopt;
    } else if (key.starts_with("Vm") || key.starts_with("Rss")) {
      if (!addSize(key, value, status)) return std::nullopt;
    }
  }
  return has_uid ? std::optional(status) : std::nullopt;
}

}  // namespace volorn::linux_host
