// Records of the connection tracker, made for a VRF of the test's own in a fake network.
#pragma once

#include <gmock/gmock.h>

#include "routing/conntrack_record.h"
#include "support/echo_fixture.h"

class ConntrackFixture : public testing::Test {
 protected:
  using Bytes = FakeNetwork::Bytes;

  ConntrackFixture() { context_.vrf = unused_name("vrf"); }

  // Leaves no socket of this network behind: it ends with a failure.
  ~ConntrackFixture() override {
    context_.ipv6 = 0;
    Fault fault("nfct_new", ENOMEM);
    create();
  }

  int create() { return create_conntrack_record("192.0.2.1", "198.51.100.7", context_); }
  int create6() {
    context_.ipv6 = 1;
    return create_conntrack_record("2001:db8::1", "2001:db8:7::7", context_);
  }

  static nlmsghdr header_of(const Bytes& request) {
    nlmsghdr header{};
    EXPECT_GE(request.size(), sizeof(header));
    std::memcpy(&header, request.data(), sizeof(header));
    return header;
  }

  FakeNetwork network_;
  LBWorkerContext context_;
};
