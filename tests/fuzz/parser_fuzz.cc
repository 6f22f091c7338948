// The promises of each parser whose bytes others choose, and of what reads an executable by them. Each is a
// fuzzer of its own, which is told by VOLORN_FUZZED which of them it tries.
#include <elf.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/kernel/executable.h"
#include "platform/linux/kernel/parse_elf.h"
#include "platform/linux/kernel/parse_mountinfo.h"
#include "platform/linux/kernel/parse_process_stat.h"
#include "platform/linux/kernel/parse_process_statm.h"
#include "platform/linux/kernel/parse_process_status.h"
#include "platform/linux/kernel/parse_schedule.h"
#include "platform/linux/parse_number.h"
#include "platform/linux/regions/parse_smaps.h"
#include "platform/linux/usage_books.h"

namespace volorn::linux_host {
namespace {

// Stops the fuzzer at an input for which a promise does not hold.
void require(bool holds) {
  if (!holds) std::abort();
}

struct Promises {
  static bool has(std::string_view text, std::string_view part) { return text.find(part) != text.npos; }
  static bool hasDigit(std::string_view text) { return text.find_first_of("0123456789") != text.npos; }

  // A file of any bytes behind the first six, which would be found too seldom.
  static void executable(std::string_view text) {
    if (text.size() < EI_NIDENT) return;
    std::string bytes(text);
    bytes.replace(0, SELFMAG, ELFMAG);
    bytes[EI_CLASS] = text[EI_CLASS] % 2 == 0 ? ELFCLASS64 : ELFCLASS32;
    bytes[EI_DATA] = text[EI_DATA] % 2 == 0 ? ELFDATA2LSB : ELFDATA2MSB;
    const FileDescriptor file(memfd_create("executable", MFD_CLOEXEC));
    require(write(file.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    require(!readBuildId(file.get()) || has(bytes, "GNU"));
  }

  static void parse_elf(std::string_view text) {
    const auto header = parseElfHeader(text.substr(0, ElfHeader::kMostBytes));
    if (header)
      parseElfSegment(text.substr(std::min<std::size_t>(text.size(), header->segments_offset)), *header);
    for (const std::uint64_t alignment : {4U, 8U}) {
      for (const bool is_swapped : {false, true}) {
        const ElfSegment notes = {
            .is_notes = true, .offset = 0, .size_bytes = text.size(), .alignment = alignment};
        ElfHeader file;
        file.is_swapped = is_swapped;
        require(!findBuildId(text, notes, file) || has(text, "GNU"));
      }
    }
  }

  static void parse_mountinfo(std::string_view text) {
    const auto mounted = parseMount(text);
    require(!mounted || (!mounted->type.empty() && !has(mounted->type, " ")));
  }

  static void parse_number(std::string_view text) {
    const auto number = parseInteger(text);
    if (!number) return;
    require(parseInteger(std::to_string(*number) + "\n") == number);
    require(text.find_first_not_of("+-0123456789 \t\r\n") == text.npos);
  }

  // Whatever a process calls itself, its figures stand behind.
  static void parse_process_stat(std::string_view text) {
    parseProcessStat(text);
    const auto stat = parseProcessStat("5 (" + std::string(text) +
                                       ") S 1 2 3 0 -1 64 10 0 3 0 7 8 0 0 20 0 1 0 1000 4096 1 99 5 2 3 0 0 "
                                       "0 0 0 0 0 0 0 17 1 0\n");
    require(stat.has_value() && stat->state == 'S' && stat->start_ticks == 1000 && stat->processor == 1);
    require(stat->name() == text.substr(0, ProcessStat::kNameCapacityBytes));
  }

  static void parse_process_statm(std::string_view text) {
    require(!parseProcessPages(text) || hasDigit(text));
  }

  static void parse_process_status(std::string_view text) {
    const auto status = parseProcessStatus(text);
    require(!status || (has(text, "Uid:") && (status->resident_bytes == 0 || has(text, "VmRSS:"))));
  }

  // No name that a process can have changes what is read.
  static void parse_schedule(std::string_view text) {
    parseSchedule(text);
    require(!parseThreadRuns(text) || hasDigit(text));
    const auto schedule = parseSchedule(std::string(text.substr(0, 15)) + " (1, #threads: 1)\n" +
                                        std::string(67, '-') + "\nse.exec_start : 31.5\nnr_switches : 6\n");
    require(schedule.has_value() && schedule->last_ran_ms == 31 && schedule->context_switches == 6);
  }

  // Wherever a piece ends, the next begins with what was left.
  static void parse_smaps(std::string_view text) {
    std::vector<Mapping> mappings;
    const auto taken = parseSmaps(text, 4096, mappings);
    for (const Mapping& mapping : mappings) require(mapping.start < mapping.end);
    if (!taken) return;
    require(*taken == text.rfind('\n') + 1);
    std::vector<Mapping> same;
    const auto first = parseSmaps(text.substr(0, text.size() / 2), 4096, same);
    require(first.has_value());
    const auto rest = parseSmaps(text.substr(*first), 4096, same);
    require(rest.has_value() && *first + *rest == *taken);
    require(std::ranges::equal(mappings, same, [](const Mapping& a, const Mapping& b) {
      return a.start == b.start && a.private_pages == b.private_pages;
    }));
  }

  // Whatever stands in them, their sums grow by no more than the time that passed.
  static void usage_books(std::string_view text) {
    const auto books = parseUsageBooks(text);
    if (!books) return;
    require(parseUsageBooks(textOf(*books)) == books);
    const UsageMark mark{.boot_id = books->boot_id,
                         .monotonic_ns = 1LL << 59,
                         .boottime_ns = 1LL << 60,
                         .plugged_in = books->plugged_in};
    const auto [usage_ns, standby_ns] = books->sums.value_or(UsageSums{});
    const auto sums = withMark(books, mark).sums.value_or(UsageSums{usage_ns, standby_ns});
    require(sums.usage_ns >= usage_ns && sums.standby_ns >= standby_ns);
    const std::int64_t passed_ns =
        std::max(mark.boottime_ns - books->boottime_ns, mark.monotonic_ns - books->monotonic_ns);
    require(sums.usage_ns - usage_ns + sums.standby_ns - standby_ns <= passed_ns);
  }
};

}  // namespace
}  // namespace volorn::linux_host

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  volorn::linux_host::Promises::VOLORN_FUZZED({reinterpret_cast<const char*>(data), size});
  return 0;
}
