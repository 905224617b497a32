// A kernel that answers dumps of route netlink as a test says.
#pragma once

#include <deque>
#include <vector>

#include "support/dump_messages.h"
#include "support/fake_sockets.h"

class DumpAnswers : public FakeSockets {
 public:
  DumpAnswers() {
    add_hook(wrapped::send, [this](int fd, const void* data, size_t size, int) {
      requests.push_back({fd, to_bytes(data, size)});
      return static_cast<ssize_t>(size);
    });
    add_hook(wrapped::recv, [this](int, void* data, size_t size, int flags) {
      return receive(data, size, flags);
    });
  }
  ~DumpAnswers() { remove_hooks(); }

  // One read each; after the last, the time is over.
  std::deque<Bytes> reads;

  // What was asked, and through which socket.
  std::vector<std::pair<int, Bytes>> requests;

 private:
  ssize_t receive(void* data, size_t size, int flags) {
    EXPECT_EQ(flags, MSG_TRUNC);
    if (reads.empty()) {
      errno = EAGAIN;
      return -1;
    }
    const Bytes bytes = reads.front();
    reads.pop_front();
    std::copy_n(bytes.begin(), std::min(size, bytes.size()), static_cast<uint8_t*>(data));
    return static_cast<ssize_t>(bytes.size());
  }
};
