// What is done under a VRF's lock, and what is not.
#include <chrono>
#include <future>
#include <string_view>
#include <thread>

#include "support/conntrack_fixture.h"

using namespace std::chrono_literals;

namespace {

constexpr auto kDeadline = 10s;

class ConntrackRecordLockTest : public ConntrackFixture {
 protected:
  // Runs `work`. While it logs, another thread enters a record of the same VRF; false when that has
  // to wait.
  template <typename Work>
  bool log_leaves_the_tracker_alone(Work work) {
    const auto logging_thread = std::this_thread::get_id();
    std::future<int> other;
    bool free = false;
    // The log expands its texts by it.
    CallHook hook(wrapped::vsnprintf,
                  [&](char* text, size_t size, const char* format, va_list arguments) {
                    const bool logged = std::string_view(format).starts_with("%%%s-%s-%s: ");
                    if (logged && std::this_thread::get_id() == logging_thread && !other.valid()) {
                      other = std::async(std::launch::async, [this] {
                        return create_conntrack_record("192.0.2.2", "198.51.100.7", context_);
                      });
                      free = other.wait_for(kDeadline) == std::future_status::ready;
                    }
                    return wrapped::vsnprintf.real(text, size, format, arguments);
                  });
    work();
    EXPECT_TRUE(other.valid()) << "nothing was logged";
    if (other.valid()) {
      EXPECT_EQ(other.get(), 0);
    }
    return free;
  }
};

// A call that fails, and with what.
struct FailingCall {
  const char* call;
  int error;
};

class ConntrackRecordLogTest : public ConntrackRecordLockTest,
                               public testing::WithParamInterface<FailingCall> {};

}  // namespace

TEST_P(ConntrackRecordLogTest, NothingIsLoggedUnderTheLock) {
  const Fault fault(GetParam().call, GetParam().error, 0, /*times=*/1);
  EXPECT_TRUE(log_leaves_the_tracker_alone([this] { EXPECT_EQ(create(), -1); }));
}

INSTANTIATE_TEST_SUITE_P(Calls, ConntrackRecordLogTest,
                         testing::Values(FailingCall{"mnl_socket_open2", EMFILE},
                                         FailingCall{"mnl_socket_bind", EADDRINUSE},
                                         FailingCall{"nfct_new", ENOMEM},
                                         FailingCall{"mnl_socket_sendto", ENOBUFS},
                                         FailingCall{"mnl_socket_recvfrom", EEXIST}),
                         [](const auto& test) { return test.param.call; });

TEST_F(ConntrackRecordLockTest, UnparsableAddressIsNotLoggedUnderTheLockEither) {
  LBWorkerContext context6 = context_;
  context6.ipv6 = true;
  EXPECT_TRUE(log_leaves_the_tracker_alone(
      [&] { EXPECT_EQ(create_conntrack_record("nonsense", "2001:db8:7::7", context6), -1); }));
}

// Whose tracker does not answer keeps the others' workers from nothing.
TEST_F(ConntrackRecordLockTest, EveryVrfHasALockOfItsOwn) {
  std::promise<void> asked;
  std::promise<void> end;
  bool waiting = false;
  CallHook hook(wrapped::mnl_socket_recvfrom, [&](const mnl_socket*, void*, size_t) {
    if (!waiting) {
      waiting = true;
      asked.set_value();
      end.get_future().wait();
    }
    return ssize_t{0};
  });
  std::future<int> first = std::async(std::launch::async, [this] { return create(); });
  asked.get_future().wait();
  LBWorkerContext other;
  other.vrf = unused_name("vrf");
  std::future<int> second = std::async(std::launch::async, [&] {
    return create_conntrack_record("192.0.2.1", "198.51.100.7", other);
  });
  EXPECT_EQ(second.wait_for(kDeadline), std::future_status::ready);
  end.set_value();
  EXPECT_EQ(first.get(), 0);
  EXPECT_EQ(second.get(), 0);
  Fault fault("nfct_new", ENOMEM);  // leaves no socket of this network behind
  create_conntrack_record("192.0.2.1", "198.51.100.7", other);
}
