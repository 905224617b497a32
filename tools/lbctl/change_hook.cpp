#include "lbctl/change_hook.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "lbctl/print.h"
#include "platform/clock.h"

namespace lbctl {

namespace {

std::string name_of(const InterfaceChange& change) {
  return fmt::format("the command for {} {}", interface_label(change.interface, change.ipv6),
                     change.active ? "active" : "failed");
}

// Whatever this program holds back or ignores, the command begins with none of it.
void make_fresh(posix_spawnattr_t& attributes) {
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
}

// This program's environment without variables of those names, and the given ones.
std::vector<char*> environment_with(std::vector<std::string>& added) {
  std::vector<char*> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, "WAN_LB_", 7) != 0) environment.push_back(*entry);
  }
  for (std::string& variable : added) environment.push_back(variable.data());
  environment.push_back(nullptr);
  return environment;
}

// Whether it is failed because nothing is known of it yet.
bool is_unsettled(const InterfaceDump& interface) {
  const auto has_failed = [&](const TestDump& test) {
    return test.failure_count >= interface.failure_ct;
  };
  const auto has_succeeded = [&](const TestDump& test) {
    return test.success_count >= interface.success_ct;  // and is held down
  };
  const auto& tests = interface.tests;
  return !interface.active && std::none_of(tests.begin(), tests.end(), has_failed) &&
         !std::all_of(tests.begin(), tests.end(), has_succeeded);
}

}  // namespace

std::vector<std::string> environment_of(const InterfaceChange& change) {
  return {"WAN_LB_INTERFACE=" + change.interface,
          fmt::format("WAN_LB_FAMILY={}", change.ipv6 ? 6 : 4),
          "WAN_LB_VRF=" + change.vrf,
          fmt::format("WAN_LB_STATE={}", change.active ? "active" : "failed"),
          "WAN_LB_NEXTHOP=" + change.nexthop,
          "WAN_LB_TIME=" + rfc3339(change.time)};
}

std::vector<InterfaceChange> ChangeFinder::take(const std::vector<InterfaceDump>& interfaces,
                                                bool ipv6, std::time_t now) {
  std::vector<InterfaceChange> changes;
  std::vector<InterfaceDump>& before = before_[ipv6 ? 1 : 0];
  std::vector<InterfaceDump> known_now = interfaces;
  for (InterfaceDump& interface : known_now) {
    const auto known = std::find_if(
        before.begin(), before.end(),
        [&](const InterfaceDump& candidate) { return candidate.name == interface.name; });
    if (known == before.end() || known->active == interface.active) continue;
    if (is_unsettled(interface)) {
      interface.active = true;
      continue;
    }
    changes.push_back({interface.name, ipv6, interface.vrf, interface.active, interface.nexthop,
                       now - interface.change_age});
  }
  before = std::move(known_now);
  return changes;
}

ChangeHook::~ChangeHook() {
  if (!running_) return;
  kill(-running_->pid, SIGKILL);
  waitpid(running_->pid, nullptr, 0);
}

void ChangeHook::attend(const timespec& now) {
  if (running_ && !has_ended()) {
    if (!running_->killed &&
        milliseconds_between(running_->started, now) >= int64_t{limit_} * 1000) {
      complain(fmt::format("{} took longer than {} s and was killed", name_of(running_->change),
                           limit_));
      kill(-running_->pid, SIGKILL);
      running_->killed = true;
    }
    return;
  }
  if (waiting_.empty()) return;
  InterfaceChange next = std::move(waiting_.front());
  waiting_.pop_front();
  start(std::move(next), now);
}

void ChangeHook::start(InterfaceChange change, const timespec& now) {
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  make_fresh(attributes);
  std::vector<std::string> variables = environment_of(change);
  const std::vector<char*> environment = environment_with(variables);
  std::string shell = "sh";
  std::string option = "-c";
  std::string command = command_;
  char* const arguments[] = {shell.data(), option.data(), command.data(), nullptr};
  pid_t pid = 0;
  const int error =
      posix_spawn(&pid, "/bin/sh", nullptr, &attributes, arguments, environment.data());
  posix_spawnattr_destroy(&attributes);
  if (error != 0) {
    complain(fmt::format("{} cannot be started: {}", name_of(change), std::strerror(error)));
    return;
  }
  running_ = Run{.pid = pid, .started = now, .change = std::move(change)};
}

// Also says how it ended, unless that was well.
bool ChangeHook::has_ended() {
  int status = 0;
  const pid_t ended = waitpid(running_->pid, &status, WNOHANG);
  if (ended == 0 || (ended < 0 && errno == EINTR)) return false;
  if (ended > 0 && !running_->killed && status != 0) {
    complain(WIFEXITED(status) ? fmt::format("{} ended with status {}", name_of(running_->change),
                                             WEXITSTATUS(status))
                               : fmt::format("{} was ended by signal {}", name_of(running_->change),
                                             WTERMSIG(status)));
  }
  running_.reset();
  return true;
}

}  // namespace lbctl
