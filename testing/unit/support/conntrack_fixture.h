// The connection tracker's end of a netlink socket.
#pragma once

#include <linux/netlink.h>

#include <cerrno>
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
  uint32_t last_sequence() const { return header_of(network_.conntrack_requests.back()).nlmsg_seq; }

  // Writes an answer without an error code, or of no payload; its size.
  static ssize_t write_answer(void* data, uint16_t type, uint32_t sequence, uint32_t port) {
    const size_t payload = type == NLMSG_ERROR ? sizeof(nlmsgerr) : 0;
    const nlmsghdr header{static_cast<uint32_t>(NLMSG_LENGTH(payload)), type, 0, sequence, port};
    std::memset(data, 0, header.nlmsg_len);
    std::memcpy(data, &header, sizeof(header));
    return static_cast<ssize_t>(header.nlmsg_len);
  }

  FakeNetwork network_;
  LBWorkerContext context_;
};
