#include "core/start_up.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include "core/command_line.h"
#include "platform/descriptor_limit.h"
#include "support/start_up_fixture.h"

using testing::AllOf;
using testing::EndsWith;
using testing::ExitedWithCode;
using testing::HasSubstr;

namespace {

class StartUpDeathTest : public StartUpFixture {};

constexpr const char* kRedOnly =
    "health {\n interface eth0 {\n namespace red\n }\n}\nrule 1_ipv4 {\n namespace red\n}\n";

}  // namespace

TEST_F(StartUpDeathTest, UsageIsPrintedAndEndsTheStart) {
  for (const char* option : {"-h", "-x"}) {
    EXPECT_EXIT(start({"-f", config(kRedOnly), "-i", directory_.file("lb.pid"), option}),
                ExitedWithCode(0),
                EndsWith(std::string(kUsage) + kCrashReport + "threads 0\nend\n"));
  }
}

TEST_F(StartUpDeathTest, ConfigurationPathIsNeeded) {
  EXPECT_EXIT(start({}), ExitedWithCode(0),
              testing::Eq(std::string("Configuration file is empty\n") + kCrashReport +
                          "threads 0\nend\n"));
  EXPECT_EXIT(start({"-t", "-d", "-f", config(kRedOnly), "-f", ""}), ExitedWithCode(0),
              HasSubstr("Configuration file is empty\n"));
}

TEST_F(StartUpDeathTest, LoadOnlyStartsNothing) {
  EXPECT_EXIT(start({"-t", "-f", config("rule 0 {\n}\n" + std::string(kRedOnly))}),
              ExitedWithCode(0),
              testing::Eq(std::string(kCrashReport) +
                          "<4> %WAN-W-WARN: Illegal rule number: 0\nthreads 0\nend\n"));
}

TEST_F(StartUpDeathTest, LoadOnlyOfAMissingFileIsNoFailure) {
  EXPECT_EXIT(
      start({"-t", "-f", "/nonexistent"}), ExitedWithCode(0),
      AllOf(HasSubstr("<4> %WAN-W-ERR: wan_lb: configuration file not found: /nonexistent\n"),
            HasSubstr("threads 0\n")));
}

TEST_F(StartUpDeathTest, PidFileComesBeforeTheConfiguration) {
  EXPECT_EXIT(start({"-t", "-f", "/nonexistent", "-i", "/nonexistent/lb.pid"}), ExitedWithCode(0),
              HasSubstr("<4> %WAN-W-ERR: Can't fopen pid lock file /nonexistent/lb.pid, "
                        "continuing\n<4> %WAN-W-ERR: wan_lb: configuration file not found: "));
}

TEST_F(StartUpDeathTest, NoPidFileUnlessAsked) {
  EXPECT_EXIT(
      {
        CallHook hook(wrapped::fopen, [](const char* path, const char* mode) {
          dprintf(2, "fopen %s\n", path);
          return wrapped::fopen.real(path, mode);
        });
        start({"-t", "-f", "/nonexistent"});
      },
      ExitedWithCode(0), testing::StartsWith("fopen /nonexistent\nbacktrace"));
}

// The VRFs' threads come last; the process stays when all of them have ended.
TEST_F(StartUpDeathTest, WatchdogThenOneThreadPerVrfWithWork) {
  // "bare" is named, yet nothing is left in it; nothing is in "default".
  const std::string text =
      "health {\n interface eth0 {\n namespace bare\n namespace red\n }\n}\n"
      "rule 1_ipv4 {\n namespace red\n}\n";
  EXPECT_EXIT(start_and_fall_idle({"-f", config(text)}), ExitedWithCode(77),
              testing::Eq(std::string(kCrashReport) +
                          "send_signal_live 1 1\nset_timeout\nlh_netns_set red\n"
                          "threads 1\nsleep 4\nsleep 4\nend\n"));
}

