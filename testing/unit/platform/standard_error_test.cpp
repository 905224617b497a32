#include "platform/standard_error.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <future>
#include <string>

#include "platform/file_descriptor.h"
#include "support/captured_stderr.h"

using namespace std::chrono_literals;

namespace {

// A pipe in the place of standard error while it lives.
class PipedStandardError {
 public:
  PipedStandardError() {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    reader_ = FileDescriptor(ends[0]);
    EXPECT_GE(dup2(ends[1], STDERR_FILENO), 0);
    close(ends[1]);
  }
  ~PipedStandardError() { dup2(kept_.get(), STDERR_FILENO); }

  void fill() const {
    fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);
    const std::string page(4096, 'x');
    while (write(STDERR_FILENO, page.data(), page.size()) > 0) {
    }
    fcntl(STDERR_FILENO, F_SETFL, 0);
  }

  // One read's worth.
  std::string text() const {
    std::string text(1 << 20, '\0');
    const ssize_t length = read(reader_.get(), text.data(), text.size());
    text.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return text;
  }

 private:
  const FileDescriptor kept_{dup(STDERR_FILENO)};
  FileDescriptor reader_;
};

}  // namespace

TEST(StandardErrorTest, TextIsPrintedAndErrnoKept) {
  CapturedStderr captured;
  errno = ENOTTY;
  print_on_standard_error("sendto() failed: 100 %s\n");
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_EQ(captured.text(), "sendto() failed: 100 %s\n");
}

TEST(StandardErrorTest, NobodyWaitsForAReaderThatDoesNotRead) {
  const PipedStandardError piped;
  piped.fill();
  std::future<void> done =
      std::async(std::launch::async, [] { print_on_standard_error("lost\n"); });
  EXPECT_EQ(done.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(piped.text().find("lost"), std::string::npos);  // lets one that waits go on
  print_on_standard_error("read again\n");
  EXPECT_EQ(piped.text(), "read again\n");
}
