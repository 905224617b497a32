// Which addresses a prober waits for, and how many others it notes.
#include "tests/link/watched_targets.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// A different address for every number.
std::string address(size_t number) {
  return "10." + std::to_string(number / 65536) + "." + std::to_string(number / 256 % 256) + "." +
         std::to_string(number % 256);
}

void note_as_many_as_fit(WatchedTargets& targets) {
  for (size_t number = 0; number < WatchedTargets::kMostUnwatched; ++number) {
    EXPECT_FALSE(targets.is_watched(address(number), "eth0"));
  }
}

}  // namespace

TEST(WatchedTargetsTest, UnwatchedAddressesAreNoted) {
  WatchedTargets targets;
  targets.watch("192.0.2.1", "eth0");
  EXPECT_TRUE(targets.is_watched("192.0.2.1", "eth0"));
  EXPECT_FALSE(targets.is_watched("192.0.2.2", "eth0"));
  EXPECT_FALSE(targets.is_watched("192.0.2.2", "eth0"));
  EXPECT_EQ(targets.snapshot(),
            (WatchedTargets::Map{{{"192.0.2.1", "eth0"}, true}, {{"192.0.2.2", "eth0"}, false}}));
}

TEST(WatchedTargetsTest, AddressIsWatchedOnItsInterfaceOnly) {
  WatchedTargets targets;
  targets.watch("fe80::1", "eth0");
  EXPECT_FALSE(targets.is_watched("fe80::1", "eth1"));
  EXPECT_FALSE(targets.is_watched("fe80::1", ""));
  EXPECT_TRUE(targets.is_watched("fe80::1", "eth0"));
}

TEST(WatchedTargetsTest, SameAddressIsWatchedOnTwoInterfaces) {
  WatchedTargets targets;
  targets.watch("fe80::1", "eth0");
  targets.watch("fe80::1", "eth1");
  EXPECT_TRUE(targets.is_watched("fe80::1", "eth0"));
  EXPECT_TRUE(targets.is_watched("fe80::1", "eth1"));
  EXPECT_FALSE(targets.is_watched("fe80::1", "eth2"));
}

TEST(WatchedTargetsTest, OnlySoManyUnwatchedAddressesAreNoted) {
  ASSERT_EQ(WatchedTargets::kMostUnwatched, 256u);
  WatchedTargets targets;
  note_as_many_as_fit(targets);
  EXPECT_EQ(targets.snapshot().size(), WatchedTargets::kMostUnwatched);
  for (size_t number = 0; number < 50000; ++number) {
    ASSERT_FALSE(targets.is_watched(address(number), "eth0"));
  }
  const auto noted = targets.snapshot();
  EXPECT_EQ(noted.size(), WatchedTargets::kMostUnwatched);
  EXPECT_TRUE(noted.contains({address(WatchedTargets::kMostUnwatched - 1), "eth0"}));
  EXPECT_FALSE(noted.contains({address(WatchedTargets::kMostUnwatched), "eth0"}));
}

// One address on many interfaces fills the room as well.
TEST(WatchedTargetsTest, BoundIsThatOfAllInterfaces) {
  WatchedTargets targets;
  targets.watch("192.0.2.1", "eth0");
  for (int number = 1; number <= 1000; ++number) {
    ASSERT_FALSE(targets.is_watched("192.0.2.1", "eth" + std::to_string(number)));
  }
  EXPECT_EQ(targets.snapshot().size(), WatchedTargets::kMostUnwatched + 1);
}

TEST(WatchedTargetsTest, WatchingWorksHoweverManyAreNoted) {
  WatchedTargets targets;
  note_as_many_as_fit(targets);
  targets.watch("192.0.2.1", "eth0");
  EXPECT_TRUE(targets.is_watched("192.0.2.1", "eth0"));
  EXPECT_EQ(targets.snapshot().size(), WatchedTargets::kMostUnwatched + 1);
}

TEST(WatchedTargetsTest, WatchingANotedAddressMakesRoomForAnother) {
  WatchedTargets targets;
  note_as_many_as_fit(targets);
  targets.watch(address(7), "eth0");
  EXPECT_TRUE(targets.is_watched(address(7), "eth0"));
  targets.watch(address(7), "eth0");  // again: no more room for it
  EXPECT_FALSE(targets.is_watched("192.0.2.2", "eth0"));
  EXPECT_FALSE(targets.is_watched("192.0.2.3", "eth0"));
  const auto noted = targets.snapshot();
  EXPECT_EQ(noted.size(), WatchedTargets::kMostUnwatched + 1);
  EXPECT_TRUE(noted.contains({"192.0.2.2", "eth0"}));
  EXPECT_FALSE(noted.contains({"192.0.2.3", "eth0"}));
}

// Every cycle watches its next hops anew.
TEST(WatchedTargetsTest, WatchingOnAnotherInterfaceMakesNoRoom) {
  WatchedTargets targets;
  note_as_many_as_fit(targets);
  targets.watch(address(7), "eth1");
  EXPECT_FALSE(targets.is_watched(address(7), "eth0"));
  EXPECT_FALSE(targets.is_watched("192.0.2.2", "eth0"));
  EXPECT_FALSE(targets.snapshot().contains({"192.0.2.2", "eth0"}));
}
