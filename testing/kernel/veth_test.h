// A pair of virtual Ethernet interfaces for a test: `near()` is the interface that is tested,
// `far()` its other end. A test may make a second pair. All are in the namespace that the test
// program was started in, and go with the test.
#pragma once

#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "packets/ethernet.h"
#include "platform/file_descriptor.h"
#include "tests/link/link_info.h"

using Bytes = std::vector<uint8_t>;

class VethTest : public testing::Test {
 protected:
  static constexpr std::chrono::seconds kDeadline{20};

  void SetUp() override {
    // Only in namespaces of its own may the test make interfaces.
    std::ifstream map("/proc/self/uid_map");
    unsigned long inside = 0, outside = 0, count = 0;
    map >> inside >> outside >> count;
    ASSERT_EQ(count, 1u) << "run this program under unshare -Urnm";
    static int number = 0;
    near_ = "lbn" + std::to_string(++number);
    far_ = "lbf" + std::to_string(number);
    run("ip link set lo up");
    make_pair(near_, far_);
  }
  void TearDown() override {
    std::system(("ip link del " + near_).c_str());
    if (!near2_.empty()) std::system(("ip link del " + near2_).c_str());
  }

  const std::string& near() const { return near_; }
  const std::string& far() const { return far_; }

  // Makes the second pair.
  void make_second_pair() {
    near2_ = near_ + "b";
    far2_ = far_ + "b";
    make_pair(near2_, far2_);
  }
  const std::string& near2() const { return near2_; }
  const std::string& far2() const { return far2_; }

  static void run(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }

  static MacAddress mac_of(const std::string& ifname) {
    return LinkInfo().hardware_address(LinkSocket::kDatagram, ifname).value;
  }

  // A packet socket on one interface.
  static FileDescriptor open_on(const std::string& ifname, uint16_t ether_type) {
    FileDescriptor fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ether_type);
    address.sll_ifindex = static_cast<int>(if_nametoindex(ifname.c_str()));
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    return fd;
  }

  // The next frame that `wanted` accepts; empty when none came before the deadline.
  static Bytes next_frame(const FileDescriptor& fd,
                          const std::function<bool(const Bytes&)>& wanted) {
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    while (std::chrono::steady_clock::now() < end) {
      pollfd waiting{fd.get(), POLLIN, 0};
      if (poll(&waiting, 1, 100) <= 0) continue;
      Bytes frame(2000);
      const ssize_t length = recv(fd.get(), frame.data(), frame.size(), 0);
      if (length < 0) break;
      frame.resize(static_cast<size_t>(length));
      if (wanted(frame)) return frame;
    }
    return {};
  }

  static bool wait_for(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
  }

  static void send_from(const std::string& ifname, const Bytes& frame) {
    const FileDescriptor fd = open_on(ifname, 0);
    ASSERT_EQ(send(fd.get(), frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
  }
  void send_from_far_end(const Bytes& frame) { send_from(far_, frame); }

  // The frame in the VLAN 20 (IEEE 802.1Q).
  static Bytes tagged(Bytes frame) {
    const Bytes tag{0x81, 0x00, 0x00, 20};
    frame.insert(frame.begin() + 2 * sizeof(MacAddress), tag.begin(), tag.end());
    return frame;
  }

  // The first line that a command prints.
  static std::string output_of(const std::string& command) {
    std::string line;
    FILE* const pipe = popen(command.c_str(), "r");
    for (int byte = std::fgetc(pipe); byte != EOF && byte != '\n'; byte = std::fgetc(pipe)) {
      line += static_cast<char>(byte);
    }
    pclose(pipe);
    return line;
  }

 private:
  // No addresses but those that a test gives: nothing else is on the link.
  static void make_pair(const std::string& one, const std::string& other) {
    run("ip link add " + one + " type veth peer name " + other);
    for (const std::string& name : {one, other}) {
      run("ip link set " + name + " addrgenmode none up");
    }
    ASSERT_TRUE(carries(one, other));
    ASSERT_TRUE(carries(other, one));
  }

  // Waits until a frame gets across: for a while after both ends are up the kernel still drops what
  // is sent, without a word.
  static bool carries(const std::string& from, const std::string& to) {
    constexpr uint16_t kExperimental = 0x88b5;  // IEEE 802, for local experiments
    const FileDescriptor sender = open_on(from, 0);
    const FileDescriptor receiver = open_on(to, kExperimental);
    Bytes frame(60, 0xff);
    frame[12] = kExperimental >> 8, frame[13] = kExperimental & 0xff;
    return wait_for([&] {
      send(sender.get(), frame.data(), frame.size(), 0);
      return recv(receiver.get(), frame.data(), frame.size(), MSG_DONTWAIT) > 0;
    });
  }

  std::string near_;
  std::string far_;
  std::string near2_;
  std::string far2_;
};
