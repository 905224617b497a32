// Records of the connection tracker, made for a VRF of the test's own in a fake network.
#pragma once

#include <gmock/gmock.h>
#include <linux/netlink.h>

#include <cstring>

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

  // The tracker's answer to the last request: an errno value, or 0 for an acknowledgement. `port`
  // is that of the socket it is for.
  ssize_t answer(void* data, int error, uint32_t port = 4711) const {
    const nlmsghdr request = header_of(network_.conntrack_requests.back());
    const nlmsgerr verdict{-error, request};
    const nlmsghdr header{NLMSG_LENGTH(sizeof(verdict)), NLMSG_ERROR, 0, request.nlmsg_seq, port};
    std::memcpy(data, &header, sizeof(header));
    std::memcpy(static_cast<char*>(data) + NLMSG_HDRLEN, &verdict, sizeof(verdict));
    return static_cast<ssize_t>(header.nlmsg_len);
  }

  FakeNetwork network_;
  LBWorkerContext context_;
};
