#include "waketide/arm_record.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/temporary_folder.h"

namespace volorn::waketide {
namespace {

// A row is known again by its bits alone, so these must come back as they were.
TEST(ArmRecordTest, ComesBackAsItWas) {
  const TemporaryFolder folder;
  const std::string path = (folder / "record").string();
  const Date started = Date::fromSecondsSinceReferenceDate(817'000'000.123456);
  const std::optional<Schedule::Served> all[] = {
      std::nullopt,
      Schedule::Served{started, std::nullopt},
      Schedule::Served{started, JobDescription{-1e-300, 604800.1}},
  };
  for (const auto& served : all) {
    writeArmRecord(path, {1'795'400'145'579'113, served});
    const ArmRecord record = readArmRecord(path);
    EXPECT_EQ(record.run_started_us, 1'795'400'145'579'113U);
    ASSERT_EQ(record.served.has_value(), served.has_value());
    if (!served) continue;
    EXPECT_EQ(record.served->started, served->started);
    EXPECT_EQ(record.served->row, served->row);
  }
}

TEST(ArmRecordTest, SenselessOneServesNothing) {
  const TemporaryFolder folder;
  const std::string path = (folder / "record").string();
  EXPECT_FALSE(readArmRecord(path).served) << "missing";
  for (const char* text : {"", "\n", "text", "1", "1 2", "1 2 1", "1 2 1 3", "1 2 maybe"}) {
    std::ofstream(path, std::ios::trunc) << text;
    EXPECT_FALSE(readArmRecord(path).served) << text;
  }
}

}  // namespace
}  // namespace volorn::waketide
