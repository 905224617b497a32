// The process's limit of open descriptors.
#pragma once

#include <sys/resource.h>

#include <string>

// The soft limit that the process was started with, as a command of the shell; empty while it is
// still in force.
inline std::string& initial_descriptor_limit_command() {
  static std::string& command = *new std::string;  // threads may run when the process exits
  return command;
}

// Raises the soft limit to the hard one: every interface and family costs three descriptors, and
// the usual soft limit is 1024. Before any thread is started.
inline void raise_descriptor_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
  const rlim_t initial = limit.rlim_cur;
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  initial_descriptor_limit_command() = "ulimit -Sn " + std::to_string(initial) + "; ";
}
