#include "lbctl/explain_machine.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <span>

#include <fmt/format.h>

#include "lbctl/inside_vrf.h"
#include "lbctl/reverse_path.h"
#include "packets/netlink_dump.h"
#include "packets/route_message.h"
#include "platform/places.h"
#include "platform/regular_file.h"
#include "routing/routing_daemon.h"

namespace lbctl {

namespace {

constexpr size_t kMostBytes = size_t{64} << 20;

// In the calling thread's namespace.
std::optional<DeviceState> own_device(const std::string& name) {
  DeviceState state;
  ifreq request{};
  if (name.empty() || name.size() >= sizeof(request.ifr_name)) return state;
  std::memcpy(request.ifr_name, name.c_str(), name.size());
  const FileDescriptor fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return std::nullopt;
  if (ioctl(fd.get(), SIOCGIFFLAGS, &request) != 0) {
    if (errno == ENODEV) return state;
    return std::nullopt;
  }
  const auto flags = static_cast<unsigned int>(request.ifr_flags);
  state.exists = true;
  state.is_up = (flags & IFF_UP) != 0;
  state.has_carrier = (flags & IFF_RUNNING) != 0;
  state.resolves = (flags & IFF_NOARP) == 0;
  return state;
}

std::optional<uint16_t> own_neighbor(const Family& family, const std::string& device,
                                     const std::string& address) {
  const auto request = make_request_about(make_neighbor_request(RTM_GETNEIGH, NLM_F_REQUEST),
                                          family, address, if_nametoindex(device.c_str()));
  const FileDescriptor fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (request.empty() || !fd.valid() || send(fd.get(), request.data(), request.size(), 0) < 0) {
    return std::nullopt;
  }
  // The kernel has answered when the request is handed over.
  std::array<uint8_t, 8192> answer;
  const ssize_t length = recv(fd.get(), answer.data(), answer.size(), MSG_DONTWAIT);
  if (length <= 0) return std::nullopt;
  std::span<const uint8_t> bytes = std::span(answer).first(static_cast<size_t>(length));
  if (const auto state = read_neighbor_state(bytes)) return state;
  const auto message = take_message(bytes);
  if (message && read_progress(*message).error == ENOENT) return uint16_t{0};
  return std::nullopt;
}

}  // namespace

std::string ThisRouter::vrf_refusal(const std::string& vrf) const {
  return run_inside_vrf(vrf, [] {});
}

bool ThisRouter::has_vrf(const std::string& vrf) const {
  return vrf == kDefaultNamespace || access(("/var/run/netns/" + vrf).c_str(), F_OK) == 0;
}

std::optional<DeviceState> ThisRouter::device(const std::string& vrf,
                                              const std::string& name) const {
  std::optional<DeviceState> state;
  run_inside_vrf(vrf, [&] { state = own_device(name); });
  return state;
}

std::optional<uint16_t> ThisRouter::neighbor(const std::string& vrf, bool ipv6,
                                             const std::string& device,
                                             const std::string& address) const {
  std::optional<uint16_t> state;
  run_inside_vrf(vrf, [&] { state = own_neighbor(family_of(ipv6), device, address); });
  return state;
}

std::optional<std::string> ThisRouter::dropped_replies(const std::string& vrf,
                                                       const std::string& device,
                                                       const std::string& source,
                                                       const std::string& target) const {
  return lbctl::dropped_replies(*machine_, vrf, device, source, target);
}

std::optional<std::vector<KernelRoute>> ThisRouter::kernel_routes(const std::string& vrf,
                                                                  bool ipv6) const {
  const auto [entry, is_new] = tables_.try_emplace({vrf, ipv6});
  if (is_new) entry->second = read_kernel_routes(vrf, ipv6);
  return entry->second;
}

FileLook ThisRouter::file(const std::string& path) const {
  const auto [entry, is_new] = files_.try_emplace(path);
  FileLook& look = entry->second;
  if (!is_new) return look;
  const FileDescriptor file = open_to_read(path);
  if (!file.valid()) {
    look.fault = std::strerror(errno);
    look.is_absent = errno == ENOENT;
  } else if (!is_regular_file(file)) {
    look.fault = "not a regular file";
  } else {
    look.text = read_up_to(file, kMostBytes);
  }
  return look;
}

std::string ThisRouter::routing_daemon_fault(const std::string& vrf) const {
  const std::string path = routing_pid_path(vrf);
  const FileLook look = file(path);
  if (!look.fault.empty()) return fmt::format("its pid file {}: {}", path, look.fault);
  const auto pid = parse_routing_pid(look.text);
  if (!pid) return fmt::format("its pid file {} holds no process id", path);
  // Signal 0 asks only; EPERM says that there is such a process.
  if (kill(*pid, 0) == 0 || errno == EPERM) return "";
  return fmt::format("its pid file {} names the process {}, which is no more", path, *pid);
}

std::string ThisRouter::bird_configuration_without(const std::string& vrf,
                                                   const std::string& path) const {
  return machine_->bird_configuration_without(vrf, path);
}

BirdVerdict ThisRouter::bird(const std::string& text, const std::string& name) const {
  const auto [entry, is_new] = verdicts_.try_emplace(name);
  if (is_new) entry->second = ask_bird(text, name);
  return entry->second;
}

}  // namespace lbctl
