// The "ping" tests: one echo request per cycle while none is in flight.
#pragma once

#include <string>

#include "tests/lb_test.h"

template <class Family>
class EchoTest : public FamilyTest<Family> {
 public:
  void send(LBInterface& interface, const LBWorkerContext& worker) override;
  const char* type_name() const override { return "ping"; }

 private:
  using Destination = typename FamilyTest<Family>::Destination;

  // Both return 0 or the errno value of the failure.
  int send_raw(const LBInterface& interface, const std::string& target, int32_t key,
               const LBWorkerContext& worker);
  int send_frame(const LBInterface& interface, const Destination& destination, int32_t key,
                 const LBWorkerContext& worker);
};

class LBTestICMP : public EchoTest<Ipv4> {};

class LBTestICMP6 : public EchoTest<Ipv6> {};
