#include "support/fake_network.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "support/route_answers.h"

namespace {

// In the place of the tracker's socket; only its address is used.
alignas(16) char the_tracker_socket[64];

mnl_socket* tracker_socket() { return reinterpret_cast<mnl_socket*>(the_tracker_socket); }

int failure(int error) {
  errno = error;
  return -1;
}

}  // namespace

FakeNetwork::FakeNetwork() {
  add_hook(wrapped::bind, [this](int, const sockaddr* address, socklen_t size) {
    note_netlink_address(address, size);
    return 0;
  });
  add_hook(wrapped::sendmsg, [this](int fd, const msghdr* message, int) {
    return answer_route_message(fd, *message);
  });
  add_hook(wrapped::send, [this](int fd, const void* data, size_t size, int flags) {
    if (fd < 0 || socket_of(fd).domain != AF_NETLINK)
      return wrapped::send.real(fd, data, size, flags);
    return answer_route_request(fd, to_bytes(data, size));
  });
  add_hook(wrapped::ioctl, [this](int, unsigned long request, void* argument) {
    return answer_ioctl(request, argument);
  });
  add_hook(wrapped::if_nametoindex, [this](const char* name) { return index_of(name); });
  add_hook(wrapped::if_indextoname,
           [this](unsigned index, char* name) { return name_of(index, name); });
  add_hook(wrapped::recvfrom, [this](int fd, void* data, size_t size, int flags, sockaddr* address,
                                     socklen_t* address_size) {
    return receive_frame(fd, data, size, flags, address, address_size);
  });
  add_hook(wrapped::getifaddrs, [this](ifaddrs** result) { return list_addresses(result); });
  add_hook(wrapped::gethostbyname2_r,
           [this](const char* name, int family, hostent* entry, char* buffer, size_t size,
                  hostent** result, int* error) {
             return resolve(name, family, entry, buffer, size, result, error);
           });
  add_hook(wrapped::mnl_socket_open2, [](int, int) { return tracker_socket(); });
  add_hook(wrapped::mnl_socket_bind, [](mnl_socket*, unsigned, pid_t) { return 0; });
  add_hook(wrapped::mnl_socket_get_portid, [](const mnl_socket*) { return 4711u; });
  add_hook(wrapped::mnl_socket_sendto, [this](const mnl_socket*, const void* data, size_t size) {
    SpinLockHolder holder(lock_);
    conntrack_requests.push_back(to_bytes(data, size));
    return static_cast<ssize_t>(size);
  });
  add_hook(wrapped::mnl_socket_recvfrom,
           [this](const mnl_socket*, void* data, size_t) { return answer_tracker_request(data); });
  add_hook(wrapped::mnl_socket_close, [](mnl_socket*) { return 0; });
}

FakeNetwork::~FakeNetwork() {
  end_threads();
  remove_hooks();
}

int FakeNetwork::answer_ioctl(unsigned long request, void* argument) {
  int call = 0;
  {
    SpinLockHolder holder(lock_);
    call = ioctl_calls[request]++;
  }
  if (on_question) on_question();
  SpinLockHolder holder(lock_);
  if (request == SIOCGARP || request == SIOCSARP) {
    return answer_arp_request(request, call, *static_cast<arpreq*>(argument));
  }
  return answer_interface_request(request, *static_cast<ifreq*>(argument));
}

int FakeNetwork::answer_interface_request(unsigned long request, ifreq& interface) {
  interface_requests.push_back(interface);
  if (const auto error = ioctl_errors.find(request); error != ioctl_errors.end()) {
    return failure(error->second);
  }
  switch (request) {
    case SIOCGIFFLAGS:
      interface.ifr_flags = static_cast<short>(IFF_UP | (no_arp ? IFF_NOARP : 0));
      return 0;
    case SIOCGIFINDEX:
      interface.ifr_ifindex = static_cast<int>(index_of(interface.ifr_name));
      return interface.ifr_ifindex == 0 ? failure(ENODEV) : 0;
    case SIOCGIFHWADDR:
      interface.ifr_hwaddr.sa_family = ARPHRD_ETHER;
      std::copy(own_mac.begin(), own_mac.end(), interface.ifr_hwaddr.sa_data);
      return 0;
    case SIOCGIFADDR: {
      sockaddr_in address{};
      address.sin_family = AF_INET;
      inet_pton(AF_INET, own_address.c_str(), &address.sin_addr);
      std::memcpy(&interface.ifr_addr, &address, sizeof(address));
      return 0;
    }
    default:
      ADD_FAILURE() << "unexpected ioctl " << request;
      return failure(ENXIO);
  }
}

