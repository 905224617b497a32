// What is in a file's place and is no file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "platform/file_descriptor.h"
#include "support/fifo.h"
#include "support/whole_file_fixture.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class WholeFileRefusalTest : public WholeFileFixture {
 protected:
  void expect_refusal() {
    EXPECT_EQ(replace(), (FileReplacement{.opened = true, .error = EINVAL}));
    EXPECT_EQ(call_count("open"), 0);
    EXPECT_EQ(call_count("rename"), 0);
  }
};

}  // namespace

TEST_F(WholeFileRefusalTest, Fifo) {
  const Fifo fifo(path_);
  fifo.must_not_hold_up([this] { expect_refusal(); });
  EXPECT_TRUE(std::filesystem::is_fifo(path_));
  EXPECT_THAT(names(), ElementsAre("routes.conf"));
}

TEST_F(WholeFileRefusalTest, LinkToAFifo) {
  const Fifo fifo(directory_.file("fifo"));
  std::filesystem::create_symlink("fifo", path_);
  fifo.must_not_hold_up([this] { expect_refusal(); });
  EXPECT_TRUE(std::filesystem::is_symlink(path_));
}

TEST_F(WholeFileRefusalTest, Socket) {
  const FileDescriptor socket_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path_.size(), sizeof(address.sun_path));
  path_.copy(address.sun_path, path_.size());
  ASSERT_EQ(bind(socket_fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  expect_refusal();
  EXPECT_TRUE(std::filesystem::is_socket(path_));
}

TEST_F(WholeFileRefusalTest, Device) {
  std::filesystem::create_symlink("/dev/full", path_);
  expect_refusal();
}

// What cannot be opened at all is another matter: there may be no routing daemon.

TEST_F(WholeFileRefusalTest, Directory) {
  std::filesystem::create_directories(path_);
  EXPECT_EQ(replace(), (FileReplacement{.opened = false, .error = EISDIR}));
  EXPECT_THAT(names(), ElementsAre("routes.conf"));
}

TEST_F(WholeFileRefusalTest, MissingDirectory) {
  EXPECT_EQ(replace_file(directory_.file("none/routes.conf"), kNewText),
            (FileReplacement{.opened = false, .error = ENOENT}));
  EXPECT_THAT(names(), IsEmpty());
}
