#include "tests/io/reply_receiver.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <optional>
#include <vector>

#include "config/log.h"
#include "packets/icmp_echo.h"
#include "platform/clock.h"
#include "tests/io/detached_thread.h"
#include "tests/io/probes_in_flight.h"
#include "tests/io/receive_queue.h"

namespace {

constexpr timespec kCatchUpPause{0, 1000000};

// While it exists the receiver is reading; then it waits again.
class ReadingGuard {
 public:
  explicit ReadingGuard(InterfaceSockets& sockets) : sockets_(sockets) {
    sockets_.receiver_state = ReceiverState::kReading;
  }
  ~ReadingGuard() { sockets_.receiver_state = ReceiverState::kWaiting; }
  ReadingGuard(const ReadingGuard&) = delete;
  ReadingGuard& operator=(const ReadingGuard&) = delete;

 private:
  InterfaceSockets& sockets_;
};

// Reads replies until waiting or reading fails.
class ReplyReader {
 public:
  explicit ReplyReader(InterfaceSockets& sockets)
      : sockets_(sockets),
        family_(sockets.family),
        buffer_(std::make_unique_for_overwrite<uint8_t[]>(kLargestReply)) {
    enlarge_receive_queue(socket());
  }

  void run() {
    while (true) {
      const Wait wait = wait_for_packet();
      if (wait == Wait::kOver) return;
      if (!take_packet(wait == Wait::kFailed)) return;
    }
  }

 private:
  enum class Wait { kReady, kFailed, kOver };

  int socket() const { return sockets_.recv_socket.get(); }

  // poll, not select: a descriptor above 1023 does not fit into a descriptor set. A socket that
  // could never be made counts as a failed wait. For IPv6 a failed wait goes on to the read, whose
  // own failure then tells what is wrong.
  Wait wait_for_packet() const {
    pollfd waiting{socket(), POLLIN, 0};
    const int ready = socket() < 0 ? -1 : poll(&waiting, 1, -1);
    if (ready > 0) return Wait::kReady;
    if (ready < 0 && family_.ipv6) return Wait::kFailed;
    LB_ERROR("select for %s failed!!!!!", family_.name);
    return Wait::kOver;
  }

  // Reads one packet and marks the probe that it answers. False when reading failed. A packet with
  // a wrong checksum is waited for but not given, so only a failed wait may block.
  bool take_packet(bool may_block) {
    std::optional<ReadingGuard> reading;
    if (!may_block) reading.emplace(sockets_);
    const ReceivedReply reply =
        sockets_.replies.receive(socket(), family_, {buffer_.get(), kLargestReply},
                                 may_block ? 0 : MSG_DONTWAIT, /*asks_sender=*/false);
    switch (reply.kind) {
      case ReceivedReply::Kind::kNothing:
        return true;
      case ReceivedReply::Kind::kFailed:
        LB_ERROR("recv for %s failed!!!!!", family_.name);
        return false;
      case ReceivedReply::Kind::kPacket:
        mark_answered(reply);
        return true;
    }
    return true;
  }

  void mark_answered(const ReceivedReply& reply) {
    const auto key = family_.ipv6 ? echo6_reply_key(reply.packet) : echo_reply_key(reply.packet);
    if (!key) return;
    const char* const operation = family_.ipv6 ? "recv_icmp6" : "recv_icmp";
    const bool locked = sockets_.mutex.lock(operation);
    probes_in_flight(family_).mark_answered(*key, [&](const PendingProbe& probe) {
      return sockets_.replies.answers(family_, sockets_.ifname, reply.sender, probe);
    });
    if (locked) sockets_.mutex.unlock(operation);
  }

  InterfaceSockets& sockets_;
  const Family& family_;
  // On the heap: a thread's stack may be small, and the buffer belongs to this thread alone.
  const std::unique_ptr<uint8_t[]> buffer_;
};

bool runs(ReceiverState state) {
  return state == ReceiverState::kWaiting || state == ReceiverState::kReading;
}

// Of any receiver of the namespace that runs, since a reply may come by another interface than its
// probe left by. The queues are looked at first: what has left them since is still being read.
bool has_unread_reply(const InterfaceSockets& own) {
  auto all = all_sockets(own.family);
  std::erase_if(all, [&](const auto& sockets) { return sockets->network != own.network; });
  std::vector<pollfd> queues;
  for (const auto& sockets : all) {
    if (runs(sockets->receiver_state)) queues.push_back({sockets->recv_socket.get(), POLLIN, 0});
  }
  const bool is_queued = poll(queues.data(), queues.size(), 0) > 0 &&
                         std::any_of(queues.begin(), queues.end(), [](const pollfd& queue) {
                           return (queue.revents & POLLIN) != 0;
                         });
  return is_queued || std::any_of(all.begin(), all.end(), [](const auto& sockets) {
           return sockets->receiver_state == ReceiverState::kReading;
         });
}

void* receiver_thread(void* argument) {
  const std::unique_ptr<std::shared_ptr<InterfaceSockets>> sockets(
      static_cast<std::shared_ptr<InterfaceSockets>*>(argument));
  ReplyReader(**sockets).run();
  (*sockets)->replies.leave((*sockets)->recv_socket.get(), (*sockets)->family);
  (*sockets)->receiver_state = ReceiverState::kAbsent;
  return nullptr;
}

}  // namespace

void ensure_receiver(const Family& family, const std::string& ifname) {
  const auto sockets = sockets_of(family, ifname);
  ReceiverState absent = ReceiverState::kAbsent;
  if (!sockets->receiver_state.compare_exchange_strong(absent, ReceiverState::kWaiting)) return;
  auto argument = std::make_unique<std::shared_ptr<InterfaceSockets>>(sockets);
  const DetachedThread thread = start_detached_thread(receiver_thread, argument.get());
  if (thread.create_result == 0) {
    argument.release();  // NOLINT(bugprone-unused-return-value): the thread owns it now
  } else {
    sockets->receiver_state = ReceiverState::kFailed;
    sockets->replies.leave(sockets->recv_socket.get(), family);
    LB_ERROR("Can't create new thread for icmp recv");
  }
  if (thread.detach_result != 0) LB_ERROR("Can't detach thread for icmp recv");
}

void let_receivers_catch_up(const InterfaceSockets& sockets, int& milliseconds) {
  const timespec start = monotonic_now();
  const int budget = milliseconds;
  while (milliseconds > 0 && has_unread_reply(sockets)) {
    sleep_for(kCatchUpPause);
    // A pause on a busy machine takes longer than it should.
    const int64_t passed = std::max<int64_t>(1, elapsed_milliseconds(start, monotonic_now()));
    milliseconds = static_cast<int>(std::max<int64_t>(0, budget - passed));
  }
}
