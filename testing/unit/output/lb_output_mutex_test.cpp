// The mutex of the rules' files, and workers that write at once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <thread>

#include "support/output_fixture.h"
#include "support/recorded_log.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class LBOutputMutexTest : public OutputFixture {};

// Runs `body` in a thread and gives what it passed to pthread_exit, or -1 when it just returned.
template <typename Body>
intptr_t exit_code_of(Body body) {
  pthread_t thread;
  const auto start = [](void* argument) -> void* {
    (*static_cast<Body*>(argument))();
    return reinterpret_cast<void*>(intptr_t{-1});
  };
  if (pthread_create(&thread, nullptr, start, &body) != 0) return -2;
  void* result = nullptr;
  pthread_join(thread, &result);
  return reinterpret_cast<intptr_t>(result);
}

}  // namespace

// --- construction and destruction ---

TEST(LBOutputMutexLifeTest, FailedInitialisationEndsTheThread) {
  const Fault fault("pthread_mutex_init", EAGAIN, 0, 1);
  EXPECT_EQ(exit_code_of([] { const LBOutput output("/nonexistent"); }), EAGAIN);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("wan_lb: <LBOutput> error mutex initialization")));
}

TEST(LBOutputMutexLifeTest, FailedDestructionEndsTheThread) {
  const Fault fault("pthread_mutex_destroy", EBUSY, 0, 1);
  EXPECT_EQ(exit_code_of([] { const LBOutput output("/nonexistent"); }), EBUSY);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: <~LBOutput> error mutex destroy")));
}

TEST(LBOutputMutexLifeTest, MessagesAreBehindTheirFlag) {
  set_log_flag(1, false);
  const Fault fault("pthread_mutex_destroy", EBUSY, 0, 1);
  EXPECT_EQ(exit_code_of([] { const LBOutput output("/nonexistent"); }), EBUSY);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST(LBOutputMutexLifeTest, ConstructionTouchesNoFile) {
  EXPECT_EQ(exit_code_of([] { const LBOutput output("/nonexistent"); }), -1);
  EXPECT_EQ(call_count("mkdir"), 0);
  EXPECT_EQ(call_count("fopen"), 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

// --- a write ---

TEST_F(LBOutputMutexTest, BusyMutexSkipsTheRulesOnly) {
  const Fault fault("pthread_mutex_trylock", EBUSY);
  write();
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_FALSE(directory_.exists("out/wlb_dump/wlb_rules.bin"));
  EXPECT_FALSE(directory_.exists("out/wlb_dump/wlb_routes.bin"));
  EXPECT_EQ(outbounds().size(), 2u);
  EXPECT_THAT(status(), HasSubstr("eth0"));
}

TEST_F(LBOutputMutexTest, RulesAreWrittenUnderTheMutex) {
  int tried = -1;
  CallHook trylock(wrapped::pthread_mutex_trylock, [&](pthread_mutex_t* mutex) {
    tried = call_count("fopen");
    return wrapped::pthread_mutex_trylock.real(mutex);
  });
  write();
  EXPECT_EQ(tried, 1);  // the outbounds came before it
  EXPECT_EQ(call_count("pthread_mutex_trylock"), 1);
  EXPECT_EQ(call_count("fopen"), 4);
}

TEST_F(LBOutputMutexTest, FailedUnlockLeavesTheStatusFileAlone) {
  pthread_mutex_t* tried = nullptr;
  CallHook trylock(wrapped::pthread_mutex_trylock, [&](pthread_mutex_t* mutex) {
    tried = mutex;
    return wrapped::pthread_mutex_trylock.real(mutex);
  });
  CallHook unlock(wrapped::pthread_mutex_unlock, [&](pthread_mutex_t* mutex) {
    const int result = wrapped::pthread_mutex_unlock.real(mutex);
    return mutex == tried ? EPERM : result;
  });
  write();
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedError("wan_lb: <write> mutex unlock error. PThread return code: 1")));
  EXPECT_FALSE(directory_.exists("out/wlb_ipv4.out"));
  EXPECT_EQ(rules().size(), 2u);
}

TEST_F(LBOutputMutexTest, WorkersOfManyVrfsLeaveWholeFiles) {
  for (int i = 0; i < 30; ++i) add_interface(config_, "wan" + std::to_string(i));
  std::vector<std::thread> workers;
  for (const bool ipv6 : {false, true}) {
    for (const char* vrf : {"default", "red"}) {
      workers.emplace_back([this, ipv6, vrf] {
        for (int i = 0; i < 20; ++i) {
          for (auto& [name, interface] : config_.interfaces_of(ipv6)) {
            edit_state(interface, [i](InterfaceState& state) { state.active = i % 2 == 0; });
          }
          output_.write(config_, worker_of(ipv6, vrf));
        }
      });
    }
  }
  for (std::thread& worker : workers) worker.join();
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_EQ(outbounds().size(), 32u);
  EXPECT_EQ(outbounds(true).size(), 1u);
  EXPECT_EQ(rules().size(), 2u);
  EXPECT_EQ(routes().size(), 3u);
  size_t blocks = 0;
  const std::string text = status();
  for (size_t at = 0; (at = text.find("Interface:  ", at)) != std::string::npos; ++at) ++blocks;
  EXPECT_EQ(blocks, 32u);
}

// A worker of another VRF must not truncate a file that is half written.
TEST_F(LBOutputMutexTest, WritersOfAFamilyTakeTurns) {
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  CallHook hook(wrapped::fwrite, [&](const void* data, size_t size, size_t count, FILE* file) {
    const int now = ++inside;
    if (now > most) most = now;
    sched_yield();
    const size_t result = wrapped::fwrite.real(data, size, count, file);
    --inside;
    return result;
  });
  make_dump_directory();
  std::vector<std::thread> workers;
  for (int i = 0; i < 4; ++i) {
    workers.emplace_back([this] {
      for (int round = 0; round < 20; ++round) {
        output_.dump_outbounds(wall_now(), &config_.interfaces, false);
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  EXPECT_EQ(most, 1);
}

// The same for the report: the next writer opens it, and so empties it, after the last one closed
// it.
TEST_F(LBOutputMutexTest, WritersOfAReportTakeTurns) {
  std::atomic<FILE*> report{nullptr};
  std::atomic<int> opened{0};
  std::atomic<bool> overlap{false};
  const std::string report_path = path("wlb_ipv4.out");
  CallHook open_hook(wrapped::fopen, [&](const char* file_path, const char* mode) {
    FILE* const file = wrapped::fopen.real(file_path, mode);
    if (file_path == report_path) {
      ++opened;
      if (report.exchange(file) != nullptr) overlap = true;
      sched_yield();
    }
    return file;
  });
  CallHook close_hook(wrapped::fclose, [&](FILE* file) {
    FILE* open_report = file;
    report.compare_exchange_strong(open_report, nullptr);
    return wrapped::fclose.real(file);
  });
  std::vector<std::thread> workers;
  for (int i = 0; i < 4; ++i) {
    workers.emplace_back([this] {
      for (int round = 0; round < 20; ++round) write();
    });
  }
  for (std::thread& worker : workers) worker.join();
  EXPECT_EQ(opened, 80);
  EXPECT_FALSE(overlap);
}
