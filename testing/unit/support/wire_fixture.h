// An interface whose replies are read from the wire, in a fake network.
#pragma once

#include <linux/if_packet.h>

#include <memory>
#include <utility>
#include <vector>

#include "support/receiver_fixture.h"
#include "support/sealed_packets.h"

template <class IpVersion>
struct WireKit;

template <>
struct WireKit<Ipv4> {
  // An echo reply from 198.51.100.7 as a packet socket delivers it, with its IP header.
  static FakeNetwork::Bytes reply(uint32_t key, uint16_t sequence = 0) {
    FakeNetwork::Bytes packet{
        0x45, 0x00, 0x00, 0x20,  // version 4, 5 words, total length 32
        0x00, 0x00, 0x00, 0x00,  // identification, flags, offset
        0x40, 0x01, 0x00, 0x00,  // time to live 64, ICMP, checksum
        0xc6, 0x33, 0x64, 0x07,  // source 198.51.100.7
        0xc0, 0x00, 0x02, 0x01,  // destination 192.0.2.1
        0x00, 0x00, 0x00, 0x00,  // echo reply, code 0, checksum
        0x12, 0x34, 0x00, 0x00,  // identifier, sequence
        0x00, 0x00, 0x00, 0x00,  // key
    };
    put_numbers(packet, 26, sequence, key);
    return packet;
  }
  static void put_numbers(FakeNetwork::Bytes& packet, size_t at, uint16_t sequence, uint32_t key) {
    packet[at] = static_cast<uint8_t>(sequence >> 8);
    packet[at + 1] = static_cast<uint8_t>(sequence & 0xff);
    for (size_t i = 0; i < 4; ++i) packet[at + 2 + i] = static_cast<uint8_t>(key >> (24 - 8 * i));
    seal(packet);
  }
  static constexpr size_t kLastOfSource = 15;
  static constexpr size_t kType = 20;
  static constexpr const char* kOtherNames[] = {"probe", "router.example", "198.51.100.7 "};
};

template <>
struct WireKit<Ipv6> {
  // The same from 2001:db8:7::7.
  static FakeNetwork::Bytes reply(uint32_t key, uint16_t sequence = 0) {
    FakeNetwork::Bytes packet{
        0x60, 0x00, 0x00, 0x00,                                               // version 6
        0x00, 0x0c, 0x3a, 0x40,                                               // length 12, ICMPv6
        0x20, 0x01, 0x0d, 0xb8, 0x00, 0x07, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x07,  // from 2001:db8:7::7
        0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02,  // to 2001:db8::2
        0x81, 0x00, 0x00, 0x00,                                               // echo reply
        0x12, 0x34, 0x00, 0x00,  // identifier, sequence
        0x00, 0x00, 0x00, 0x00,  // key
    };
    WireKit<Ipv4>::put_numbers(packet, 46, sequence, key);
    return packet;
  }
  static constexpr size_t kLastOfSource = 23;
  static constexpr size_t kType = 40;
  static constexpr const char* kOtherNames[] = {"probe", "router.example", "fe80::1%wan1"};
};

// Where a packet socket was bound to.
struct BoundDevice {
  int fd;
  sockaddr_ll address;
};

template <class IpVersion>
class WireFixture : public ReceiverFixture<IpVersion> {
 protected:
  WireFixture() {
    auto options = std::make_shared<Options>();
    options->wire_replies = true;
    this->interface_.options = options;
    this->network_.interface_names[present_index_] = this->ifname_;
  }

  ~WireFixture() override {
    this->network_.end_threads();
    while (const auto left = this->probe_to(EchoKit<IpVersion>::kTarget)) {
      this->probes().erase(left->key);
    }
  }

  // The device gets another index; 0: it goes.
  void remake_device(unsigned index) {
    this->network_.interface_names.erase(present_index_);
    present_index_ = index;
    this->network_.interface_index = 0;  // what no name is of
    if (index != 0) this->network_.interface_names[index] = this->ifname_;
  }

  // Starts the receiver; replies are delivered to its socket from then on.
  void start_receiver() {
    if (test_ == nullptr) test_ = this->make_test();
    this->start();
  }

  // True once everything delivered so far has been handled: a marker behind it was.
  bool wire_handled() {
    const int32_t key = this->enter_probe("marker");
    this->deliver(WireKit<IpVersion>::reply(static_cast<uint32_t>(key)));
    const bool done = this->becomes_answered("marker");
    this->probes().erase(key);
    return done;
  }

  const sockaddr_ll* bound_to() const { return bound_.empty() ? nullptr : &bound_.back().address; }

  std::vector<BoundDevice> bound_;  // in order
  std::unique_ptr<typename EchoKit<IpVersion>::Test> test_;

 private:
  unsigned present_index_ = 41;

  // What the kernel does for packet sockets.
  CallHook<int(int, const sockaddr*, socklen_t)> bind_{
      wrapped::bind, [this](int fd, const sockaddr* address, socklen_t size) {
        if (address->sa_family != AF_PACKET) return 0;
        BoundDevice bound{fd, {}};
        EXPECT_EQ(size, sizeof(bound.address));
        std::memcpy(&bound.address, address, sizeof(bound.address));
        bound_.push_back(bound);
        return 0;
      }};
  CallHook<int(int, sockaddr*, socklen_t*)> getsockname_{
      wrapped::getsockname, [this](int fd, sockaddr* address, socklen_t* size) {
        sockaddr_ll now{};
        for (const BoundDevice& bound : bound_) {
          if (bound.fd == fd) now = bound.address;
        }
        EXPECT_EQ(*size, sizeof(now));
        std::memcpy(address, &now, sizeof(now));
        return 0;
      }};
};
