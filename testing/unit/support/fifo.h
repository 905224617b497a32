// A FIFO in the place of a file, and whether it holds up who comes across it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <future>
#include <string>
#include <utility>

#include "platform/file_descriptor.h"

class Fifo {
 public:
  // Missing directories are the caller's to make.
  explicit Fifo(std::string path) : path_(std::move(path)) {
    EXPECT_EQ(mkfifo(path_.c_str(), 0600), 0) << path_;
  }

  // Runs `work` in a thread of its own. It is a failure when that is not done after ten seconds;
  // the FIFO gets its other end then, so that the test goes on.
  template <typename Work>
  void must_not_hold_up(Work work) const {
    using namespace std::chrono_literals;
    std::future<void> done = std::async(std::launch::async, [&work] {
      // Who writes may find that the other end has gone again.
      sigset_t broken_pipe;
      sigemptyset(&broken_pipe);
      sigaddset(&broken_pipe, SIGPIPE);
      pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
      work();
    });
    if (done.wait_for(10s) != std::future_status::ready) {
      ADD_FAILURE() << path_ << " is waited for";
      do {
        const FileDescriptor other_end(open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC, 0));
      } while (done.wait_for(50ms) != std::future_status::ready);
    }
    done.get();
  }

 private:
  const std::string path_;
};
