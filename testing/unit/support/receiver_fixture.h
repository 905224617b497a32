// The receiver thread of an interface in a fake network: what it is given, and when it has ended.
#pragma once

#include <string>

#include "support/echo_fixture.h"
#include "tests/io/reply_receiver.h"

template <class IpVersion>
class ReceiverFixture : public EchoFixture<IpVersion> {
 protected:
  using Packet = FakeNetwork::Bytes;

  ~ReceiverFixture() override {
    this->network_.end_threads();
    while (const auto left = this->probe_to("probe")) this->probes().erase(left->key);
  }

  void start() {
    ensure_receiver(IpVersion::kFamily, this->ifname_);
    socket_ = this->network_.socket_of(this->sockets()->recv_socket.get());
  }

  void deliver(const Packet& packet) { FakeNetwork::deliver(socket_, packet); }

  void deliver_answer(int32_t key) {
    deliver(EchoKit<IpVersion>::reply(static_cast<uint32_t>(key)));
  }

  bool is_answered(const char* target = "probe") {
    return this->probe_to(target)->probe.state == 0;
  }
  bool becomes_answered(const char* target = "probe") {
    return wait_until([&] { return is_answered(target); });
  }

  // True once everything delivered so far has been handled: a marker behind it was.
  bool handled() {
    const int32_t key = this->enter_probe("marker");
    deliver_answer(key);
    const bool done = becomes_answered("marker");
    this->probes().erase(key);
    return done;
  }

  // A probe and its answer, from the start of the receiver to its end.
  void receive_answer() {
    const int32_t key = this->enter_probe("probe");
    start();
    deliver_answer(key);
    EXPECT_TRUE(becomes_answered());
    this->network_.end_threads();
  }

  bool wait_for_end() {
    return wait_until([&] { return this->network_.live_threads() == 0; });
  }

  // The thread ends by itself, and says that this call failed.
  void expect_end_by(const std::string& call) {
    ASSERT_TRUE(wait_for_end());
    EXPECT_THAT(log_records(), testing::ElementsAre(LoggedError(
                                   call + " for " + IpVersion::kFamily.name + " failed!!!!!")));
    EXPECT_EQ(this->sockets()->receiver_state, ReceiverState::kAbsent);
  }

  FakeNetwork::Socket socket_;
};
