#include "support/fake_network.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

namespace {

// In the place of the tracker's socket; only its address is used.
alignas(16) char the_tracker_socket[64];

mnl_socket* tracker_socket() { return reinterpret_cast<mnl_socket*>(the_tracker_socket); }

FakeNetwork::Bytes to_bytes(const void* data, size_t size) {
  const auto* begin = static_cast<const uint8_t*>(data);
  return {begin, begin + size};
}

template <class Record>
void append(FakeNetwork::Bytes& bytes, const Record& record) {
  const auto more = to_bytes(&record, sizeof(record));
  bytes.insert(bytes.end(), more.begin(), more.end());
}

struct ThreadStart {
  WrappedThreadStart body;
  void* argument;
  std::shared_ptr<std::atomic<int>> live;
};

void* run_counted(void* argument) {
  const std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(argument));
  void* const result = start->body(start->argument);
  --*start->live;
  return result;
}

template <class Signature, class Function>
std::shared_ptr<void> hook(WrappedCall<Signature>& call, Function function) {
  return std::make_shared<CallHook<Signature>>(call, std::move(function));
}

}  // namespace

FakeNetwork::FakeNetwork() {
  hooks_ = {
      hook(wrapped::socket, [this](int domain, int type,
                                   int protocol) { return open_socket(domain, type, protocol); }),
      hook(wrapped::bind, [](int, const sockaddr*, socklen_t) { return 0; }),
      hook(wrapped::setsockopt,
           [this](int fd, int level, int name, const void* value, socklen_t size) {
             const std::lock_guard lock(mutex_);
             options.push_back({fd, level, name, to_bytes(value, size)});
             return 0;
           }),
      hook(wrapped::sendto,
           [this](int fd, const void* data, size_t size, int, const sockaddr* address,
                  socklen_t address_size) {
             const std::lock_guard lock(mutex_);
             sent.push_back({fd, to_bytes(data, size), to_bytes(address, address_size)});
             if (on_frame) on_frame(sent.back().bytes);
             return static_cast<ssize_t>(size);
           }),
      hook(wrapped::sendmsg,
           [this](int fd, const msghdr*, int) {
             answer_route_request(fd);
             return ssize_t{1};
           }),
      hook(wrapped::ioctl, [this](int, unsigned long request,
                                  void* argument) { return answer_ioctl(request, argument); }),
      hook(wrapped::if_nametoindex, [this](const char*) { return interface_index; }),
      hook(wrapped::getifaddrs, [this](ifaddrs** result) { return list_addresses(result); }),
      hook(wrapped::gethostbyname2_r,
           [this](const char* name, int family, hostent* entry, char* buffer, size_t size,
                  hostent** result, int* error) {
             return resolve(name, family, entry, buffer, size, result, error);
           }),
      hook(wrapped::mnl_socket_open2, [](int, int) { return tracker_socket(); }),
      hook(wrapped::mnl_socket_bind, [](mnl_socket*, unsigned, pid_t) { return 0; }),
      hook(wrapped::mnl_socket_get_portid, [](const mnl_socket*) { return 4711u; }),
      hook(wrapped::mnl_socket_sendto,
           [this](const mnl_socket*, const void* data, size_t size) {
             const std::lock_guard lock(mutex_);
             conntrack_requests.push_back(to_bytes(data, size));
             return static_cast<ssize_t>(size);
           }),
      hook(wrapped::mnl_socket_recvfrom,
           [this](const mnl_socket*, void* data, size_t) {
             const std::lock_guard lock(mutex_);
             nlmsghdr asked;
             std::memcpy(&asked, conntrack_requests.back().data(), sizeof(asked));
             nlmsgerr error{-conntrack_answer, asked};
             const nlmsghdr header{NLMSG_LENGTH(sizeof(error)), NLMSG_ERROR, 0, asked.nlmsg_seq,
                                   4711};
             std::memcpy(data, &header, sizeof(header));
             std::memcpy(static_cast<char*>(data) + NLMSG_HDRLEN, &error, sizeof(error));
             return static_cast<ssize_t>(header.nlmsg_len);
           }),
      hook(wrapped::mnl_socket_close, [](mnl_socket*) { return 0; }),
      hook(wrapped::pthread_create,
           [this](pthread_t* thread, const pthread_attr_t*, WrappedThreadStart body,
                  void* argument) { return start_thread(thread, body, argument); }),
  };
}

