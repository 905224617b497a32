#include "platform/regular_file.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>

#include "support/fifo.h"
#include "support/temporary_directory.h"
#include "support/wrapped_calls.h"

namespace {

class RegularFileTest : public TemporaryDirectoryTest {
 protected:
  void expect_refusal() const {
    errno = 0;
    EXPECT_EQ(open_to_rewrite(path_), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(call_count("fopen"), 0);
  }
  void make_socket() const {
    const FileDescriptor fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path_.size(), sizeof(address.sun_path));
    path_.copy(address.sun_path, path_.size());
    ASSERT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }

  const std::string path_ = directory_.file("file");
};

}  // namespace

TEST_F(RegularFileTest, FilesDirectoriesAndNothingAreNotSpecial) {
  EXPECT_FALSE(is_special_file(path_));
  EXPECT_FALSE(is_special_file(directory_.path()));
  EXPECT_FALSE(is_special_file(directory_.write("file", "text")));
  std::filesystem::create_symlink("nowhere", directory_.file("link"));
  EXPECT_FALSE(is_special_file(directory_.file("link")));
}

TEST_F(RegularFileTest, FifosSocketsAndDevicesAre) {
  EXPECT_TRUE(is_special_file("/dev/null"));
  std::filesystem::create_symlink("/dev/null", directory_.file("link"));
  EXPECT_TRUE(is_special_file(directory_.file("link")));
  make_socket();
  EXPECT_TRUE(is_special_file(path_));
  const Fifo fifo(directory_.file("fifo"));
  EXPECT_TRUE(is_special_file(directory_.file("fifo")));
}

TEST_F(RegularFileTest, RewrittenFileIsEmptiedFirst) {
  directory_.write("file", "old");
  FILE* const file = open_to_rewrite(path_);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(fcntl(fileno(file), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(directory_.read("file"), "");
  fclose(file);
}

TEST_F(RegularFileTest, MissingFileIsMade) {
  FILE* const file = open_to_rewrite(path_);
  ASSERT_NE(file, nullptr);
  fclose(file);
  EXPECT_TRUE(directory_.exists("file"));
}

TEST_F(RegularFileTest, FifoIsNotOpenedToRewrite) {
  const Fifo fifo(path_);
  fifo.must_not_hold_up([this] { expect_refusal(); });
}

TEST_F(RegularFileTest, SocketIsNotOpenedToRewrite) {
  make_socket();
  expect_refusal();
}

TEST_F(RegularFileTest, DeviceIsNotOpenedToRewrite) {
  std::filesystem::create_symlink("/dev/null", path_);
  expect_refusal();
}

TEST_F(RegularFileTest, DirectoryHasItsOwnError) {
  EXPECT_EQ(open_to_rewrite(directory_.path()), nullptr);
  EXPECT_EQ(errno, EISDIR);
}

TEST_F(RegularFileTest, FifoIsOpenedToReadWithoutAWriter) {
  const Fifo fifo(path_);
  fifo.must_not_hold_up([this] {
    const FileDescriptor file = open_to_read(path_);
    EXPECT_TRUE(file.valid());
    EXPECT_FALSE(is_regular_file(file));
  });
}
