#include "platform/linux/linux_battery_usage.h"

#include <optional>

#include "platform/linux/devices/read_usage_mark.h"
#include "platform/linux/state/note_file.h"
#include "platform/linux/state/state_queries.h"
#include "platform/snapshot_keys.h"

namespace volorn::linux_host {
namespace {

float seconds(std::int64_t nanoseconds) {
  return static_cast<float>(static_cast<double>(nanoseconds) * 1e-9);
}

}  // namespace

void LinuxBatteryUsage::BatteryUsageTimes(std::uint32_t /*port*/, float& usage_seconds,
                                          float& standby_seconds, std::uint8_t& fully_charged_once,
                                          std::uint8_t& flag_b) {
  using namespace snapshot_key;
  std::optional<UsageBooks> books;
  if (state_file_) state_file_->read([&](Database& database) { books = selectUsageBooks(database); });
  std::optional<UsageSums> sums;
  // The machine is asked nothing where its answer would not matter.
  if (books && books->sums && !NoteFile::tellsOfLoss(state_file_->directory().open())) {
    sums = sumsNow(*books, readUsageMark(proc_root_, supplies_.readFor(kUsage)));
  }
  for (const auto key : {kUsage, kStandby, kFullyChargedOnce}) stand_ins_.note(key, sums.has_value());
  if (!sums) return;
  usage_seconds = seconds(sums->usage_ns);
  standby_seconds = seconds(sums->standby_ns);
  fully_charged_once = 1;
  flag_b = 0;
}

}  // namespace volorn::linux_host
