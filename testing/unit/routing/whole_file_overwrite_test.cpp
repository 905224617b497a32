// Where nothing can be renamed over a file: it is overwritten, without being emptied first.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "support/whole_file_fixture.h"
#include "support/wrapped_calls.h"

using testing::Each;
using testing::ElementsAre;

namespace {

class WholeFileOverwriteTest : public WholeFileFixture {
 protected:
  WholeFileOverwriteTest() { write_old(); }

  // Runs `work` in a thread for which modes of files count, as they do for any user but root.
  template <typename Work>
  static void as_ordinary_user(Work work) {
    std::thread([&work] {
      __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
      const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
      ASSERT_EQ(syscall(SYS_capset, &header, none), 0);  // of the calling thread only
      work();
    }).join();
  }
};

// A step of the renaming that fails.
struct FailingStep {
  const char* call;
  int error;
};

class WholeFileFailingStepTest : public WholeFileOverwriteTest,
                                 public testing::WithParamInterface<FailingStep> {};

// As the system does it: what still fits is written.
class FullDisk {
 public:
  explicit FullDisk(int error, size_t room) : left_(room), error_(error) {}

 private:
  size_t left_;
  const int error_;
  CallHook<ssize_t(int, const void*, size_t, off_t)> write_hook_{
      wrapped::pwrite, [this](int fd, const void* data, size_t size, off_t offset) -> ssize_t {
        if (left_ == 0) {
          errno = error_;
          return -1;
        }
        const ssize_t written = wrapped::pwrite.real(fd, data, std::min(size, left_), offset);
        left_ -= static_cast<size_t>(written);
        return written;
      }};
  const Fault no_room_{"fallocate", error_};
};

}  // namespace

TEST_P(WholeFileFailingStepTest, FileIsOverwritten) {
  const ino_t before = status().st_ino;
  const Fault fault(GetParam().call, GetParam().error, 0, /*times=*/1);
  EXPECT_EQ(replace(), kDone);
  EXPECT_EQ(text(), kNewText);
  EXPECT_EQ(status().st_ino, before);
  EXPECT_THAT(names(), ElementsAre("routes.conf"));
}

INSTANTIATE_TEST_SUITE_P(Calls, WholeFileFailingStepTest,
                         testing::Values(FailingStep{"open", EACCES}, FailingStep{"fchown", EPERM},
                                         FailingStep{"pwrite", ENOSPC},
                                         FailingStep{"rename", EBUSY}),  // a mount point
                         [](const auto& test) { return test.param.call; });

TEST_F(WholeFileOverwriteTest, DirectoryMayForbidNewFiles) {
  const ino_t before = status().st_ino;
  std::filesystem::permissions(directory_.path(), std::filesystem::perms{0555});
  as_ordinary_user([this] {
    EXPECT_EQ(replace(), kDone);
    const FileReplacement other = replace_file(directory_.file("other"), kNewText);
    EXPECT_FALSE(other.opened);
    EXPECT_EQ(other.error, EACCES);
  });
  std::filesystem::permissions(directory_.path(), std::filesystem::perms{0755});
  EXPECT_EQ(text(), kNewText);
  EXPECT_EQ(status().st_ino, before);
  EXPECT_THAT(names(), ElementsAre("routes.conf"));
}

// Its directory would let it be replaced.
TEST_F(WholeFileOverwriteTest, FileThatMayNotBeWrittenStaysAsItIs) {
  ASSERT_EQ(chmod(path_.c_str(), 0444), 0);
  as_ordinary_user([this] {
    const FileReplacement replacement = replace();
    EXPECT_FALSE(replacement.opened);
    EXPECT_EQ(replacement.error, EACCES);
  });
  EXPECT_EQ(text(), kOldText);
  EXPECT_THAT(names(), ElementsAre("routes.conf"));
}

TEST_F(WholeFileOverwriteTest, LeftoverThatCannotBeRemovedIsLeft) {
  std::filesystem::create_directories(beside_);
  EXPECT_EQ(replace(), kDone);
  EXPECT_EQ(text(), kNewText);
  EXPECT_TRUE(std::filesystem::is_directory(beside_));
}

// --- the overwriting itself ---

TEST_F(WholeFileOverwriteTest, FileIsNeverEmpty) {
  const Fault fault("rename", EBUSY);
  std::vector<off_t> sizes;
  CallHook hook(wrapped::pwrite, [&](int fd, const void* data, size_t size, off_t offset) {
    sizes.push_back(status().st_size);
    return wrapped::pwrite.real(fd, data, std::min<size_t>(size, 2), offset);
  });
  EXPECT_EQ(replace("short"), kDone);
  EXPECT_EQ(sizes.size(), 6u);  // three beside, three into the file
  EXPECT_THAT(sizes, Each(static_cast<off_t>(strlen(kOldText))));
  EXPECT_EQ(text(), "short");
  EXPECT_EQ(replace(""), kDone);
  EXPECT_EQ(text(), "");
}

TEST_F(WholeFileOverwriteTest, FullDiskKeepsTheOldText) {
  for (const int error : {ENOSPC, EDQUOT, EFBIG}) {
    for (const size_t room : {0, 3, 60}) {  // 60: beside and a little more
      const Fault fault("rename", EBUSY);
      const FullDisk disk(error, room);
      EXPECT_EQ(replace(), (FileReplacement{.opened = true, .error = error})) << error;
      EXPECT_EQ(text(), kOldText) << error << ' ' << room;
      EXPECT_THAT(names(), ElementsAre("routes.conf"));
    }
  }
}

TEST_F(WholeFileOverwriteTest, FileSystemThatReservesNoRoomIsWrittenTo) {
  const Fault no_renaming("rename", EBUSY);
  for (const int error : {EOPNOTSUPP, ENOSYS}) {
    write_old();
    const Fault fault("fallocate", error);
    EXPECT_EQ(replace(), kDone);
    EXPECT_EQ(text(), kNewText);
  }
}

TEST_F(WholeFileOverwriteTest, InterruptedAndShortWritesGoOn) {
  const Fault no_renaming("rename", EBUSY);
  int calls = 0;
  CallHook hook(wrapped::pwrite,
                [&](int fd, const void* data, size_t size, off_t offset) -> ssize_t {
                  if (++calls % 2 == 1) {
                    errno = EINTR;
                    return -1;
                  }
                  return wrapped::pwrite.real(fd, data, std::min<size_t>(size, 20), offset);
                });
  EXPECT_EQ(replace(), kDone);
  EXPECT_EQ(text(), kNewText);
}

TEST_F(WholeFileOverwriteTest, FailedWriteIsTold) {
  {
    const Fault fault("pwrite", EIO);
    EXPECT_EQ(replace(), (FileReplacement{.opened = true, .error = EIO}));
  }
  CallHook hook(wrapped::pwrite, [](int, const void*, size_t, off_t) { return ssize_t{0}; });
  EXPECT_EQ(replace(), (FileReplacement{.opened = true, .error = EIO}));
  EXPECT_EQ(text(), kOldText);
  EXPECT_THAT(names(), ElementsAre("routes.conf"));
}
