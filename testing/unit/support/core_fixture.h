// A daemon object with a configuration read from a text, in a directory of its own; no threads.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/check_cycle.h"
#include "core/lb_daemon.h"
#include "routing/interface_health.h"
#include "support/blank_test.h"
#include "support/temporary_directory.h"
#include "support/wrapped_calls.h"
#include "tests/link/arp_prober.h"

// What happened, in its order. Any thread.
class Events {
 public:
  void note(std::string event) {
    const std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
  }
  std::vector<std::string> all() const {
    const std::lock_guard lock(mutex_);
    return events_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> events_;
};

// A test that notes every call as "send NAME" (init, recv); it sends nothing.
class NotingTest : public BlankTest {
 public:
  using OnSend = std::function<void(const LBWorkerContext&)>;
  NotingTest(Events& events, std::string name, OnSend on_send = {})
      : events_(events), name_(std::move(name)), on_send_(std::move(on_send)) {}

  void init(LBInterface&) override { events_.note("init " + name_); }
  void send(LBInterface&, const LBWorkerContext& worker) override {
    events_.note("send " + name_);
    if (on_send_) on_send_(worker);
  }
  // Every probe is a success.
  void recv(LBInterface& interface, const LBWorkerContext&) override {
    events_.note("recv " + name_);
    record_result(interface, kProbeSuccess, name_);
  }
  const char* type_name() const override { return "noting"; }

 private:
  Events& events_;
  const std::string name_;
  const OnSend on_send_;
};

class CoreFixture : public TemporaryDirectoryTest {
 protected:
  CoreFixture() { std::filesystem::create_directories(directory_.file("out")); }

  bool load(const std::string& text) {
    return daemon_.load_configuration(directory_.write("lb.conf", text));
  }

  // Puts a noting test called `name` under `index`, in place of any other.
  void add_test(LBInterface& interface, int32_t index, const std::string& name,
                std::function<void(const LBWorkerContext&)> on_send = {}) {
    interface.tests[index] = std::make_shared<NotingTest>(events_, name, std::move(on_send));
  }
  LBInterface& interface(const std::string& name) { return daemon_.config().interfaces.at(name); }
  LBInterface& interface6(const std::string& name) { return daemon_.config().interfaces6.at(name); }

  Events events_;
  // Behind a pointer, since its destructor may end the thread by an unwinding.
  const std::unique_ptr<LBDaemon> owner_ = std::make_unique<LBDaemon>(directory_.file("out"));
  LBDaemon& daemon_ = *owner_;
};

// The check cycle of an IPv4 worker of `vrf` that has no routing daemon.
class CycleFixture : public CoreFixture {
 protected:
  explicit CycleFixture(const std::string& vrf = kDefaultNamespace) {
    worker_.daemon = &daemon_;
    worker_.vrf = vrf;
    worker_.arp = &arp_;
  }

  LBArp arp_;
  LBWorkerContext worker_;
  CheckCycle cycle_{worker_};

 private:
  const Fault no_routing_daemon_{"open", ENOENT};
  const Fault no_commands_{"popen", ENOMEM};
};
