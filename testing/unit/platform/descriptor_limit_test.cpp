#include "platform/descriptor_limit.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>

namespace {

// The process's own limit, as it was afterwards.
class DescriptorLimitTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    ASSERT_GT(before_.rlim_max, kLow);
    initial_descriptor_limit_command().clear();
  }
  void TearDown() override {
    setrlimit(RLIMIT_NOFILE, &before_);
    initial_descriptor_limit_command().clear();
  }

  void set_soft_limit(rlim_t soft) const {
    const rlimit limit{soft, before_.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  static rlim_t soft_limit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
  }
  // The soft limit that a shell command sees.
  static std::string limit_of_command(const std::string& start) {
    FILE* const pipe = popen((start + "ulimit -Sn").c_str(), "r");
    if (pipe == nullptr) return "";
    std::array<char, 32> line{};
    const char* const text = fgets(line.data(), line.size(), pipe);
    pclose(pipe);
    return text == nullptr ? "" : text;
  }

  static constexpr rlim_t kLow = 200;
  rlimit before_{};
};

}  // namespace

TEST_F(DescriptorLimitTest, IsRaisedAndTheFirstOneKeptForCommands) {
  set_soft_limit(kLow);
  raise_descriptor_limit();
  EXPECT_EQ(soft_limit(), before_.rlim_max);
  EXPECT_EQ(initial_descriptor_limit_command(), "ulimit -Sn 200; ");
  EXPECT_EQ(limit_of_command(initial_descriptor_limit_command()), "200\n");
}

TEST_F(DescriptorLimitTest, NothingIsInFrontOfCommandsUnlessItWasRaised) {
  EXPECT_EQ(initial_descriptor_limit_command(), "");
  set_soft_limit(before_.rlim_max);
  raise_descriptor_limit();
  EXPECT_EQ(initial_descriptor_limit_command(), "");
  EXPECT_EQ(soft_limit(), before_.rlim_max);
}
