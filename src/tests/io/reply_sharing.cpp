#include "tests/io/reply_sharing.h"

#include <sys/socket.h>

#include <limits>
#include <utility>
#include <vector>

#include "tests/io/device_index.h"
#include "tests/io/message_filter.h"
#include "tests/io/network_cookie.h"
#include "tests/io/receive_queue.h"

namespace {

// An index that no device has: the kernel counts them from 1.
constexpr int kNoDevice = std::numeric_limits<int>::max();

// 0: to none, so that messages by every device come. False when the kernel refuses.
bool bind_to_device(int fd, int ifindex) {
  return setsockopt(fd, SOL_SOCKET, SO_BINDTOIFINDEX, &ifindex, sizeof(ifindex)) == 0;
}

}  // namespace

void ReplySharing::follow(int fd, const std::string& ifname) {
  const int ifindex = device_index(fd, ifname);
  MutexLock lock(mutex_);
  Network* const network = join(fd);
  if (network == nullptr || network->collector == fd) return;
  int& bound = network->bound.at(fd);
  if (ifindex == 0 || ifindex == bound) return;
  // The device of before may live on under another name: from now on it is nobody's.
  const int before = std::exchange(bound, 0);
  if (before != 0) leave_others_theirs(*network);
  bound = bind_to_device(fd, ifindex) ? ifindex : before;
  if (bound != 0) leave_others_theirs(*network);
}

void ReplySharing::leave(int fd) {
  MutexLock lock(mutex_);
  const auto left = cookies_.extract(fd);
  if (left.empty()) return;
  Network& network = networks_.at(left.mapped());
  network.bound.erase(fd);
  if (network.collector == fd) {
    network.collector = kNobody;
    choose_collector(network);
  } else if (network.collector != kNobody) {
    leave_others_theirs(network);
  }
  if (network.collector == kNobody && network.bound.empty()) networks_.erase(left.mapped());
}

ReplySharing::Network* ReplySharing::join(int fd) {
  if (const auto known = cookies_.find(fd); known != cookies_.end()) {
    return &networks_.at(known->second);
  }
  const auto cookie = network_cookie(fd);
  if (!cookie) return nullptr;
  Network& network = networks_[*cookie];
  const bool collects = network.collector == kNobody && make_collector(network, fd);
  if (!collects) {
    if (!bind_to_device(fd, kNoDevice)) return nullptr;
    network.bound[fd] = 0;
    refuse_foreign_messages(fd, family_);
  }
  take_echo_replies_only(fd, family_);
  cookies_[fd] = *cookie;
  return &network;
}

void ReplySharing::choose_collector(Network& network) const {
  const std::map<int, int> candidates = network.bound;
  for (const auto& [fd, ifindex] : candidates) {
    network.bound.erase(fd);
    if (make_collector(network, fd)) return;
    network.bound[fd] = ifindex;
  }
}

bool ReplySharing::make_collector(Network& network, int fd) const {
  network.collector = fd;
  leave_others_theirs(network);
  if (bind_to_device(fd, 0)) return true;
  network.collector = kNobody;
  return false;
}

void ReplySharing::leave_others_theirs(const Network& network) const {
  std::vector<uint32_t> devices;
  for (const auto& [fd, ifindex] : network.bound) {
    if (ifindex != 0) devices.push_back(static_cast<uint32_t>(ifindex));
  }
  refuse_foreign_messages(network.collector, family_, devices);
}

ReplySharing& reply_sharing(const Family& family) {
  // Leaked on purpose: receiver threads are detached and may outlive static destruction.
  static ReplySharing& ipv4 = *new ReplySharing(kIpv4);
  static ReplySharing& ipv6 = *new ReplySharing(kIpv6);
  return family.ipv6 ? ipv6 : ipv4;
}
