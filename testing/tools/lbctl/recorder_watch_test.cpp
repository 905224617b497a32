// Which of the looks at the dump files give something new.
#include "lbctl/recorder_watch.h"

#include <gtest/gtest.h>

#include "lbctl/sample_dumps.h"

namespace lbctl {
namespace {

class DumpWatchTest : public testing::Test {
 protected:
  void put(const std::string& bytes, int64_t time) {
    directory_.put("wlb_ipv4_outbounds.bin", bytes);
    directory_.date("wlb_ipv4_outbounds.bin", time);
  }

  // How many interfaces a look shows; -1 for nothing new.
  int look() {
    const auto interfaces = watch_.read_new(false);
    return interfaces ? static_cast<int>(interfaces->size()) : -1;
  }

  OutputDirectory directory_;
  DumpWatch watch_{directory_.path()};
  const std::string one_ = outbound_record().text(0, "wan1").bytes();
  const std::string two_ = one_ + outbound_record().text(0, "wan2").bytes();
};

TEST_F(DumpWatchTest, AFileIsNewOnce) {
  put(two_, 1000);
  EXPECT_EQ(look(), 2);
  EXPECT_EQ(look(), -1);
  put(two_, 1001);
  EXPECT_EQ(look(), 2);
}

TEST_F(DumpWatchTest, FewerInterfacesAreAPartUntilTheyStay) {
  put(two_, 1000);
  EXPECT_EQ(look(), 2);
  put(one_, 1001);
  EXPECT_EQ(look(), -1);
  put(two_, 1002);
  EXPECT_EQ(look(), 2);
  put(one_, 1003);  // a daemon with another configuration
  EXPECT_EQ(look(), -1);
  EXPECT_EQ(look(), 1);
  put(one_, 1004);
  EXPECT_EQ(look(), 1);
}

TEST_F(DumpWatchTest, HalvesAndNothingAreNothingNew) {
  put("", 1000);
  EXPECT_EQ(look(), -1);
  put(one_.substr(0, 100), 1001);
  EXPECT_EQ(look(), -1);
}

}  // namespace
}  // namespace lbctl
