// A file that is written beside the old one and renamed over it.
#include "routing/whole_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/file_descriptor.h"
#include "support/whole_file_fixture.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;

namespace {

class WholeFileTest : public WholeFileFixture {};

}  // namespace

TEST_F(WholeFileTest, NewFileIsMade) {
  const mode_t mask = umask(0022);
  EXPECT_EQ(replace(), kDone);
  umask(mask);
  EXPECT_EQ(text(), kNewText);
  EXPECT_EQ(mode(), 0644u);
  EXPECT_THAT(names(), ElementsAre("routes.conf"));
}

TEST_F(WholeFileTest, WhoReadsTheOldFileReadsItToItsEnd) {
  write_old();
  const FileDescriptor reader(open(path_.c_str(), O_RDONLY | O_CLOEXEC, 0));
  EXPECT_EQ(replace(), kDone);
  char old[64] = {};
  EXPECT_EQ(read(reader.get(), old, sizeof(old)), static_cast<ssize_t>(strlen(kOldText)));
  EXPECT_STREQ(old, kOldText);
  EXPECT_EQ(text(), kNewText);
  EXPECT_THAT(names(), ElementsAre("routes.conf"));
}

TEST_F(WholeFileTest, OldTextStandsUntilTheNewOneIsWhole) {
  write_old();
  CallHook write_hook(wrapped::pwrite, [&](int fd, const void* data, size_t size, off_t offset) {
    EXPECT_EQ(text(), kOldText);
    return wrapped::pwrite.real(fd, data, std::min<size_t>(size, 7), offset);
  });
  CallHook rename_hook(wrapped::rename, [&](const char* from, const char* to) {
    EXPECT_EQ(from, beside_);
    EXPECT_EQ(to, path_);
    EXPECT_EQ(directory_.read(beside_), kNewText);
    EXPECT_EQ(text(), kOldText);
    return wrapped::rename.real(from, to);
  });
  EXPECT_EQ(replace(), kDone);
  EXPECT_EQ(text(), kNewText);
  EXPECT_EQ(call_count("rename"), 1);
  EXPECT_GT(call_count("pwrite"), 5);
}

TEST_F(WholeFileTest, OwnerAndModeStay) {
  write_old();
  if (geteuid() == 0) {
    ASSERT_EQ(chown(path_.c_str(), 4711, 4712), 0);
  }
  const struct stat before = status();
  for (const mode_t kept : {0640u, 0606u}) {
    ASSERT_EQ(chmod(path_.c_str(), kept), 0);
    CallHook rename_hook(wrapped::rename, [&](const char* from, const char* to) {
      struct stat beside {};
      EXPECT_EQ(stat(from, &beside), 0);
      EXPECT_EQ(beside.st_mode & 07777, kept);  // no reader ever finds another
      return wrapped::rename.real(from, to);
    });
    EXPECT_EQ(replace(), kDone);
    EXPECT_EQ(mode(), kept);
    EXPECT_EQ(status().st_uid, before.st_uid);
    EXPECT_EQ(status().st_gid, before.st_gid);
  }
  EXPECT_EQ(call_count("rename"), 2);
}

TEST_F(WholeFileTest, ShorterTextLeavesNoRestOfTheOldOne) {
  write_old();
  EXPECT_EQ(replace("short"), kDone);
  EXPECT_EQ(text(), "short");
  EXPECT_EQ(replace(""), kDone);
  EXPECT_EQ(text(), "");
  EXPECT_TRUE(directory_.exists(path_));
}

TEST_F(WholeFileTest, NameWithoutADirectoryIsOfTheWorkingDirectory) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(directory_.path());
  const FileReplacement made = replace_file("routes.conf", kOldText);
  const FileReplacement replaced = replace_file("routes.conf", kNewText);
  std::filesystem::current_path(before);
  EXPECT_EQ(made, kDone);
  EXPECT_EQ(replaced, kDone);
  EXPECT_EQ(text(), kNewText);
  EXPECT_EQ(call_count("rename"), 2);
}

// --- symbolic links ---

TEST_F(WholeFileTest, SymbolicLinksStay) {
  const std::string target = directory_.write("there/routes", kOldText);
  std::filesystem::create_symlink("there/routes", directory_.file("second"));
  std::filesystem::create_symlink("second", path_);
  EXPECT_EQ(replace(), kDone);
  EXPECT_TRUE(std::filesystem::is_symlink(path_));
  EXPECT_TRUE(std::filesystem::is_symlink(directory_.file("second")));
  EXPECT_FALSE(std::filesystem::is_symlink(target));
  EXPECT_EQ(directory_.read(target), kNewText);
  EXPECT_EQ(call_count("rename"), 1);
  EXPECT_THAT(names(), ElementsAre("routes.conf", "second", "there"));
  EXPECT_FALSE(directory_.exists("there/.routes.new"));
}

TEST_F(WholeFileTest, DanglingLinkIsFilledThrough) {
  std::filesystem::create_symlink("there", path_);
  EXPECT_EQ(replace(), kDone);
  EXPECT_TRUE(std::filesystem::is_symlink(path_));
  EXPECT_EQ(directory_.read("there"), kNewText);
  EXPECT_THAT(names(), ElementsAre("routes.conf", "there"));
}

// --- what an interrupted write left beside ---

TEST_F(WholeFileTest, LeftoverIsReplaced) {
  directory_.write(beside_, std::string(1000, 'x'));
  EXPECT_EQ(replace(), kDone);
  EXPECT_EQ(text(), kNewText);
  EXPECT_THAT(names(), ElementsAre("routes.conf"));
  EXPECT_EQ(call_count("rename"), 1);
}

TEST_F(WholeFileTest, LinkInTheLeftoversPlaceIsNotFollowed) {
  directory_.write("precious", kOldText);
  std::filesystem::create_symlink("precious", beside_);
  EXPECT_EQ(replace(), kDone);
  EXPECT_EQ(directory_.read("precious"), kOldText);
  EXPECT_EQ(text(), kNewText);
  EXPECT_FALSE(std::filesystem::is_symlink(path_));
  EXPECT_THAT(names(), ElementsAre("precious", "routes.conf"));
}
