#include "core/vrf_thread.h"

#include <gmock/gmock.h>

#include <atomic>

#include "support/core_fixture.h"
#include "support/fake_network.h"
#include "support/recorded_device.h"
#include "support/recorded_log.h"
#include "support/virtual_clock/virtual_clock.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

// What a worker's sleep throws: a worker has no other end.
struct EndOfWorker {};

struct ThreadStart {
  WrappedThreadStart body;
  void* argument;
};

void* run_until_sleep(void* argument) {
  const std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(argument));
  try {
    return start->body(start->argument);
  } catch (const EndOfWorker&) {
    return nullptr;
  }
}

constexpr const char* kBothFamilies =
    "health {\n interface eth0 {\n }\n interface6 eth6 {\n }\n}\nrule 1_ipv4 {\n}\nrule 1_ipv6 "
    "{\n}\n";

// Every worker runs one cycle, up to its sleep.
class VrfThreadTest : public CoreFixture {
 protected:
  VrfThreadTest() {
    virtual_clock::on_sleep([](std::chrono::nanoseconds) { throw EndOfWorker(); });
  }

  // Starts the VRF's thread and waits for its end. The tests of the configuration note what they
  // are told of their worker.
  void run(const std::string& vrf) {
    for (const bool ipv6 : {false, true}) {
      for (auto& [name, interface] : daemon_.config().interfaces_of(ipv6)) {
        interface.tests.clear();
        add_test(interface, 1, name, [this](const LBWorkerContext& worker) { note(worker); });
      }
    }
    pthread_t thread;
    ASSERT_EQ(start_vrf_thread(daemon_, vrf, thread), 0);
    pthread_join(thread, nullptr);
  }

  std::vector<std::string> workers() const { return workers_.all(); }

 private:
  void note(const LBWorkerContext& worker) {
    EXPECT_EQ(worker.daemon, &daemon_);
    EXPECT_EQ(worker.arp != nullptr, worker.ipv6 == 0);
    EXPECT_EQ(worker.neighbor != nullptr, worker.ipv6 == 1);
    workers_.note(worker.vrf + (worker.ipv6 == 0 ? " 4" : " 6"));
  }

  Events workers_;
  FakeNetwork network_;
  CallHook<int(pthread_t*, const pthread_attr_t*, WrappedThreadStart, void*)> thread_hook_{
      wrapped::pthread_create, [](pthread_t* thread, const pthread_attr_t* attributes,
                                  WrappedThreadStart body, void* argument) {
        EXPECT_EQ(attributes, nullptr);
        return wrapped::pthread_create.real(thread, attributes, &run_until_sleep,
                                            new ThreadStart{body, argument});
      }};
};

}  // namespace

TEST_F(VrfThreadTest, StartsAWorkerPerFamily) {
  load(kBothFamilies);
  run("default");
  EXPECT_THAT(workers(), UnorderedElementsAre("default 4", "default 6"));
  EXPECT_EQ(call_count("pthread_create"), 3);
  EXPECT_THAT(log_records(), UnorderedElementsAre(
                                 LoggedInstance("IP interface eth0 changed state to inactive"),
                                 LoggedInstance("IPv6 interface eth6 changed state to inactive")));
}

// The start comes before the first cycle.
TEST_F(VrfThreadTest, WorkerPreparesItsTestsFirst) {
  load("health {\n interface eth0 {\n }\n}\nrule 1_ipv4 {\n}\n");
  run("default");
  EXPECT_THAT(events_.all(), ElementsAre("init eth0", "send eth0", "recv eth0"));
}

TEST_F(VrfThreadTest, FamilyNeedsInterfacesAndRules) {
  // IPv4 lacks rules, IPv6 lacks interfaces.
  load("health {\n interface eth0 {\n }\n}\nrule 1 {\n}\nrule 2_ipv6 {\n}\n");
  run("default");
  EXPECT_THAT(workers(), IsEmpty());
  EXPECT_EQ(call_count("pthread_create"), 1);
  EXPECT_EQ(call_count("socket"), 0);  // no prober either
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(VrfThreadTest, FamilyNeedsBothInTheSameVrf) {
  load(
      "health {\n interface eth0 {\n namespace red\n }\n interface6 eth6 {\n namespace red\n }\n}\n"
      "rule 1_ipv4 {\n}\nrule 1_ipv6 {\n namespace red\n}\n");
  run("red");
  EXPECT_THAT(workers(), ElementsAre("red 6"));
  run("default");
  EXPECT_THAT(workers(), ElementsAre("red 6"));
}

TEST_F(VrfThreadTest, EntersTheNamespaceOfItsVrf) {
  load("health {\n interface eth0 {\n namespace red\n }\n}\nrule 1_ipv4 {\n namespace red\n}\n");
  run("red");
  EXPECT_THAT(recorded_device::calls(), ElementsAre("lh_netns_set red"));
  EXPECT_THAT(workers(), ElementsAre("red 4"));
}

TEST_F(VrfThreadTest, MainVrfStaysWhereItIs) {
  load(kBothFamilies);
  run("default");
  EXPECT_THAT(recorded_device::calls(), IsEmpty());
}

TEST_F(VrfThreadTest, NamespaceThatCannotBeEnteredEndsItInSilence) {
  load("health {\n interface eth0 {\n namespace red\n }\n}\nrule 1_ipv4 {\n namespace red\n}\n");
  recorded_device::set_netns_result(-1);
  run("red");
  EXPECT_THAT(workers(), IsEmpty());
  EXPECT_EQ(call_count("pthread_create"), 1);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(VrfThreadTest, Ipv6WorkerRunsWithoutTheIpv4One) {
  load(kBothFamilies);
  const Fault fault("pthread_create", EAGAIN, /*skip=*/1, /*times=*/1);
  run("default");
  EXPECT_THAT(workers(), ElementsAre("default 6"));
  EXPECT_EQ(log_records().at(0).priority, 4);
  EXPECT_EQ(log_texts().at(0), "%WAN-W-WARN: Can't create new thread for IPv4 VRF default");
}

TEST_F(VrfThreadTest, Ipv4WorkerRunsWithoutTheIpv6One) {
  load(kBothFamilies);
  const Fault fault("pthread_create", EAGAIN, /*skip=*/2, /*times=*/1);
  run("default");
  EXPECT_THAT(workers(), ElementsAre("default 4"));
  EXPECT_THAT(log_records(),
              UnorderedElementsAre(LoggedInstance("IP interface eth0 changed state to inactive"),
                                   LoggedWarning("Can't create new thread for IPv6 VRF default")));
}

TEST_F(VrfThreadTest, MessagesAreBehindTheirFlag) {
  load(kBothFamilies);
  set_log_flag(2, false);
  const Fault fault("pthread_create", EAGAIN, /*skip=*/1);
  run("default");
  EXPECT_THAT(workers(), IsEmpty());
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(VrfThreadTest, ThreadThatCannotBeCreatedIsTheCallersBusiness) {
  load(kBothFamilies);
  const Fault fault("pthread_create", EAGAIN);
  pthread_t thread;
  EXPECT_EQ(start_vrf_thread(daemon_, "default", thread), EAGAIN);
  EXPECT_THAT(log_records(), IsEmpty());
}
