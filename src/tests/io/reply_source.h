// Where replies to probes are read from.
//
//   raw   the documented raw ICMP socket: what the kernel lets through to its network namespace, by
//         whichever interface it came
//   wire  a packet socket on the interface: what came over its wire to this host, before
//         reverse-path filters and firewalls look at it
//
// Both have no state. Which one an interface's tests use is chosen where its sockets are made.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "packets/family.h"
#include "platform/file_descriptor.h"
#include "tests/io/probes_in_flight.h"
#include "tests/io/socket_address.h"

// Room for the largest packet that IP can carry.
inline constexpr size_t kLargestReply = 65535;

// What a read gave.
struct ReceivedReply {
  enum class Kind {
    kPacket,
    kNothing,  // that could be a reply; the next read may give one
    kFailed,   // with errno set
  };

  Kind kind = Kind::kNothing;
  // As a raw ICMP socket delivers it: IPv4 with 20 bytes of header before the message, IPv6
  // without.
  std::span<const uint8_t> packet;  // of the caller's buffer
  SocketAddress sender;             // raw: only where it was asked for
};

struct ReplySource {
  // A socket of the calling thread's network namespace that receives replies to probes of `ifname`,
  // and as little else as the kernel can tell. Not valid on failure, with errno set. The device
  // need not exist yet.
  FileDescriptor (*open)(const Family& family, const std::string& ifname);

  // Lets the socket go on with the device that has the name now. For whoever is about to send a
  // probe; another thread may be reading meanwhile. From the first call on the socket is that of
  // the receiver of `ifname`, until `leave`.
  void (*follow)(int fd, const Family& family, const std::string& ifname);

  // No receiver reads the socket any more, which may be closed then.
  void (*leave)(int fd, const Family& family);

  // Reads one packet; with MSG_DONTWAIT among `flags` (recv(2)) it never waits.
  ReceivedReply (*receive)(int fd, const Family& family, std::span<uint8_t> buffer, int flags,
                           bool asks_sender);

  // Whether a reply with the probe's key that came by `ifname` answers it.
  bool (*answers)(const Family& family, const std::string& ifname, const SocketAddress& sender,
                  const PendingProbe& probe);
};

extern const ReplySource kRawReplies;
extern const ReplySource kWireReplies;
