#include "waketide/arm_record.h"

#include <bit>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <system_error>

namespace volorn::waketide {
namespace {

// As bits, which decimal digits would round.
std::uint64_t bitsOf(double number) {
  return std::bit_cast<std::uint64_t>(number);
}

double numberOf(std::uint64_t bits) {
  return std::bit_cast<double>(bits);
}

}  // namespace

// One line of numbers: the run's start; then, after a run that left a due row, its start and whether there
// was a row; then the row.
ArmRecord readArmRecord(const std::string& path) {
  std::ifstream file(path);
  ArmRecord record;
  std::uint64_t started = 0, has_row = 0, window_start = 0, window_end = 0;
  if (!(file >> record.run_started_us)) return {};
  if (!(file >> started >> has_row)) return record;
  Row row;
  if (has_row != 0) {
    if (!(file >> window_start >> window_end)) return record;
    row = JobDescription{numberOf(window_start), numberOf(window_end)};
  }
  record.served = Schedule::Served{Date::fromSecondsSinceReferenceDate(numberOf(started)), row};
  return record;
}

void writeArmRecord(const std::string& path, const ArmRecord& record) {
  const std::string fresh = path + ".new";
  std::ofstream file(fresh, std::ios::trunc);
  file << record.run_started_us;
  if (record.served) {
    const Row& row = record.served->row;
    file << ' ' << bitsOf(record.served->started.secondsSinceReferenceDate()) << ' ' << row.has_value();
    if (row) file << ' ' << bitsOf(row->window_start_time) << ' ' << bitsOf(row->window_end_time);
  }
  file << '\n';
  file.close();
  if (!file || std::rename(fresh.c_str(), path.c_str()) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
}

}  // namespace volorn::waketide
