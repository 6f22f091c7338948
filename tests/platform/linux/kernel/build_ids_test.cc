#include "platform/linux/kernel/build_ids.h"

#include <elf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>

#include "platform/linux/file_descriptor.h"
#include "tests/platform/linux/fixture_tree.h"

namespace volorn::linux_host {
namespace {

using namespace std::string_literals;

// Writes executables of either class and byte order.
struct ElfWriter {
  bool is_64_bit = true;
  bool is_big_endian = false;

  std::string number(std::uint64_t value, std::size_t size) const {
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>(value >> (8 * i));
    if (is_big_endian) std::reverse(bytes.begin(), bytes.end());
    return bytes;
  }
  std::string word(std::uint64_t value) const { return number(value, is_64_bit ? 8 : 4); }

  std::string note(const std::string& owner, std::uint32_t type, std::string content) const {
    const std::string head = number(owner.size(), 4) + number(content.size(), 4) + number(type, 4);
    content.resize((content.size() + 3) / 4 * 4);
    return head + owner + content;
  }

  std::size_t headBytes() const { return is_64_bit ? 64 : 52; }
  std::size_t entryBytes() const { return is_64_bit ? 56 : 32; }

  std::string head(std::uint64_t segments_offset, std::uint16_t segments) const {
    std::string bytes =
        "\x7F"
        "ELF"s +
        (is_64_bit ? '\2' : '\1') + (is_big_endian ? '\2' : '\1') + '\1';
    bytes.resize(16);
    bytes +=
        number(ET_EXEC, 2) + number(EM_X86_64, 2) + number(1, 4) + word(0) + word(segments_offset) + word(0);
    bytes += number(0, 4) + number(headBytes(), 2) + number(entryBytes(), 2) + number(segments, 2);
    bytes.resize(headBytes());
    return bytes;
  }

  std::string segment(std::uint32_t type, std::uint64_t offset, std::uint64_t size_bytes) const {
    const std::string flags = number(PF_R, 4);
    const std::string place = word(offset) + word(0) + word(0) + word(size_bytes) + word(size_bytes);
    return number(type, 4) + (is_64_bit ? flags + place : place + flags) + word(4);
  }

  // One segment of code, then one of these notes.
  std::string file(const std::string& notes) const {
    const std::size_t notes_offset = headBytes() + 2 * entryBytes();
    return head(headBytes(), 2) + segment(PT_LOAD, 0, notes_offset) +
           segment(PT_NOTE, notes_offset, notes.size()) + notes;
  }
};

std::string textOf(const BuildId& id) {
  return {id.begin(), id.end()};
}

const std::string kId = "0123456789abcdefGHIJ";
const std::string kNone(16, '\0');

class BuildIdsTest : public ::testing::Test {
 protected:
  // Remembers nothing: a clock of coarse ticks gives several files one time of change.
  std::string idOf(const std::string& content) {
    std::filesystem::remove(tree_.at("exe"));  // to write over a file waits for the disk
    tree_.write("exe", content);
    BuildIds fresh;
    return readWith(fresh);
  }
  std::string readWith(BuildIds& ids) {
    return textOf(ids.of(findExecutable(folder_.get()).identity, folder_.get()));
  }

