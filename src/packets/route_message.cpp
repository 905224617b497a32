#include "packets/route_message.h"

#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

#include "packets/family.h"
#include "packets/packet_reader.h"

namespace {

constexpr size_t kAttributeHeader = sizeof(rtattr);
constexpr size_t kAttributeSlots = 11;

static_assert(kAttributeHeader == 4);

// Attributes by type; a slot that is still empty has no data.
using Attributes = std::array<std::span<const uint8_t>, kAttributeSlots>;

size_t align4(size_t length) { return (length + 3) & ~size_t{3}; }

// Walks attributes from the start of `bytes`; `budget` is what their lengths are checked against.
Attributes read_attributes(std::span<const uint8_t> bytes, size_t budget) {
  Attributes attributes;
  budget = std::min(budget, bytes.size());
  size_t offset = 0;
  while (const auto head = PacketReader(bytes.first(budget)).at<rtattr>(offset)) {
    const size_t length = head->rta_len;
    if (length < kAttributeHeader || length > budget - offset) break;
    if (head->rta_type < kAttributeSlots && attributes[head->rta_type].data() == nullptr) {
      attributes[head->rta_type] =
          bytes.subspan(offset + kAttributeHeader, length - kAttributeHeader);
    }
    offset += align4(length);
  }
  return attributes;
}

std::optional<MacAddress> link_address_of(const Attributes& attributes, const std::string& target) {
  const auto address = PacketReader(attributes[NDA_DST]).at<in6_addr>(0);
  if (!address || address_to_text(AF_INET6, &*address) != target) return std::nullopt;
  return PacketReader(attributes[NDA_LLADDR]).at<MacAddress>(0);
}

// `message` starts at a message of `length` bytes and goes on to the end of what was read.
RouteAnswer read_message(std::span<const uint8_t> message, const nlmsghdr& header,
                         const std::string& target, unsigned int ifindex) {
  RouteAnswer answer;
  if (header.nlmsg_type == NLMSG_DONE) {
    answer.kind = RouteAnswer::Kind::kDone;
  } else if (header.nlmsg_type == NLMSG_ERROR) {
    const auto code = PacketReader(message.first(header.nlmsg_len)).at<int32_t>(sizeof(nlmsghdr));
    if (!code) return answer;
    answer.kind = *code == 0 ? RouteAnswer::Kind::kDone : RouteAnswer::Kind::kRefused;
    answer.error = static_cast<int>(0U - static_cast<uint32_t>(*code));
  } else if (message.size() > sizeof(NeighborRequest)) {
    // The budget is the whole message, so the walk may go into the head of the next one: a header
    // makes no attribute that is looked at.
    const auto attributes =
        read_attributes(message.subspan(sizeof(NeighborRequest)), header.nlmsg_len);
    const auto neighbor = PacketReader(message).at<ndmsg>(sizeof(nlmsghdr));
    if (ifindex != 0 && neighbor->ndm_ifindex != static_cast<int>(ifindex)) return answer;
    if (const auto mac = link_address_of(attributes, target)) {
      answer.kind = RouteAnswer::Kind::kFound;
      answer.mac = *mac;
    }
  }
  return answer;
}

}  // namespace

NeighborRequest make_neighbor_request(uint16_t type, uint16_t flags) {
  NeighborRequest request;
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = flags;
  request.neighbor.ndm_family = AF_INET6;
  return request;
}

bool append_attribute(std::vector<uint8_t>& message, uint16_t type, std::span<const uint8_t> data,
                      size_t bound) {
  const size_t start = align4(message.size());
  const size_t length = kAttributeHeader + data.size();
  const size_t end = start + align4(length);
  if (length > UINT16_MAX || end > bound) return false;
  message.resize(end);
  const rtattr head{static_cast<unsigned short>(length), type};
  std::memcpy(message.data() + start, &head, sizeof(head));
  std::copy(data.begin(), data.end(), message.data() + start + kAttributeHeader);
  const auto total = static_cast<uint32_t>(end);
  std::memcpy(message.data() + offsetof(nlmsghdr, nlmsg_len), &total, sizeof(total));
  return true;
}

std::vector<uint8_t> make_request_about(NeighborRequest head, const Family& family,
                                        const std::string& address, unsigned int ifindex) {
  in6_addr bytes{};  // room for an address of either family
  if (address_from_text(family.address_family, address, &bytes) != 1) return {};
  head.neighbor.ndm_family = static_cast<uint8_t>(family.address_family);
  head.neighbor.ndm_ifindex = static_cast<int>(ifindex);
  const auto head_bytes = bytes_of(head);
  std::vector<uint8_t> message(head_bytes.begin(), head_bytes.end());
  const size_t size = family.ipv6 ? sizeof(in6_addr) : sizeof(in_addr);
  append_attribute(message, NDA_DST, bytes_of(bytes).first(size), kNeighborRequestBound);
  return message;
}

RouteAnswer read_route_answer(std::span<const uint8_t> bytes, const std::string& target,
                              unsigned int ifindex) {
  const PacketReader reader(bytes);
  size_t offset = 0;
  while (const auto header = reader.at<nlmsghdr>(offset)) {
    const size_t remaining = bytes.size() - offset;
    if (header->nlmsg_len < sizeof(nlmsghdr) || header->nlmsg_len > remaining) break;
    const RouteAnswer answer = read_message(bytes.subspan(offset), *header, target, ifindex);
    if (answer.kind != RouteAnswer::Kind::kMore) return answer;
    offset += align4(header->nlmsg_len);
  }
  return {};
}

std::optional<uint16_t> read_neighbor_state(std::span<const uint8_t> bytes) {
  const auto answer = PacketReader(bytes).at<NeighborRequest>(0);
  if (!answer || answer->header.nlmsg_type != RTM_NEWNEIGH) return std::nullopt;
  return answer->neighbor.ndm_state;
}
