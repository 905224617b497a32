// Route-netlink messages about neighbours (RFC 3549 sections 2.2 and 3.1.3, rtnetlink(7)). All
// fields are in host byte order.
//
//  0                   1                   2                   3
//  0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
// +---------------------------------------------------------------+
// |                         Message length                        |
// +-------------------------------+-------------------------------+
// |              Type             |             Flags             |
// +-------------------------------+-------------------------------+
// |                        Sequence number                        |
// +---------------------------------------------------------------+
// |                            Port id                            |
// +---------------+-----------------------------------------------+
// |     Family    |                    Padding                    |
// +---------------+-----------------------------------------------+
// |                        Interface index                        |
// +-------------------------------+---------------+---------------+
// |             State             |     Flags     |      Type     |
// +-------------------------------+---------------+---------------+
// |        Attribute length       |         Attribute type        |
// +-------------------------------+-------------------------------+
// |                  Attribute data, padded to 4 ...              |
#pragma once

#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "packets/ethernet.h"
#include "packets/family.h"

struct NeighborRequest {
  nlmsghdr header{};
  ndmsg neighbor{};
};

static_assert(sizeof(nlmsghdr) == 16);
static_assert(sizeof(ndmsg) == 12);
static_assert(sizeof(NeighborRequest) == 28);

// Header, neighbour message and an attribute area of 1 MiB.
inline constexpr size_t kNeighborRequestBound = sizeof(NeighborRequest) + 1048576;

// A request of this type and these flags on the IPv6 neighbour table; everything else is 0.
NeighborRequest make_neighbor_request(uint16_t type, uint16_t flags);

// Appends an attribute to `message`, which begins with a netlink header whose length is brought up
// to date. False, and no change, when the message would grow beyond `bound` bytes.
bool append_attribute(std::vector<uint8_t>& message, uint16_t type, std::span<const uint8_t> data,
                      size_t bound);

// A request about the one neighbour `address` (its text) of the family on the interface with index
// `ifindex`; empty when the text is no address of the family.
std::vector<uint8_t> make_request_about(NeighborRequest head, const Family& family,
                                        const std::string& address, unsigned int ifindex);

// What one read of an answer says.
struct RouteAnswer {
  enum class Kind {
    kMore,     // nothing final: read on
    kDone,     // the end of the answer, or an acknowledgement
    kRefused,  // the kernel's refusal: `error` is an errno value
    kFound,    // an entry for the target: `mac` is its link-layer address
  };
  Kind kind = Kind::kMore;
  int error = 0;
  MacAddress mac{};
};

// Walks the messages of one read up to the first that is final. An entry counts when its address,
// as canonical text, is `target`, it is one of the interface with index `ifindex` (0: of any), and
// it has a link-layer address, whatever its state. A message whose length cannot be right ends the
// walk; nothing beyond `bytes` is read. Unaligned bytes do.
RouteAnswer read_route_answer(std::span<const uint8_t> bytes, const std::string& target,
                              unsigned int ifindex = 0);

// The state (NUD_*) of the one neighbour that an answer tells; nothing when it tells none.
std::optional<uint16_t> read_neighbor_state(std::span<const uint8_t> bytes);
