#include "packets/host_address.h"

#include "packets/packet_reader.h"

HostAddressRequest make_host_address_request() {
  HostAddressRequest request;
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = RTM_GETADDR;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.address.ifa_family = AF_INET6;
  return request;
}

std::optional<HostAddress> read_host_address(const NetlinkMessage& message) {
  const auto head = PacketReader(message.payload).at<ifaddrmsg>(0);
  if (message.header.nlmsg_type != RTM_NEWADDR || !head || head->ifa_family != AF_INET6) {
    return std::nullopt;
  }
  HostAddress found{
      .ifindex = head->ifa_index, .prefix_length = head->ifa_prefixlen, .flags = head->ifa_flags};
  // With a peer, that is the address and the own one is "local".
  std::optional<in6_addr> address;
  std::optional<in6_addr> local;
  auto attributes = message.payload.subspan(sizeof(ifaddrmsg));
  while (const auto attribute = take_attribute(attributes)) {
    const PacketReader data(attribute->data);
    if (attribute->type == IFA_ADDRESS) address = data.at<in6_addr>(0);
    if (attribute->type == IFA_LOCAL) local = data.at<in6_addr>(0);
    if (attribute->type == IFA_FLAGS) found.flags = data.at<uint32_t>(0).value_or(found.flags);
  }
  if (!address && !local) return std::nullopt;
  found.address = local ? *local : *address;
  return found;
}