FakeNetwork::~FakeNetwork() {
  end_threads();
  for (const Socket& socket : sockets) {
    if (socket.peer >= 0) wrapped::close.real(socket.peer);
  }
}

void FakeNetwork::end_threads() {
  for (const Socket& socket : sockets) ::shutdown(socket.peer, SHUT_RDWR);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (live_threads() > 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ADD_FAILURE() << live_threads() << " threads do not end";
      return;
    }
    sched_yield();
  }
}

int FakeNetwork::open_socket(int domain, int type, int protocol) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return -1;
  const int flags = SOCK_CLOEXEC | SOCK_NONBLOCK;
  const std::lock_guard lock(mutex_);
  sockets.push_back(
      {pair[0], pair[1], domain, type & ~flags, protocol, (type & SOCK_CLOEXEC) != 0});
  return pair[0];
}

const FakeNetwork::Socket& FakeNetwork::socket_of(int fd) const {
  static const Socket none;
  const auto found = std::find_if(sockets.rbegin(), sockets.rend(),
                                  [fd](const Socket& socket) { return socket.fd == fd; });
  if (found != sockets.rend()) return *found;
  ADD_FAILURE() << "no socket has the descriptor " << fd;
  return none;
}

FakeNetwork::Socket FakeNetwork::last_socket(int domain, int type, int protocol) const {
  const std::lock_guard lock(mutex_);
  for (auto socket = sockets.rbegin(); socket != sockets.rend(); ++socket) {
    if (socket->domain == domain && socket->type == type && socket->protocol == protocol) {
      return *socket;
    }
  }
  return {};
}

std::vector<int> FakeNetwork::option_names(int fd) const {
  std::vector<int> names;
  for (const Option& option : options) {
    if (option.fd == fd) names.push_back(option.name);
  }
  return names;
}

void FakeNetwork::deliver(const Socket& socket, const Bytes& packet) {
  const ssize_t written = ::write(socket.peer, packet.data(), packet.size());
  EXPECT_EQ(written, static_cast<ssize_t>(packet.size()));
}

bool FakeNetwork::is_closed(const Socket& socket) {
  char byte;
  return wrapped::recv.real(socket.peer, &byte, 1, MSG_DONTWAIT) == 0;
}

int FakeNetwork::answer_ioctl(unsigned long request, void* argument) {
  const std::lock_guard lock(mutex_);
  const int call = ioctl_calls[request]++;
  if (on_question) on_question();
  if (const auto error = ioctl_errors.find(request); error != ioctl_errors.end()) {
    errno = error->second;
    return -1;
  }
  auto* interface = static_cast<ifreq*>(argument);
  switch (request) {
    case SIOCGIFFLAGS:
      interface->ifr_flags = static_cast<short>(IFF_UP | (no_arp ? IFF_NOARP : 0));
      return 0;
    case SIOCGIFHWADDR:
      interface->ifr_hwaddr.sa_family = ARPHRD_ETHER;
      std::copy(own_mac.begin(), own_mac.end(), interface->ifr_hwaddr.sa_data);
      return 0;
    case SIOCGIFADDR: {
      sockaddr_in address{};
      address.sin_family = AF_INET;
      inet_pton(AF_INET, own_address.c_str(), &address.sin_addr);
      std::memcpy(&interface->ifr_addr, &address, sizeof(address));
      return 0;
    }
    case SIOCGARP: {
      if (arp_misses_after >= 0 && call >= arp_misses_after) break;
      auto* entry = static_cast<arpreq*>(argument);
      entry->arp_flags = ATF_COM;
      std::copy(gateway_mac.begin(), gateway_mac.end(), entry->arp_ha.sa_data);
      return 0;
    }
    default:
      ADD_FAILURE() << "unexpected ioctl " << request;
  }
  errno = ENXIO;
  return -1;
}

