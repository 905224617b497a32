// A health test whose outcomes come from a trace instead of the network.
//
// What the daemon's tests do with an outcome, and with a next hop that is their target, is done by
// their own base class.
#pragma once

#include <cstdint>
#include <string>

#include "config/lb_config.h"
#include "lbctl/configuration.h"
#include "tests/burst_judge.h"
#include "tests/probe_base.h"

namespace lbctl {

class TraceTest : public LBTest {
 public:
  TraceTest(const ConfiguredTest& configured, bool ipv6);

  // What the start of a probe does to the test: without a target of its own it takes the next hop,
  // or goes over to another one.
  void send(LBInterface& interface, const LBWorkerContext& /*worker*/) override {
    choose_destination(interface);
  }

  // Whether a burst with these figures is good by the configured limits.
  bool judge(const BurstMeasurement& measured) const { return is_acceptable(measured, limits_); }

  // Settles one outcome of `target`, which is the test's.
  void take(LBInterface& interface, bool is_good, const std::string& target) {
    settle(interface, is_good ? kProbeSuccess : kProbeFailure, target);
  }

  bool is_burst() const { return is_burst_; }
  std::string target() const { return report().target; }  // empty: no next hop to probe yet

  const char* type_name() const override { return is_burst_ ? "ping extended" : "ping"; }

 private:
  const bool is_burst_;
  const BurstLimits limits_;
};

}  // namespace lbctl
