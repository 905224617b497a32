#include "tests/io/receive_queue.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "packets/icmp_echo.h"
#include "packets/ip_headers.h"
#include "tests/io/packet_socket.h"
#include "tests/io/probes_in_flight.h"

namespace {

// The kernel counts about 800 bytes for a small packet and doubles this: half a second of ten
// thousand packets a second.
constexpr int kQueueSize = 2 << 20;

// A load beyond the end of a packet refuses it.
constexpr size_t kKeyOffset4 = sizeof(Ipv4Header) + offsetof(IcmpEcho, key);
constexpr size_t kTypeOffset6 = offsetof(IcmpEcho, type);
constexpr size_t kKeyOffset6 = offsetof(IcmpEcho, key);

// IPv4: with the IP header. Any type, since a burst takes any.
const sock_filter keys_of_probes4[] = {
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kKeyOffset4),              // the key; too short: refused
    BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, kLargestProbeKey, 1, 0),  // no key is that large
    BPF_STMT(BPF_RET | BPF_K, kWholePacket),                      // pass
    BPF_STMT(BPF_RET | BPF_K, 0),                                 // refuse
};

// IPv6: without a header, echo replies only.
const sock_filter keys_of_probes6[] = {
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kTypeOffset6),             // the ICMPv6 type
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kIcmp6EchoReply, 0, 3),   // another one: refuse
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kKeyOffset6),              // the key; too short: refused
    BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, kLargestProbeKey, 1, 0),  // no key is that large
    BPF_STMT(BPF_RET | BPF_K, kWholePacket),                      // pass
    BPF_STMT(BPF_RET | BPF_K, 0),                                 // refuse
};

std::span<const sock_filter> keys_of_probes(const Family& family) {
  if (family.ipv6) return keys_of_probes6;
  return keys_of_probes4;
}

// A jump on a condition goes 255 instructions far.
constexpr size_t kTestsInReach = 200;

void append_refusals(std::vector<sock_filter>& program, std::span<const uint32_t> devices) {
  program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kByInterface));
  while (!devices.empty()) {
    const auto tested = devices.first(std::min(devices.size(), kTestsInReach));
    devices = devices.subspan(tested.size());
    auto to_refusal = static_cast<uint8_t>(tested.size());
    for (const uint32_t device : tested) {
      program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, device, to_refusal--, 0));
    }
    program.push_back(BPF_STMT(BPF_JMP | BPF_JA, 1));  // by none of them: go on
    program.push_back(BPF_STMT(BPF_RET | BPF_K, 0));   // refuse
  }
}

}  // namespace

void enlarge_receive_queue(int fd) {
  int present = 0;
  socklen_t length = sizeof(present);
  // The kernel tells twice what was set.
  if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &present, &length) == 0 && present >= 2 * kQueueSize) {
    return;
  }
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kQueueSize, sizeof(kQueueSize)) == 0) return;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kQueueSize, sizeof(kQueueSize));
}

void refuse_foreign_messages(int fd, const Family& family, std::span<const uint32_t> devices) {
  const std::span<const sock_filter> keys = keys_of_probes(family);
  std::vector<sock_filter> program;
  if (!devices.empty()) append_refusals(program, devices);
  program.insert(program.end(), keys.begin(), keys.end());
  if (attach_filter(fd, program) || devices.empty()) return;
  // The filter of before may refuse a device that nobody else reads any more.
  refuse_foreign_messages(fd, family);
}
