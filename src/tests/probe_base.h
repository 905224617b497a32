// What the health tests share: the binding to an interface, the probe in flight and its outcome.
//
//   worker:    send -> probe entered, request sent ... recv -> outcome to record_result
//   receiver:  reply read -> probe marked answered        (io/reply_receiver.h)
//
// A probe is in flight at most once per (interface, target). A test's own state is guarded by the
// test's lock: its worker writes, writers of other VRFs' reports read.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "config/health_test.h"
#include "config/lb_config.h"
#include "config/worker_context.h"
#include "packets/family.h"
#include "platform/mutex.h"
#include "tests/destination.h"
#include "tests/io/interface_sockets.h"

class LBTest : public HealthTest {
 public:
  // Closes the sockets of the interface, also those that its other tests use.
  ~LBTest() override;

  void set_target(const std::string& target) override;
  void set_number(TestKeyword keyword, uint32_t value) override;

  void init(LBInterface& interface) override;
  void recv(LBInterface& interface, const LBWorkerContext& worker) override;
  std::string describe() const override;
  std::string get_description() const override;
  TestReport report() const override;

 protected:
  explicit LBTest(const Family& family) : family_(family) {}

  // Chooses target and gateway, rebuilds the description and lets a test without a target keep the
  // gateway as its target: for good, or (follows_nexthop) until another one is found. What has
  // settled then goes over to that one.
  Destination choose_destination(LBInterface& interface);

  // Reports one outcome to the interface and keeps it as the test's result.
  void settle(LBInterface& interface, int32_t outcome, const std::string& target);

  // Adds what the test has measured to a report of a test with a result.
  virtual void add_measurement(TestReport& /*report*/) const LB_REQUIRES(status_mutex_) {}

  // Asked for anew each time, since another test of the interface may have closed them meanwhile.
  std::shared_ptr<InterfaceSockets> sockets() const { return sockets_of(family_, ifname_); }

  const Family& family_;
  mutable Mutex status_mutex_;

 private:
  // The next hop was `from` and is `to`: what has settled goes over, and nothing is left to count,
  // or in flight, for the old one, unless another test probes it. An address that has results keeps
  // its own.
  void move_to_nexthop(LBInterface& interface, const std::string& from, const std::string& to);

  std::string target_ LB_GUARDED_BY(status_mutex_);
  bool pings_nexthop_ LB_GUARDED_BY(status_mutex_) = false;  // no target was configured
  std::string description_ LB_GUARDED_BY(status_mutex_);
  int32_t result_ LB_GUARDED_BY(status_mutex_) = kResultNone;
  int32_t resp_time_ = 5000;  // milliseconds; fixed once the threads run

  // Set by the first init; both workers of a VRF call it, under the lock.
  bool bound_ LB_GUARDED_BY(status_mutex_) = false;
  std::string ifname_;
};
