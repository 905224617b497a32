// What the health tests of a family share: the binding to an interface, the probe in flight and its
// outcome.
//
//   worker:    send -> probe entered, request sent ... recv -> outcome to record_result
//   receiver:  reply read -> probe marked answered        (reply_receiver.h)
//
// A probe is in flight at most once per (interface, target). A test's own state is guarded by the
// test's lock: its worker writes, writers of other VRFs' reports read.
#pragma once

#include <memory>
#include <string>

#include "packets/family.h"
#include "tests/health_test.h"
#include "tests/io/interface_sockets.h"

template <class Family>
class ProbeTest : public HealthTest {
 public:
  // Closes the sockets of the interface, also those that its other tests use.
  ~ProbeTest() override;

  void set_target(const std::string& target) override;
  void set_number(TestKeyword keyword, uint32_t value) override;

  void init(LBInterface& interface) override;
  void recv(LBInterface& interface, const LBWorkerContext& worker) override;
  std::string describe() const override;
  std::string get_description() const override;
  TestReport report() const override;

 protected:
  // Where a probe goes, chosen anew for every probe.
  struct Destination {
    std::string target;
    std::string gateway;
  };

  // Chooses target and gateway, rebuilds the description and lets a test without a target keep the
  // gateway as its target for good.
  Destination choose_destination(LBInterface& interface);

  // Reports one outcome to the interface and keeps it as the test's result.
  void settle(LBInterface& interface, int32_t outcome, const std::string& target);

  // Asked for anew each time, since another test of the interface may have closed them meanwhile.
  std::shared_ptr<InterfaceSockets> sockets() const {
    return SocketRegistry<Family>::acquire(ifname_);
  }

  mutable Mutex status_mutex_;

 private:
  std::string target_ LB_GUARDED_BY(status_mutex_);
  std::string description_ LB_GUARDED_BY(status_mutex_);
  int32_t result_ LB_GUARDED_BY(status_mutex_) = kResultNone;
  int32_t resp_time_ = 5000;  // milliseconds; fixed once the threads run

  // Set by the first init; both workers of a VRF call it, under the lock.
  bool bound_ LB_GUARDED_BY(status_mutex_) = false;
  std::string ifname_;
};
