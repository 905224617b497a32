#include "output/lb_output.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <thread>

#include "support/output_fixture.h"
#include "support/recorded_log.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

class LBOutputTest : public OutputFixture {};

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

TEST(LBOutputMutexTest, FailedInitialisationEndsTheThread) {
  const Fault fault("pthread_mutex_init", EAGAIN, 0, 1);
  EXPECT_EQ(exit_code_of([] { const LBOutput output("/nonexistent"); }), EAGAIN);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("wan_lb: <LBOutput> error mutex initialization")));
}

TEST(LBOutputMutexTest, FailedDestructionEndsTheThread) {
  const Fault fault("pthread_mutex_destroy", EBUSY, 0, 1);
  EXPECT_EQ(exit_code_of([] { const LBOutput output("/nonexistent"); }), EBUSY);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: <~LBOutput> error mutex destroy")));
}

TEST(LBOutputMutexTest, MessagesAreBehindTheirFlag) {
  set_log_flag(1, false);
  const Fault fault("pthread_mutex_destroy", EBUSY, 0, 1);
  EXPECT_EQ(exit_code_of([] { const LBOutput output("/nonexistent"); }), EBUSY);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST(LBOutputMutexTest, ConstructionTouchesNoFile) {
  EXPECT_EQ(exit_code_of([] { const LBOutput output("/nonexistent"); }), -1);
  EXPECT_EQ(call_count("mkdir"), 0);
  EXPECT_EQ(call_count("fopen"), 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

// --- one write ---

TEST_F(LBOutputTest, Ipv4WorkerWritesItsFiles) {
  write();
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_EQ(outbounds().size(), 2u);
  EXPECT_EQ(rules().size(), 2u);
  EXPECT_EQ(routes().size(), 3u);
  EXPECT_FALSE(directory_.exists("out/wlb_ipv6.out"));
  EXPECT_FALSE(directory_.exists("out/wlb_dump/wlb_ipv6_outbounds.bin"));
  EXPECT_THAT(output_.used_files(false),
              UnorderedElementsAre(path("wlb_ipv4.out"), dump_path("wlb_ipv4_outbounds.bin"),
                                   dump_path("wlb_rules.bin"), dump_path("wlb_routes.bin")));
  EXPECT_THAT(output_.used_files(true), IsEmpty());
}

TEST_F(LBOutputTest, Ipv6WorkerWritesItsFiles) {
  write(true);
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_EQ(outbounds(true).size(), 1u);
  EXPECT_EQ(rules().size(), 2u);
  EXPECT_EQ(routes().size(), 3u);
  EXPECT_FALSE(directory_.exists("out/wlb_ipv4.out"));
  EXPECT_FALSE(directory_.exists("out/wlb_dump/wlb_ipv4_outbounds.bin"));
  EXPECT_THAT(output_.used_files(true),
              UnorderedElementsAre(path("wlb_ipv6.out"), dump_path("wlb_ipv6_outbounds.bin")));
  EXPECT_THAT(output_.used_files(false),
              UnorderedElementsAre(dump_path("wlb_rules.bin"), dump_path("wlb_routes.bin")));
}

TEST_F(LBOutputTest, UsedFilesOnlyGrow) {
  write();
  const auto before = output_.used_files(false);
  write(true);
  write();
  EXPECT_EQ(output_.used_files(false), before);
}

// All interfaces of the family are listed, also those of other VRFs, in name order.
TEST_F(LBOutputTest, StatusReport) {
  setenv("TZ", "UTC", 1);
  tzset();
  write();
  EXPECT_EQ(status(),
            "Interface:  eth0\n"
            "  Status:  active\n"
            "  Last Status Change:  Thu Jan  1 00:00:00 1970\n"
            "  +Test:  ping\tTarget: 192.0.2.50\n"
            "    Last Interface Success:  4s\t\n"
            "    Last Interface Failure:  n/a\t\t\n"
            "\n"
            "Interface:  eth1\n"
            "  Status:  failed\n"
            "  Last Status Change:  Thu Jan  1 00:00:00 1970\n"
            "    Last Interface Success:  n/a\t\t\n"
            "    Last Interface Failure:  n/a\t\t\n"
            "\n");
  write(true);
  EXPECT_EQ(status(true),
            "Interface:  eth6\n"
            "  Status:  failed\n"
            "  Last Status Change:  Thu Jan  1 00:00:00 1970\n"
            "  -Test:  ping\tTarget: 2001:db8::50\n"
            "    Last Interface Success:  n/a\t\t\n"
            "    Last Interface Failure:  n/a\t\t\n"
            "\n");
  unsetenv("TZ");
}

TEST_F(LBOutputTest, TestsInIndexOrder) {
  LBInterface& interface = config_.interfaces.at("eth1");
  for (const int index : {10, 2, 1}) {
    interface.tests[index] =
        std::make_shared<ReportedTest>(make_report("t" + std::to_string(index), 0));
  }
  write();
  EXPECT_THAT(status(), HasSubstr("   Test:  ping\tTarget: t1\n"
                                  "   Test:  ping\tTarget: t2\n"
                                  "   Test:  ping\tTarget: t10\n"));
  const DumpOutbound record = outbounds().at(1);
  EXPECT_EQ(record.test_count, 3);
  EXPECT_STREQ(record.tests[0].target, "t1");
  EXPECT_STREQ(record.tests[2].target, "t10");
}

TEST_F(LBOutputTest, FilesAreWrittenAnewInPlace) {
  make_dump_directory();
  directory_.write("out/wlb_ipv4.out", std::string(100000, 'x'));
  directory_.write("out/wlb_dump/wlb_routes.bin", std::string(100000, 'x'));
  struct stat before {};
  ASSERT_EQ(stat(path("wlb_ipv4.out").c_str(), &before), 0);
  write();
  struct stat after {};
  ASSERT_EQ(stat(path("wlb_ipv4.out").c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_THAT(status(), testing::Not(HasSubstr("x")));
  EXPECT_EQ(routes().size(), 3u);
  EXPECT_EQ(call_count("rename"), 0);
}

TEST_F(LBOutputTest, NoInterfacesMakeEmptyFiles) {
  config_.interfaces.clear();
  write();
  EXPECT_TRUE(directory_.exists("out/wlb_ipv4.out"));
  EXPECT_EQ(status(), "");
  EXPECT_TRUE(directory_.exists("out/wlb_dump/wlb_ipv4_outbounds.bin"));
  EXPECT_THAT(outbounds(), IsEmpty());
}

TEST_F(LBOutputTest, NoLockOfTheModelIsHeldOverFiles) {
  int held = 0;
  CallHook hook(wrapped::fwrite, [&](const void* data, size_t size, size_t count, FILE* file) {
    for (Mutex* mutex : {&config_.interfaces.at("eth0").mutex, &config_.written_mutex}) {
      if (mutex->try_lock()) {
        mutex->unlock();
      } else {
        ++held;
      }
    }
    return wrapped::fwrite.real(data, size, count, file);
  });
  write();
  EXPECT_EQ(held, 0);
  EXPECT_EQ(call_count("fwrite"), 7);
}

// --- the dump directory ---

TEST_F(LBOutputTest, DumpDirectoryIsMadeWithAllRights) {
  mode_t mode = 0;
  CallHook hook(wrapped::mkdir, [&](const char* name, mode_t asked) {
    mode = asked;
    return wrapped::mkdir.real(name, asked);
  });
  write();
  EXPECT_EQ(mode, 0777u);
  EXPECT_TRUE(std::filesystem::is_directory(path("wlb_dump")));
}

TEST_F(LBOutputTest, ExistingDumpDirectoryIsAccepted) {
  make_dump_directory();
  write();
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_EQ(outbounds().size(), 2u);
}

TEST_F(LBOutputTest, DumpDirectoryThatCannotBeMadeStopsTheWrite) {
  directory_.write("out/wlb_ipv4.out", "old");
  const Fault fault("mkdir", EACCES);
  write();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: error create directory: " +
                                                     path("wlb_dump") + ", errno = 13")));
  EXPECT_EQ(status(), "old");
  EXPECT_EQ(call_count("fopen"), 0);
  EXPECT_THAT(output_.used_files(false),
              UnorderedElementsAre(dump_path("wlb_rules.bin"), dump_path("wlb_routes.bin")));
}

TEST_F(LBOutputTest, NextWriteTriesAgain) {
  {
    const Fault fault("mkdir", EACCES);
    write();
  }
  write();
  EXPECT_THAT(status(), HasSubstr("eth0"));
}

TEST_F(LBOutputTest, DirectoryMessageIsBehindItsFlag) {
  set_log_flag(1, false);
  const Fault fault("mkdir", EACCES);
  write();
  EXPECT_THAT(log_records(), IsEmpty());
}

// --- the mutex ---

TEST_F(LBOutputTest, BusyMutexSkipsTheRulesOnly) {
  const Fault fault("pthread_mutex_trylock", EBUSY);
  write();
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_FALSE(directory_.exists("out/wlb_dump/wlb_rules.bin"));
  EXPECT_FALSE(directory_.exists("out/wlb_dump/wlb_routes.bin"));
  EXPECT_EQ(outbounds().size(), 2u);
  EXPECT_THAT(status(), HasSubstr("eth0"));
}

TEST_F(LBOutputTest, RulesAreWrittenUnderTheMutex) {
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

TEST_F(LBOutputTest, FailedUnlockLeavesTheStatusFileAlone) {
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

// --- the status file ---

TEST_F(LBOutputTest, StatusFileThatCannotBeOpened) {
  block(path("wlb_ipv4.out"));
  write();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: error ordering output file " +
                                                     path("wlb_ipv4.out"))));
  EXPECT_EQ(rules().size(), 2u);
}

TEST_F(LBOutputTest, StatusMessageIsBehindItsFlag) {
  set_log_flag(1, false);
  block(path("wlb_ipv4.out"));
  write();
  EXPECT_THAT(log_records(), IsEmpty());
}

// --- several workers ---

TEST_F(LBOutputTest, WorkersOfManyVrfsLeaveWholeFiles) {
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
