// An echo test of one family on an interface of its own in a fake network.
//
// Much of what the tests share is of the whole process and keyed by names, so every fixture makes
// up an interface and a VRF name that no other has.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "support/broken_mutex.h"
#include "support/fake_network.h"
#include "support/recorded_log.h"
#include "support/virtual_clock/virtual_clock.h"
#include "tests/echo_probe.h"
#include "tests/io/interface_sockets.h"
#include "tests/io/probes_in_flight.h"
#include "tests/link/arp_prober.h"
#include "tests/link/neighbor_prober.h"

// What differs between the families.
template <class IpVersion>
struct EchoKit;

template <>
struct EchoKit<Ipv4> {
  using Test = LBTestICMP;
  using Prober = LBArp;
  static constexpr const char* kTarget = "198.51.100.7";
  static constexpr const char* kGateway = "192.0.2.254";
  static constexpr const char* kOtherGateway = "192.0.2.253";
  static constexpr int kDomain = AF_INET;
  static constexpr int kProtocol = 1;
  static constexpr int kEtherType = 0x0800;
  static constexpr const char* kReceiver = "recv_icmp";
  static constexpr const char* kPacket = "icmp";
  static constexpr size_t kRawKeyOffset = 8;
  static constexpr size_t kFrameKeyOffset = 14 + 20 + 8;

  // A reply as the raw socket delivers it.
  static FakeNetwork::Bytes reply(uint32_t key, uint8_t type = 0) {
    FakeNetwork::Bytes packet(32);
    packet[0] = 0x45;
    packet[20] = type;
    for (size_t i = 0; i < 4; ++i) packet[28 + i] = static_cast<uint8_t>(key >> (24 - 8 * i));
    return packet;
  }
};

template <>
struct EchoKit<Ipv6> {
  using Test = LBTestICMP6;
  using Prober = LBNeighbor;
  static constexpr const char* kTarget = "2001:db8:7::7";
  static constexpr const char* kGateway = "2001:db8::fe";
  static constexpr const char* kOtherGateway = "fe80::1";
  static constexpr int kDomain = AF_INET6;
  static constexpr int kProtocol = 58;
  static constexpr int kEtherType = 0x86DD;
  static constexpr const char* kReceiver = "recv_icmp6";
  static constexpr const char* kPacket = "icmp6";
  static constexpr size_t kRawKeyOffset = 16;
  static constexpr size_t kFrameKeyOffset = 14 + 40 + 8;

  static FakeNetwork::Bytes reply(uint32_t key, uint8_t type = 129) {
    FakeNetwork::Bytes packet(12);
    packet[0] = type;
    for (size_t i = 0; i < 4; ++i) packet[8 + i] = static_cast<uint8_t>(key >> (24 - 8 * i));
    return packet;
  }
};

inline std::string unused_name(const char* stem) {
  static int count = 0;
  return stem + std::to_string(++count);
}

inline uint32_t word_at(const FakeNetwork::Bytes& bytes, size_t offset) {
  if (bytes.size() < offset + 4) {
    ADD_FAILURE() << "no word at " << offset << " of " << bytes.size() << " bytes";
    return 0;
  }
  return static_cast<uint32_t>(bytes[offset]) << 24 | bytes[offset + 1] << 16 |
         bytes[offset + 2] << 8 | bytes[offset + 3];
}

template <class IpVersion>
class EchoFixture : public testing::Test {
 protected:
  using Bytes = FakeNetwork::Bytes;

  EchoFixture() {
    interface_.nexthop = EchoKit<IpVersion>::kGateway;
    interface_.vrf = vrf_;
    network_.addresses = {{ifname_, "192.0.2.1"}, {ifname_, "fe80::2"}};
    prober_ = std::make_unique<typename EchoKit<IpVersion>::Prober>();
    prober_->init(vrf_);
    worker_.ipv6 = IpVersion::kFamily.ipv6;
    worker_.vrf = vrf_;
    if constexpr (IpVersion::kFamily.ipv6) {
      worker_.neighbor = prober_.get();
    } else {
      worker_.arp = prober_.get();
    }
    network_.sockets.clear();
    network_.options.clear();
  }

  // Tests by the thousand would use up the descriptors.
  ~EchoFixture() override {
    network_.end_threads();
    for (const Family* family : {&kIpv4, &kIpv6}) close_sockets(*family, ifname_);
  }

  // A test of this family's type, bound to the interface.
  std::unique_ptr<typename EchoKit<IpVersion>::Test> make_test(
      const std::string& target = EchoKit<IpVersion>::kTarget) {
    auto test = std::make_unique<typename EchoKit<IpVersion>::Test>();
    if (!target.empty()) test->set_target(target);
    test->init(interface_);
    return test;
  }

  ProbesInFlight& probes() { return probes_in_flight(IpVersion::kFamily); }
  std::shared_ptr<InterfaceSockets> sockets() { return sockets_of(IpVersion::kFamily, ifname_); }

  // The mutex of the interface's sockets, made by the first acquire.
  pthread_mutex_t* acquire_mutex() {
    return mutex_made_by([this] { sockets(); });
  }

  static auto logged_mutex_failure(const char* operation, const char* call, int rc) {
    return LoggedError(mutex_failure(operation, call, IpVersion::kFamily.name, rc));
  }

  std::optional<ProbesInFlight::Entry> probe_to(const std::string& target) {
    return probes().find(ifname_, target);
  }

  // Enters a probe as a send would have done now.
  int32_t enter_probe(const std::string& target = EchoKit<IpVersion>::kTarget,
                      int32_t state = kProbeWaiting) {
    const int32_t key = probes().next_key();
    probes().insert(key, {ifname_, state, monotonic_now(), target});
    return key;
  }

  // Draws keys until the next one is `key`.
  void make_next_key(int32_t key) {
    const int32_t before = (key + 32766) % 32767;
    while (probes().next_key() != before) {
    }
  }

  InterfaceState state() const { return interface_.snapshot(); }

  const std::string ifname_ = unused_name("lb");
  const std::string vrf_ = unused_name("vrf");
  FakeNetwork network_;
  LBInterface interface_{ifname_, IpVersion::kFamily.ipv6};
  LBWorkerContext worker_;
  std::unique_ptr<typename EchoKit<IpVersion>::Prober> prober_;
};

using BothFamilies = testing::Types<Ipv4, Ipv6>;

struct FamilyName {
  template <class IpVersion>
  static std::string GetName(int) {
    return IpVersion::kFamily.name;
  }
};

// Waits for what another thread does; false when it has not happened after 20 s.
template <class Condition>
bool wait_until(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    sched_yield();
  }
  return true;
}
