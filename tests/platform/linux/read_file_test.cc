#include "platform/linux/read_file.h"

#include <gtest/gtest.h>

#include "tests/platform/linux/fixture_tree.h"

namespace volorn::linux_host {
namespace {

TEST(ReadFileTest, ReadsWholeOrNothing) {
  const FixtureTree tree;
  for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 10000U}) {
    const std::string content(size, 'x');
    tree.write("file", content);
    const std::string path = tree.root() + "/file";
    EXPECT_EQ(readFile(path, size).bytes, content);
    if (size == 0) continue;
    const FileBytes cut = readFile(path, size - 1);
    EXPECT_EQ(cut.error, EFBIG) << size;
    EXPECT_EQ(cut.bytes, "");
  }
}

TEST(ReadFileTest, WhatIsNoFileFailsAtOnce) {
  for (const auto& [what, error, make] : kUnreadableFiles) {
    const FixtureTree tree;
    make(tree.at("file"));
    EXPECT_EQ(readFile(tree.root() + "/file", kAttributeLimitBytes).error, error) << what;
  }
}

TEST(ListFolderTest, NamesFilesFoldersAndLinksInByteOrder) {
  const FixtureTree tree("class/BAT10/type Battery\nclass/.hidden x\nclass/BAT2 x\n");
  std::filesystem::create_symlink("BAT2", tree.at("class/AC"));
  std::filesystem::create_directory_symlink("class", tree.at("link"));
  EXPECT_EQ(listFolder(tree.root() + "/link"), (std::vector<std::string>{".hidden", "AC", "BAT10", "BAT2"}));
  for (const auto& [what, error, make] : kUnreadableFiles) {
    make(tree.at(what));
    EXPECT_EQ(listFolder(tree.root() + '/' + what), std::vector<std::string>{}) << what;
  }
}

}  // namespace
}  // namespace volorn::linux_host
