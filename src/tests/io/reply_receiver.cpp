#include "tests/io/reply_receiver.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "config/log.h"
#include "packets/family.h"
#include "packets/icmp_echo.h"
#include "platform/clock.h"
#include "tests/io/detached_thread.h"
#include "tests/io/probes_in_flight.h"
#include "tests/io/receive_queue.h"

namespace {

constexpr size_t kReceiveSize = 65535;

constexpr timespec kCatchUpPause{0, 1000000};
constexpr int kCatchUpPauses = 200;

template <class Family>
struct ReceiverTraits;

template <>
struct ReceiverTraits<Ipv4> {
  static constexpr const char* kOperation = "recv_icmp";
  static bool wait_failed(int result) { return result < 1; }
  static std::optional<uint32_t> key(std::span<const uint8_t> packet) {
    return echo_reply_key(packet);
  }
};

template <>
struct ReceiverTraits<Ipv6> {
  static constexpr const char* kOperation = "recv_icmp6";
  // A failed wait goes on to the read, whose own failure then tells what is wrong.
  static bool wait_failed(int result) { return result == 0; }
  static std::optional<uint32_t> key(std::span<const uint8_t> packet) {
    return echo6_reply_key(packet);
  }
};

template <class Family>
void receive_replies(InterfaceSockets& sockets) {
  using Traits = ReceiverTraits<Family>;
  enlarge_receive_queue(sockets.recv_socket.get());
  // On the heap: a thread's stack may be small, and the buffer belongs to this thread alone.
  std::vector<uint8_t> buffer(kReceiveSize);
  pollfd waiting{};
  waiting.fd = sockets.recv_socket.get();
  waiting.events = POLLIN;
  while (true) {
    // poll, not select: a descriptor above 1023 does not fit into a descriptor set. A socket that
    // could never be made counts as a failed wait.
    const int ready = waiting.fd < 0 ? -1 : poll(&waiting, 1, -1);
    if (Traits::wait_failed(ready)) {
      LB_ERROR("select for %s failed!!!!!", Family::kName);
      return;
    }
    // Bursts read the same socket: one may have taken what was waited for.
    const bool may_block = ready < 0;
    if (!may_block) sockets.receiver_stage = ReceiverStage::kReading;
    const ssize_t received =
        recv(waiting.fd, buffer.data(), buffer.size(), may_block ? 0 : MSG_DONTWAIT);
    if (received < 0 && !may_block && errno == EAGAIN) {
      sockets.receiver_stage = ReceiverStage::kWaiting;
      continue;
    }
    if (received < 1) {
      LB_ERROR("recv for %s failed!!!!!", Family::kName);
      return;
    }
    const auto key = Traits::key({buffer.data(), static_cast<size_t>(received)});
    if (key) {
      const bool locked = sockets.mutex.lock<Family>(Traits::kOperation);
      probes_in_flight<Family>().mark_answered(*key);
      if (locked) sockets.mutex.unlock<Family>(Traits::kOperation);
    }
    sockets.receiver_stage = ReceiverStage::kWaiting;
  }
}

// The queue is looked at first: what has left it since is still being read.
bool has_unread_reply(const InterfaceSockets& sockets) {
  pollfd queue{sockets.recv_socket.get(), POLLIN, 0};
  return (poll(&queue, 1, 0) > 0 && (queue.revents & POLLIN) != 0) ||
         sockets.receiver_stage == ReceiverStage::kReading;
}

template <class Family>
void* receiver_thread(void* argument) {
  const std::unique_ptr<std::shared_ptr<InterfaceSockets>> sockets(
      static_cast<std::shared_ptr<InterfaceSockets>*>(argument));
  (*sockets)->receiver_stage = ReceiverStage::kWaiting;
  receive_replies<Family>(**sockets);
  (*sockets)->receiver_stage = ReceiverStage::kAbsent;
  (*sockets)->receiver_running = false;
  return nullptr;
}

}  // namespace

template <class Family>
void ensure_receiver(const std::string& ifname) {
  const auto sockets = SocketRegistry<Family>::acquire(ifname);
  if (sockets->receiver_running.exchange(true)) return;
  auto argument = std::make_unique<std::shared_ptr<InterfaceSockets>>(sockets);
  const DetachedThread thread = start_detached_thread(receiver_thread<Family>, argument.get());
  if (thread.create_result == 0) {
    argument.release();  // NOLINT(bugprone-unused-return-value): the thread owns it now
  } else {
    LB_ERROR("Can't create new thread for icmp recv");
  }
  if (thread.detach_result != 0) LB_ERROR("Can't detach thread for icmp recv");
}

void let_receiver_catch_up(const InterfaceSockets& sockets) {
  for (int pauses = 0; pauses < kCatchUpPauses; ++pauses) {
    if (sockets.receiver_stage == ReceiverStage::kAbsent || !has_unread_reply(sockets)) return;
    sleep_for(kCatchUpPause);
  }
}

template void ensure_receiver<Ipv4>(const std::string&);
template void ensure_receiver<Ipv6>(const std::string&);
