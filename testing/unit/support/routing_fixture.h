// The routing daemon's files in a directory of the test's own, and what the daemon is sent.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/recorded_log.h"
#include "support/redirected_places.h"
#include "support/wrapped_calls.h"

// Signals are caught and the flush commands kept from the machine: "cat" is run as it is,
// everything else is only noted. Debug messages are on.
class RoutingFixture : public RedirectedPlacesTest {
 protected:
  RoutingFixture() {
    set_log_flag(3, true);
    make_route_directory();
    use_pid_file("4711\n");
  }

  void make_route_directory() { std::filesystem::create_directories(route_directory_); }
  void use_pid_file(const std::string& content, const std::string& vrf = kDefaultNamespace) {
    directory_.write(routing_pid_path(vrf), content);
  }
  static std::string pid_command(const std::string& vrf = kDefaultNamespace) {
    return "cat " + routing_pid_path(vrf);
  }

  const std::string route_file_ = route_file_path(kDefaultNamespace, false);
  const std::string route_file6_ = route_file_path(kDefaultNamespace, true);
  const std::string pid_file_ = routing_pid_path(kDefaultNamespace);
  // Of every VRF and family.
  const std::filesystem::path route_directory_ = std::filesystem::path(route_file_).parent_path();
  std::vector<std::pair<std::string, std::string>> commands_;  // and the mode of each
  std::vector<std::pair<pid_t, int>> kills_;
  CallHook<FILE*(const char*, const char*)> popen_hook_{
      wrapped::popen, [this](const char* command, const char* mode) {
        commands_.emplace_back(command, mode);
        if (std::string(command).starts_with("cat ")) return wrapped::popen.real(command, mode);
        return wrapped::popen.real("true", mode);
      }};
  CallHook<int(pid_t, int)> kill_hook_{wrapped::kill, [this](pid_t pid, int signal) {
                                         kills_.emplace_back(pid, signal);
                                         return 0;
                                       }};
};
