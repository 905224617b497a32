// The routing daemon that a VRF runs: its file of static routes, its reload signal, and the
// kernel's route cache behind it.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

// The process id that the text of a pid file begins with, read as atoi does but without its
// wrap-around: 4294967297 must not become process 1. No value for one of 0 or below, which would
// reach a process group or every process.
std::optional<pid_t> parse_routing_pid(const std::string& text);

class RoutingDaemon {
 public:
  // The daemon of `vrf`, seen by the worker of one family.
  RoutingDaemon(const std::string& vrf, bool ipv6);

  // Replaces the content of the daemon's file (whole_file.h). Where there is no way to write it is
  // left as it is, in silence: a VRF may have no routing daemon at all.
  void write_file(const std::string& text) const;

  // What the file holds. Empty when there is none that can be read.
  std::string read_file() const;

  // Sends SIGHUP to the daemon when its pid is known and flushes the kernel's route cache. Runs
  // shell commands in the calling thread's network namespace; no lock may be held.
  void reload() const;

 private:
  const std::string file_path_;
  const std::string pid_path_;
  const std::string pid_command_;
  const char* const flush_command_;
};
