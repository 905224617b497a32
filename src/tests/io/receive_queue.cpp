#include "tests/io/receive_queue.h"

#include <sys/socket.h>

#include <cstddef>

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
sock_filter keys_of_probes4[] = {
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kKeyOffset4),              // the key; too short: refused
    BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, kLargestProbeKey, 1, 0),  // no key is that large
    BPF_STMT(BPF_RET | BPF_K, kWholePacket),                      // pass
    BPF_STMT(BPF_RET | BPF_K, 0),                                 // refuse
};

// IPv6: without a header, echo replies only.
sock_filter keys_of_probes6[] = {
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kTypeOffset6),             // the ICMPv6 type
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kIcmp6EchoReply, 0, 3),   // another one: refuse
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kKeyOffset6),              // the key; too short: refused
    BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, kLargestProbeKey, 1, 0),  // no key is that large
    BPF_STMT(BPF_RET | BPF_K, kWholePacket),                      // pass
    BPF_STMT(BPF_RET | BPF_K, 0),                                 // refuse
};

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

void refuse_foreign_messages(int fd, const Family& family) {
  if (family.ipv6) {
    attach_filter(fd, keys_of_probes6);
  } else {
    attach_filter(fd, keys_of_probes4);
  }
}
