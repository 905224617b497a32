// Three kinds of probe whose way out fails: ping tests of either family and an extended one, with
// what each says of it.
#pragma once

#include <string>
#include <utility>

#include "support/echo_fixture.h"
#include "tests/burst_probe.h"

struct Echo4 {
  using Version = Ipv4;
  using Test = LBTestICMP;
  static constexpr const char* kName = "ping";
  static constexpr bool kIsBurst = false;
  static constexpr const char* kUnresolved =
      "wan_lb: error in resolving configured hostname: nowhere.example";
  static constexpr int kUnresolvedFlag = 1;
  static constexpr const char* kNotBound = "wan_lb: failure to bind to interface: ";
  static constexpr const char* kNoHardwareAddress = "ioctl() failed to get source MAC address";
  static constexpr const char* kSourceAbsent = "address '192.0.2.50' not present on any interface";
};

struct Echo6 {
  using Version = Ipv6;
  using Test = LBTestICMP6;
  static constexpr const char* kName = "ping6";
  static constexpr bool kIsBurst = false;
  static constexpr const char* kUnresolved =
      "Error in resolving configured hostname: nowhere.example";
  static constexpr int kUnresolvedFlag = 2;
  static constexpr const char* kNotBound = "wan_lb: failure to bind to interface (ipv6): ";
  static constexpr const char* kNoHardwareAddress = "ioctl() failed to get source MAC adds";
};

struct Burst {
  using Version = Ipv4;
  using Test = LBTestPING;
  static constexpr const char* kName = "burst";
  static constexpr bool kIsBurst = true;
  static constexpr const char* kUnresolved = Echo6::kUnresolved;
  static constexpr int kUnresolvedFlag = 2;
  static constexpr const char* kNotBound = "Failure to bind to interface: ";
  static constexpr const char* kNoHardwareAddress = Echo4::kNoHardwareAddress;
  static constexpr const char* kSourceAbsent = "Address '192.0.2.50' not present on any interface";
};

template <class Kind>
class PathFailureFixture : public EchoFixture<typename Kind::Version> {
 protected:
  using Kit = EchoKit<typename Kind::Version>;

  PathFailureFixture() {
    set_log_flag(3, true);
    test_.init(this->interface_);
    MutexLock lock(this->interface_.mutex);
    this->interface_.state.no_arp = true;
  }

  // Probes go through the packet socket from here on. Told beforehand, so that the next socket is
  // not the one for the question.
  void use_frames() {
    this->interface_.source_address = Kind::Version::kFamily.ipv6 ? "2001:db8::1" : "192.0.2.1";
    MutexLock lock(this->interface_.mutex);
    this->interface_.state.no_arp = false;
  }

  // Sends no request, and the probe has failed: a burst at once, others by the time that they wait.
  void fail(const std::string& target = Kit::kTarget) {
    test_.set_target(target);
    test_.send(this->interface_, this->worker_);
    virtual_clock::advance(std::chrono::seconds(240));
    const auto sockets = this->sockets();
    for (const auto& sent : this->network_.sent) {
      EXPECT_NE(sent.fd, sockets->send_socket.get());
      EXPECT_NE(sent.fd, sockets->packet_socket.get());
    }
    if (Kind::kIsBurst) {
      EXPECT_EQ(test_.report().result, kResultFailure);
      EXPECT_THAT(this->state().failure_counts,
                  testing::Contains(testing::Pair(target, testing::Ge(1))));
      return;
    }
    EXPECT_EQ(test_.report().result, kResultNone);
    EXPECT_THAT(this->state().failure_counts, testing::IsEmpty());
    const auto entry = this->probes().find(this->interface_.origin, target);
    ASSERT_TRUE(entry.has_value());
    this->probes().erase(entry->key);
  }

  // The debug line that every failure with an errno value ends in.
  static auto send_error(int error) {
    return LoggedDebug(std::string("wan_lb: error on sending ") + Kit::kPacket +
                       " packet: " + std::to_string(error));
  }

  static auto unresolved() {
    return Kind::kUnresolvedFlag == 1 ? LoggedError(Kind::kUnresolved)
                                      : LoggedWarning(Kind::kUnresolved);
  }

  typename Kind::Test test_;
};

struct ProbeKindName {
  template <class Kind>
  static std::string GetName(int) {
    return Kind::kName;
  }
};
