#include "routing/routing_daemon.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "config/log.h"
#include "platform/descriptor_limit.h"
#include "platform/places.h"
#include "platform/regular_file.h"
#include "routing/whole_file.h"

namespace {

constexpr const char* kNoErrors = " 2>/dev/null";

// Far above any pid file. A file without end in its place must cost neither the worker nor memory.
constexpr size_t kMaxOutput = 65536;

// Starts a shell command as whoever started the daemon would: programs that walk through all
// descriptor numbers up to the limit would take long under the daemon's own.
FILE* start_command(const std::string& command, const char* mode) {
  return popen((initial_descriptor_limit_command() + command + kNoErrors).c_str(), mode);
}

constexpr size_t kMaxRouteFile = size_t{64} << 20;

// What a shell command prints, up to a limit. Empty when it printed nothing or could not be
// started.
std::string command_output(const std::string& command) {
  FILE* pipe = start_command(command, "r");
  if (pipe == nullptr) return "";
  std::string output(kMaxOutput, '\0');
  output.resize(fread(output.data(), 1, output.size(), pipe));
  pclose(pipe);
  return output;
}

void run_command(const std::string& command) {
  FILE* pipe = start_command(command, "w");
  if (pipe != nullptr) pclose(pipe);
}

void send_hangup(const std::string& pid_text, const std::string& pid_command) {
  const std::optional<pid_t> pid = parse_routing_pid(pid_text);
  if (!pid) {
    LB_ERROR("wan_lb: '%s' gives no process id, routing daemon not signalled", pid_command.c_str());
    return;
  }
  if (kill(*pid, SIGHUP) != 0) {
    LB_WARNING("wan_lb: can't send SIGHUP to the routing daemon (pid %d), errno = %d", *pid, errno);
  }
}

}  // namespace

std::optional<pid_t> parse_routing_pid(const std::string& text) {
  errno = 0;
  const long pid = strtol(text.c_str(), nullptr, 10);
  if (errno == ERANGE || pid <= 0 || pid > INT_MAX) return std::nullopt;
  return static_cast<pid_t>(pid);
}

RoutingDaemon::RoutingDaemon(const std::string& vrf, bool ipv6)
    : file_path_(route_file_path(vrf, ipv6)),
      pid_path_(routing_pid_path(vrf)),
      pid_command_("cat " + pid_path_),
      flush_command_(ipv6 ? "ip -6 route flush cache" : "ip route flush cache") {}

void RoutingDaemon::write_file(const std::string& text) const {
  const FileReplacement replacement = replace_file(file_path_, text);
  if (!replacement.opened || replacement.error == 0) return;
  LB_WARNING("wan_lb: error writing file '%s', errno = %d", file_path_.c_str(), replacement.error);
}

std::string RoutingDaemon::read_file() const {
  if (is_special_file(file_path_)) return "";
  const FileDescriptor file = open_to_read(file_path_);
  if (!file.valid() || !is_regular_file(file)) return "";
  return read_up_to(file, kMaxRouteFile);
}

void RoutingDaemon::reload() const {
  if (is_special_file(pid_path_)) {
    LB_WARNING("wan_lb: pid file '%s' is no regular file, routing daemon not signalled",
               pid_path_.c_str());
    return;
  }
  const std::string pid_text = command_output(pid_command_);
  if (pid_text.empty()) {
    LB_DEBUG("LBDecision::run() can't execute '%s'", pid_command_.c_str());
    return;
  }
  send_hangup(pid_text, pid_command_);
  run_command(flush_command_);
}
