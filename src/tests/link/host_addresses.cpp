#include "tests/link/host_addresses.h"

#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>

namespace {

// At most so many messages are looked at before the list is read, however many come.
constexpr int kMostMessages = 1000;

FileDescriptor open_changes() {
  FileDescriptor fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  if (fd.valid() &&
      bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    fd.reset();
  }
  return fd;
}

// False for an entry without an address of either family.
bool read_address(const ifaddrs& entry, InterfaceAddress& address) {
  if (entry.ifa_addr == nullptr) return false;
  address.ifname = entry.ifa_name;
  address.family = entry.ifa_addr->sa_family;
  if (address.family == AF_INET) {
    sockaddr_in found;
    std::memcpy(&found, entry.ifa_addr, sizeof(found));
    std::memcpy(&address.bytes, &found.sin_addr, sizeof(found.sin_addr));
    return true;
  }
  if (address.family != AF_INET6) return false;
  sockaddr_in6 found;
  std::memcpy(&found, entry.ifa_addr, sizeof(found));
  address.bytes = found.sin6_addr;
  return true;
}

}  // namespace

const InterfaceAddress* HostAddresses::find(
    const std::string& beginning,
    const std::function<bool(const InterfaceAddress&)>& wanted) const {
  const Entry* first = nullptr;
  auto entry = std::lower_bound(
      by_name_.begin(), by_name_.end(), beginning,
      [](const Entry& each, const std::string& name) { return each.address.ifname < name; });
  for (; entry != by_name_.end() && entry->address.ifname.starts_with(beginning); ++entry) {
    if ((first == nullptr || entry->place < first->place) && wanted(entry->address))
      first = &*entry;
  }
  return first == nullptr ? nullptr : &first->address;
}

bool HostAddresses::refresh() {
  if (is_read_ && changes_.valid() && !has_changed()) return true;
  // Before the list is read: what changes meanwhile is told of.
  if (!changes_.valid()) changes_ = open_changes();
  is_read_ = false;
  by_name_.clear();
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return false;
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, &freeifaddrs);
  size_t place = 0;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next, ++place) {
    InterfaceAddress address;
    if (read_address(*entry, address)) by_name_.push_back({std::move(address), place});
  }
  std::stable_sort(by_name_.begin(), by_name_.end(), [](const Entry& a, const Entry& b) {
    return a.address.ifname < b.address.ifname;
  });
  is_read_ = true;
  return true;
}

bool HostAddresses::has_changed() const {
  std::array<uint8_t, 1> beginning;  // what it is about does not matter
  int messages = 0;
  // An error is also told once: messages that found no room.
  while (messages < kMostMessages &&
         (recv(changes_.get(), beginning.data(), beginning.size(), MSG_DONTWAIT) >= 0 ||
          errno != EAGAIN)) {
    ++messages;
  }
  return messages > 0;
}
