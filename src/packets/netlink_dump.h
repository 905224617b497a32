// What a dump of route netlink is made of (RFC 3549 sections 2.2 and 3.1, rtnetlink(7)): messages,
// and the attributes in them. The heads are drawn in route_message.h. All fields are in host byte
// order.
#pragma once

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <optional>
#include <span>

struct NetlinkMessage {
  nlmsghdr header{};
  std::span<const uint8_t> payload;  // what follows the header, without the padding
};

struct NetlinkAttribute {
  uint16_t type = 0;  // without the flags of NLA_TYPE_MASK
  std::span<const uint8_t> data;
};

// Both take the next whole one from the front of `bytes`; nothing, and no change, when the rest
// holds none. Nothing beyond `bytes` is read. Unaligned bytes do.
std::optional<NetlinkMessage> take_message(std::span<const uint8_t>& bytes);
std::optional<NetlinkAttribute> take_attribute(std::span<const uint8_t>& bytes);

// What a message says about the dump that it stands in.
struct DumpProgress {
  enum class Kind {
    kEntry,  // nothing: it is one of the entries
    kDone,   // it was the last
    kRefused,
  };
  Kind kind = Kind::kEntry;
  int error = 0;             // of a refusal, an errno value
  bool interrupted = false;  // the table changed meanwhile: entries may be missing, or there twice
};

DumpProgress read_progress(const NetlinkMessage& message);
