// The "ping" tests: one echo request per cycle while none is in flight.
#pragma once

#include <cstdint>
#include <string>

#include "packets/family.h"
#include "tests/path_messages.h"
#include "tests/probe_base.h"

class EchoProbe : public LBTest {
 public:
  void init(LBInterface& interface) override;
  void send(LBInterface& interface, const LBWorkerContext& worker) override;
  const char* type_name() const override { return "ping"; }

 protected:
  EchoProbe(const Family& family, const PathWords& words) : LBTest(family), words_(words) {}

 private:
  // All return 0 or the errno value of the failure; all but the debug line is logged there.
  int send_raw(const LBInterface& interface, const std::string& target, int32_t key,
               const LBWorkerContext& worker);
  int send_frame(const LBInterface& interface, const Destination& destination, int32_t key,
                 const LBWorkerContext& worker);
  template <class AddressFamily>
  int send_frame_of(const LBInterface& interface, const Destination& destination, int32_t key,
                    const LBWorkerContext& worker);

  const PathWords& words_;
};

class LBTestICMP : public EchoProbe {
 public:
  LBTestICMP() : EchoProbe(kIpv4, kEchoWords) {}
};

class LBTestICMP6 : public EchoProbe {
 public:
  LBTestICMP6() : EchoProbe(kIpv6, kEcho6Words) {}
};