int FakeNetwork::answer_arp_request(unsigned long request, int call, arpreq& entry) {
  (request == SIOCSARP ? arp_entries : arp_queries).push_back(entry);
  if (const auto error = ioctl_errors.find(request); error != ioctl_errors.end()) {
    return failure(error->second);
  }
  if (request == SIOCSARP) return 0;
  if (arp_misses_after >= 0 && call >= arp_misses_after) return failure(ENXIO);
  entry.arp_flags = arp_flags;
  std::copy(gateway_mac.begin(), gateway_mac.end(), entry.arp_ha.sa_data);
  return 0;
}

void FakeNetwork::note_netlink_address(const void* address, socklen_t size) {
  sockaddr_nl noted{};
  std::memcpy(&noted, address, std::min<size_t>(size, sizeof(noted)));
  SpinLockHolder holder(lock_);
  netlink_addresses.push_back(noted);
}

ssize_t FakeNetwork::answer_route_message(int fd, const msghdr& message) {
  Bytes request;
  for (size_t i = 0; i < message.msg_iovlen; ++i) {
    append(request, to_bytes(message.msg_iov[i].iov_base, message.msg_iov[i].iov_len));
  }
  note_netlink_address(message.msg_name, message.msg_namelen);
  {
    SpinLockHolder holder(lock_);
    netlink_buffers.push_back(message.msg_iovlen);
  }
  return answer_route_request(fd, std::move(request));
}

ssize_t FakeNetwork::answer_route_request(int fd, Bytes request) {
  const auto size = static_cast<ssize_t>(request.size());
  std::vector<Bytes> answers;
  {
    SpinLockHolder holder(lock_);
    netlink_requests.push_back(std::move(request));
    answers = netlink_answers.empty() ? gateways() : netlink_answers;
  }
  const Socket socket = socket_of(fd);
  for (const Bytes& answer : answers) deliver(socket, answer);
  return size;
}

// The kernel's IPv6 neighbour table with every next hop that tests have.
std::vector<FakeNetwork::Bytes> FakeNetwork::gateways() const {
  Bytes answer = entry("fe80::1", gateway_mac);
  append(answer, entry("2001:db8::fe", gateway_mac));
  append(answer, done());
  return {answer};
}

ssize_t FakeNetwork::answer_tracker_request(void* data) const {
  SpinLockHolder holder(lock_);
  nlmsghdr asked;
  std::memcpy(&asked, conntrack_requests.back().data(), sizeof(asked));
  const nlmsgerr error{-conntrack_answer, asked};
  const nlmsghdr header{NLMSG_LENGTH(sizeof(error)), NLMSG_ERROR, 0, asked.nlmsg_seq, 4711};
  std::memcpy(data, &header, sizeof(header));
  std::memcpy(static_cast<char*>(data) + NLMSG_HDRLEN, &error, sizeof(error));
  return static_cast<ssize_t>(header.nlmsg_len);
}

unsigned FakeNetwork::index_of(const std::string& name) const {
  for (const auto& [index, known] : interface_names) {
    if (known == name) return index;
  }
  return interface_index;
}

char* FakeNetwork::name_of(unsigned index, char* name) const {
  const auto found = interface_names.find(index);
  if (found == interface_names.end()) {
    errno = ENXIO;
    return nullptr;
  }
  name[found->second.copy(name, IF_NAMESIZE - 1)] = '\0';
  return name;
}

// What a packet socket tells besides: where the frame came in.
ssize_t FakeNetwork::receive_frame(int fd, void* data, size_t size, int flags, sockaddr* address,
                                   socklen_t* address_size) const {
  const ssize_t received = wrapped::recv.real(fd, data, size, flags);
  if (received < 0 || address == nullptr) return received;
  sockaddr_ll from{};
  from.sll_family = AF_PACKET;
  from.sll_ifindex = static_cast<int>(arrival_interface.load());
  EXPECT_GE(*address_size, sizeof(from));
  std::memcpy(address, &from, sizeof(from));
  *address_size = sizeof(from);
  return received;
}

// One block, as freeifaddrs(3) of this C library frees it: the list's head.
int FakeNetwork::list_addresses(ifaddrs** result) const {
  struct Entry {
    ifaddrs head;
    sockaddr_in6 address;
    char name[32];
  };
  SpinLockHolder holder(lock_);
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
  SpinLockHolder holder(lock_);
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
