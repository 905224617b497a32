// Daemons of routing in a root directory of their own.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/recorded_log.h"
#include "support/temporary_directory.h"
#include "support/wrapped_calls.h"

inline constexpr const char* kRouteFile = "usr/etc/routing-wlb.conf";
inline constexpr const char* kRouteFile6 = "usr/etc/routing-wlb6.conf";

// Signals are caught and the flush commands kept from the machine: "cat" is run as it is,
// everything else is only noted. Debug messages are on.
class RoutingRoot : public TemporaryDirectoryTest {
 protected:
  RoutingRoot() {
    set_log_flag(3, true);
    std::filesystem::create_directories(directory_.file("usr/etc"));
    use_pid_file("4711\n");
  }

  void use_pid_file(const std::string& content) {
    directory_.write("var/run/routing.pid", content);
  }
  std::string pid_command(const std::string& path = "/var/run/routing.pid") const {
    return "cat " + directory_.path() + path;
  }

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
