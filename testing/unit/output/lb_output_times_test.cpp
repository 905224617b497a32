// Which time the ages in the dumps and in the status report are counted from.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/output_fixture.h"
#include "support/virtual_clock/virtual_clock.h"
#include "support/wrapped_calls.h"

using namespace std::chrono_literals;
using testing::HasSubstr;

namespace {

class LBOutputTimesTest : public OutputFixture {
 protected:
  LBOutputTimesTest() {
    edit_state(config_.interfaces.at("eth1"),
               [](InterfaceState& state) { state.last_success = kNow - 4; });
  }

 private:
  // Every write takes a second.
  CallHook<size_t(const void*, size_t, size_t, FILE*)> fwrite_hook_{
      wrapped::fwrite, [](const void* data, size_t size, size_t count, FILE* file) {
        virtual_clock::advance(1s);
        return wrapped::fwrite.real(data, size, count, file);
      }};
};

// While one interface is copied, the worker of another VRF notes a result of the next.
class LBOutputCopyTest : public OutputFixture {
 protected:
  // Its report takes five seconds.
  class SlowTest : public BlankTest {
   public:
    explicit SlowTest(LBInterface& other) : other_(other) {}
    TestReport report() const override {
      virtual_clock::advance(5s);
      edit_state(other_, [](InterfaceState& state) {
        state.last_success = state.last_failure = static_cast<int32_t>(wall_now().tv_sec);
      });
      return make_report("192.0.2.50", kResultSuccess);
    }

   private:
    LBInterface& other_;
  };

  LBOutputCopyTest() {
    config_.interfaces.at("eth0").tests[1] =
        std::make_shared<SlowTest>(config_.interfaces.at("eth1"));
  }
};

}  // namespace

TEST_F(LBOutputTimesTest, DumpHasOneTimeForAllItsRecords) {
  write();
  ASSERT_EQ(outbounds().size(), 2u);
  EXPECT_EQ(int32_t{outbounds()[0].success_age}, 4);
  EXPECT_EQ(int32_t{outbounds()[1].success_age}, 4);
}

TEST_F(LBOutputCopyTest, AgesInTheDumpAreNeverNegative) {
  write();
  ASSERT_EQ(outbounds().size(), 2u);
  EXPECT_EQ(int32_t{outbounds()[0].success_age}, 9);
  EXPECT_EQ(int32_t{outbounds()[1].success_age}, 0);
  EXPECT_EQ(int32_t{outbounds()[1].failure_age}, 0);
}

TEST_F(LBOutputCopyTest, AgesInTheReportAreNeverNegative) {
  write();
  EXPECT_THAT(status(), HasSubstr("    Last Interface Success:  0s\t\n"
                                  "    Last Interface Failure:  0s\t\n"));
}

// Who asks for a dump at a time gets it.
TEST_F(LBOutputTimesTest, TimeOfADumpMayBeGiven) {
  make_dump_directory();
  output_.dump_outbounds({.tv_sec = kNow + 100, .tv_nsec = 0}, &config_.interfaces, false);
  EXPECT_EQ(int32_t{outbounds().at(0).success_age}, 104);
}

TEST_F(LBOutputTimesTest, ReportReadsTheClockAgain) {
  write();
  const auto passed = wall_now().tv_sec - kNow;
  ASSERT_EQ(passed, 3);  // interfaces, rules, routes
  EXPECT_THAT(status(), HasSubstr("Interface:  eth0\n"));
  EXPECT_THAT(status(), HasSubstr("    Last Interface Success:  7s\t\n"));
  EXPECT_THAT(status(), testing::Not(HasSubstr("Success:  4s")));
}