TEST_F(StartUpDeathTest, InterfacesOrRulesAloneMakeAVrfsThread) {
  const std::string text =
      "health {\n interface eth0 {\n namespace a4\n }\n interface6 eth0 {\n namespace a6\n }\n}\n"
      "rule 1_ipv4 {\n namespace r4\n}\nrule 1_ipv6 {\n namespace r6\n}\n";
  EXPECT_EXIT(start_and_fall_idle({"-f", config(text)}), ExitedWithCode(77),
              AllOf(HasSubstr("lh_netns_set a4\n"), HasSubstr("lh_netns_set a6\n"),
                    HasSubstr("lh_netns_set r4\n"), HasSubstr("lh_netns_set r6\n"),
                    HasSubstr("threads 4\n")));
}

TEST_F(StartUpDeathTest, VrfsAreStartedInTheOrderOfTheirNames) {
  const std::string text =
      "rule 1_ipv4 {\n namespace zone\n}\nrule 2_ipv4 {\n namespace Red\n}\n"
      "rule 3_ipv4 {\n namespace blue\n}\n";
  EXPECT_EXIT(
      {
        // Each runs to its end before the next one is started.
        CallHook hook(wrapped::pthread_create, [](pthread_t* thread, const pthread_attr_t*,
                                                  WrappedThreadStart body, void* argument) {
          body(argument);
          *thread = pthread_self();
          return 0;
        });
        const Fault no_joins("pthread_join", EDEADLK);
        start_and_fall_idle({"-f", config(text)});
      },
      ExitedWithCode(77),
      HasSubstr("lh_netns_set Red\nlh_netns_set blue\nlh_netns_set zone\nthreads 3\n"));
}

TEST_F(StartUpDeathTest, EmptyConfigurationStaysIdle) {
  EXPECT_EXIT(start_and_fall_idle({"-f", config("")}), ExitedWithCode(77),
              testing::Eq(std::string(kCrashReport) +
                          "send_signal_live 1 1\nset_timeout\nthreads 0\nsleep 4\nsleep 4\nend\n"));
}

TEST_F(StartUpDeathTest, ThreadThatCannotBeCreatedEndsTheProcess) {
  EXPECT_EXIT(
      {
        const Fault fault("pthread_create", EAGAIN);
        start({"-f", config(kRedOnly)});
      },
      ExitedWithCode(255),
      EndsWith("set_timeout\n<4> %WAN-W-WARN: Can't create new thread for VRF red\n"
               "threads 1\nend\n"));
}

TEST_F(StartUpDeathTest, ThreadMessageIsBehindItsFlag) {
  EXPECT_EXIT(
      {
        set_log_flag(2, false);
        const Fault fault("pthread_create", EAGAIN);
        start({"-f", config(kRedOnly)});
      },
      ExitedWithCode(255), EndsWith("set_timeout\nthreads 1\nend\n"));
}

// --- descriptors ---

// Standard error is not there to report on: the exit status tells.
[[noreturn]] void start_without_standard_descriptors() {
  atexit([] {
    struct stat null_device {};
    struct stat found {};
    stat("/dev/null", &null_device);
    for (const int fd : {0, 2}) {
      if (fstat(fd, &found) != 0 || found.st_rdev != null_device.st_rdev) _exit(1);
    }
    _exit(42);
  });
  close(0);
  close(2);
  std::string name = "lb";
  char* argv[] = {name.data(), nullptr};
  optind = 0;
  exit(run_daemon(1, argv));
}

TEST_F(StartUpDeathTest, ClosedStandardDescriptorsAreTakenByTheNullDevice) {
  EXPECT_EXIT(start_without_standard_descriptors(), ExitedWithCode(42), "");
}

TEST_F(StartUpDeathTest, DescriptorLimitIsRaised) {
  EXPECT_EXIT(
      {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 256;
        setrlimit(RLIMIT_NOFILE, &limit);
        atexit([] {
          rlimit raised{};
          getrlimit(RLIMIT_NOFILE, &raised);
          dprintf(report_fd, raised.rlim_cur == raised.rlim_max ? "raised\n" : "not raised\n");
          dprintf(report_fd, "%s\n", initial_descriptor_limit_command().c_str());
        });
        start({"-t", "-f", config("")});
      },
      ExitedWithCode(0), EndsWith("end\nraised\nulimit -Sn 256; \n"));
}