  FixtureTree tree_;
  const FileDescriptor folder_{open(tree_.root().c_str(), O_PATH | O_CLOEXEC)};
};

TEST_F(BuildIdsTest, OfEitherClassAndByteOrder) {
  for (const bool is_64_bit : {false, true}) {
    for (const bool is_big_endian : {false, true}) {
      const ElfWriter elf = {is_64_bit, is_big_endian};
      const std::string other =
          elf.note("GNU\0"s, NT_GNU_ABI_TAG, "x") + elf.note("Go\0\0"s, NT_GNU_BUILD_ID, kId);
      const struct {
        std::string notes;
        std::string id;
      } rows[] = {{elf.note("GNU\0"s, NT_GNU_BUILD_ID, kId), kId.substr(0, 16)},
                  {other + elf.note("GNU\0"s, NT_GNU_BUILD_ID, kId + kId), kId.substr(0, 16)},
                  {other + elf.note("GNU\0"s, NT_GNU_BUILD_ID, "short"), "short" + std::string(11, '\0')},
                  {other, kNone},
                  {"", kNone}};
      for (const auto& [notes, id] : rows) EXPECT_EQ(idOf(elf.file(notes)), id) << is_64_bit << is_big_endian;
      const std::string whole = elf.file(rows[0].notes);
      for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_EQ(idOf(whole.substr(0, length)), kNone) << length;
      }
    }
  }
}

TEST_F(BuildIdsTest, AFileThatSaysWhatCannotBeHasNone) {
  const ElfWriter elf;
  const std::string note = elf.note("GNU\0"s, NT_GNU_BUILD_ID, kId);
  const std::string rest = elf.segment(PT_NOTE, 64 + 56, note.size()) + note;
  EXPECT_EQ(idOf(elf.head(64, 1) + rest), kId.substr(0, 16));
  for (const unsigned place : {0U, 4U, 5U}) {  // magic, class, byte order
    std::string head = elf.head(64, 1);
    head[place] = 3;
    EXPECT_EQ(idOf(head + rest), kNone) << place;
  }
  for (const std::string& head : {elf.head(UINT64_MAX, 1), elf.head(UINT64_MAX - 55, 2),
                                  elf.head(1ULL << 62, 1), elf.head(64, UINT16_MAX), elf.head(64, 0)}) {
    EXPECT_EQ(idOf(head + rest), kNone);
  }
  for (const std::uint64_t offset : {UINT64_MAX, UINT64_MAX / 2, std::uint64_t{4096}}) {
    EXPECT_EQ(idOf(elf.head(64, 1) + elf.segment(PT_NOTE, offset, note.size()) + note), kNone) << offset;
  }
  EXPECT_EQ(idOf(elf.head(64, 1) + elf.segment(PT_NOTE, 120, UINT64_MAX) + note), kNone);
  EXPECT_EQ(idOf(elf.file(elf.number(UINT32_MAX, 4) + elf.number(UINT32_MAX, 4) + elf.number(3, 4))), kNone);
}

TEST_F(BuildIdsTest, OnlyRegularFilesAreOpened) {
  for (const auto& [what, error, make] : kUnreadableFiles) {
    std::filesystem::remove_all(tree_.at("exe"));
    make(tree_.at("exe"));
    BuildIds ids;
    EXPECT_EQ(readWith(ids), kNone) << what;
  }
}

TEST_F(BuildIdsTest, AFileIsReadOnceUntilItChanges) {
  const ElfWriter elf;
  BuildIds ids;
  tree_.write("exe", elf.file(elf.note("GNU\0"s, NT_GNU_BUILD_ID, kId)));
  ASSERT_EQ(readWith(ids), kId.substr(0, 16));
  const FileIdentity first = findExecutable(folder_.get()).identity;
  EXPECT_EQ(textOf(ids.of(first, -1)), kId.substr(0, 16)) << "without its folder";
  tree_.write("new", elf.file(elf.note("GNU\0"s, NT_GNU_BUILD_ID, "another")));
  std::filesystem::rename(tree_.at("new"), tree_.at("exe"));
  EXPECT_EQ(readWith(ids), "another" + std::string(9, '\0'));
  // Nothing is remembered of what has not been opened.
  FileIdentity unseen = first;
  ++unseen[2];
  EXPECT_EQ(textOf(ids.of(unseen, -1)), kNone);
  EXPECT_EQ(textOf(ids.of(unseen, folder_.get())), "another" + std::string(9, '\0'));
  EXPECT_EQ(textOf(ids.of(unseen, -1)), kNone) << "the file that was opened is not the one asked about";
}

TEST(TrustedFileSystemsTest, AreTheKernelsOwnWhereTheyAreSeen) {
  TrustedFileSystems file_systems;
  const FileDescriptor self(open("/proc/self", O_PATH | O_CLOEXEC));
  const FileDescriptor memory(memfd_create("file", MFD_CLOEXEC));
  struct stat of_memory = {};
  struct stat of_proc = {};
  fstat(memory.get(), &of_memory);
  stat("/proc", &of_proc);
  const std::tuple<const char*, dev_t, bool> rows[] = {{"a block device", makedev(8, 1), true},
                                                       {"a file of memory", of_memory.st_dev, true},
                                                       {"one that is mounted", of_proc.st_dev, true},
                                                       {"one that is not", makedev(0, 0xFFFFF), false}};
  for (const auto& [what, device, is_trusted] : rows) {
    EXPECT_EQ(file_systems.has(self.get(), major(device), minor(device), 0), is_trusted) << what;
  }
}

// One that stops answering holds up whoever opens a file of it.
TEST_F(BuildIdsTest, AFileOfAFileSystemThatMayNotAnswerIsNotOpened) {
  struct stat status = {};
  ASSERT_EQ(stat("/dev/shm", &status), 0);
  const ElfWriter elf;
  std::string path = "/dev/shm/volorn-test-XXXXXX";
  const FileDescriptor file(mkstemp(path.data()));
  const std::string content = elf.file(elf.note("GNU\0"s, NT_GNU_BUILD_ID, kId));
  ASSERT_EQ(write(file.get(), content.data(), content.size()), std::ssize(content));
  std::filesystem::create_symlink(path, tree_.at("exe"));
  std::filesystem::create_symlink("/proc/self/ns/mnt", tree_.at("ns/mnt"));
  for (const auto& [type, id] : {std::pair("tmpfs", kId.substr(0, 16)), {"fuse.x", kNone}}) {
    const std::string device =
        std::to_string(major(status.st_dev)) + ":" + std::to_string(minor(status.st_dev));
    tree_.write("mountinfo", "36 35 " + device + " / /dev/shm rw - " + type + " me rw\n");
    BuildIds fresh;
    EXPECT_EQ(readWith(fresh), major(status.st_dev) == 0 ? id : kId.substr(0, 16)) << type;
  }
  unlink(path.c_str());
}

}  // namespace
}  // namespace volorn::linux_host