// One block, as freeifaddrs(3) of this C library frees it: the list's head.
int FakeNetwork::list_addresses(ifaddrs** result) const {
  struct Entry {
    ifaddrs head;
    sockaddr_in6 address;
    char name[32];
  };
  const std::lock_guard lock(mutex_);
  auto* entries = static_cast<Entry*>(std::calloc(addresses.size() + 1, sizeof(Entry)));
  for (size_t i = 0; i < addresses.size(); ++i) {
    Entry& entry = entries[i];
    addresses[i].first.copy(entry.name, sizeof(entry.name) - 1);
    entry.head.ifa_name = entry.name;
    entry.head.ifa_next = i + 1 < addresses.size() ? &entries[i + 1].head : nullptr;
    const char* text = addresses[i].second.c_str();
    if (*text == '\0') continue;  // an interface without an address
    entry.head.ifa_addr = reinterpret_cast<sockaddr*>(&entry.address);
    if (inet_pton(AF_INET6, text, &entry.address.sin6_addr) == 1) {
      entry.address.sin6_family = AF_INET6;
      continue;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    EXPECT_EQ(inet_pton(AF_INET, text, &address.sin_addr), 1) << text;
    std::memcpy(&entry.address, &address, sizeof(address));
  }
  *result = addresses.empty() ? nullptr : &entries[0].head;
  if (addresses.empty()) std::free(entries);
  return 0;
}

int FakeNetwork::resolve(const char* name, int family, hostent* entry, char* buffer, size_t size,
                         hostent** result, int* error) {
  const std::lock_guard lock(mutex_);
  resolved.push_back(name);
  *result = nullptr;
  std::vector<Bytes> found;
  const auto take = [&](const std::string& text) {
    Bytes address(family == AF_INET6 ? sizeof(in6_addr) : sizeof(in_addr));
    if (inet_pton(family, text.c_str(), address.data()) == 1) found.push_back(address);
  };
  take(name);
  if (const auto host = known_hosts.find(name); host != known_hosts.end()) {
    for (const std::string& text : host->second) take(text);
  }
  if (found.empty()) {
    *error = HOST_NOT_FOUND;
    return 0;
  }
  const size_t pointers = (found.size() + 1) * sizeof(char*);
  if (size < pointers + found.size() * sizeof(in6_addr)) return ERANGE;
  auto** list = reinterpret_cast<char**>(buffer);
  char* place = buffer + pointers;
  for (size_t i = 0; i < found.size(); ++i) {
    list[i] = place;
    place = std::copy(found[i].begin(), found[i].end(), place);
  }
  list[found.size()] = nullptr;
  *entry = {};
  entry->h_addrtype = family;
  entry->h_length = static_cast<int>(found.front().size());
  entry->h_addr_list = list;
  *result = entry;
  return 0;
}

// The kernel's IPv6 neighbour table has every next hop that is asked for: fe80::1 and 2001:db8::fe.
void FakeNetwork::answer_route_request(int fd) {
  const std::lock_guard lock(mutex_);
  Bytes answer;
  for (const char* text : {"fe80::1", "2001:db8::fe"}) {
    in6_addr address;
    inet_pton(AF_INET6, text, &address);
    nlmsghdr header{};
    header.nlmsg_type = RTM_NEWNEIGH;
    header.nlmsg_len = NLMSG_LENGTH(sizeof(ndmsg)) + RTA_SPACE(sizeof(address)) + RTA_SPACE(6);
    append(answer, header);
    ndmsg neighbor{};
    neighbor.ndm_family = AF_INET6;
    append(answer, neighbor);
    append(answer, rtattr{static_cast<unsigned short>(RTA_LENGTH(sizeof(address))), NDA_DST});
    append(answer, address);
    append(answer, rtattr{static_cast<unsigned short>(RTA_LENGTH(6)), NDA_LLADDR});
    answer.insert(answer.end(), gateway_mac.begin(), gateway_mac.end());
    answer.resize(answer.size() + 2);  // to a multiple of four
  }
  const nlmsghdr done{NLMSG_LENGTH(sizeof(int)), NLMSG_DONE, 0, 0, 0};
  append(answer, done);
  append(answer, int{0});
  deliver(socket_of(fd), answer);
}

int FakeNetwork::start_thread(pthread_t* thread, WrappedThreadStart body, void* argument) {
  auto* start = new ThreadStart{body, argument, live_threads_};
  ++*live_threads_;
  const int result = wrapped::pthread_create.real(thread, nullptr, &run_counted, start);
  if (result != 0) {
    --*live_threads_;
    delete start;
  }
  return result;
}
