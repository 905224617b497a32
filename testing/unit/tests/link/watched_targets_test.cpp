// Which addresses a prober waits for, and how many others it notes.
#include <gtest/gtest.h>

#include <string>

#include "tests/link/link_prober.h"

namespace {

// A different address for every number.
std::string address(size_t number) {
  return "10." + std::to_string(number / 65536) + "." + std::to_string(number / 256 % 256) + "." +
         std::to_string(number % 256);
}

void note_as_many_as_fit(WatchedTargets& targets) {
  for (size_t number = 0; number < WatchedTargets::kMostUnwatched; ++number) {
    targets.interface_of(address(number));
  }
}

}  // namespace

TEST(WatchedTargetsTest, UnwatchedAddressesAreNotedWithoutAnInterface) {
  WatchedTargets targets;
  targets.watch("192.0.2.1", "eth0");
  EXPECT_EQ(targets.interface_of("192.0.2.1"), "eth0");
  EXPECT_EQ(targets.interface_of("192.0.2.2"), "");
  EXPECT_EQ(targets.interface_of("192.0.2.2"), "");
  EXPECT_EQ(targets.snapshot(), (WatchedTargets::Map{{"192.0.2.1", "eth0"}, {"192.0.2.2", ""}}));
}

TEST(WatchedTargetsTest, OnlySoManyUnwatchedAddressesAreNoted) {
  WatchedTargets targets;
  note_as_many_as_fit(targets);
  EXPECT_EQ(targets.snapshot().size(), WatchedTargets::kMostUnwatched);
  for (size_t number = 0; number < 50000; ++number) {
    ASSERT_EQ(targets.interface_of(address(number)), "");
  }
  const auto noted = targets.snapshot();
  EXPECT_EQ(noted.size(), WatchedTargets::kMostUnwatched);
  EXPECT_TRUE(noted.contains(address(WatchedTargets::kMostUnwatched - 1)));
  EXPECT_FALSE(noted.contains(address(WatchedTargets::kMostUnwatched)));
}

TEST(WatchedTargetsTest, WatchingWorksHoweverManyAreNoted) {
  WatchedTargets targets;
  note_as_many_as_fit(targets);
  targets.watch("192.0.2.1", "eth0");
  EXPECT_EQ(targets.interface_of("192.0.2.1"), "eth0");
  EXPECT_EQ(targets.snapshot().size(), WatchedTargets::kMostUnwatched + 1);
}

TEST(WatchedTargetsTest, WatchingANotedAddressMakesRoomForAnother) {
  WatchedTargets targets;
  note_as_many_as_fit(targets);
  targets.watch(address(7), "eth0");
  EXPECT_EQ(targets.interface_of(address(7)), "eth0");
  targets.watch(address(7), "eth1");
  EXPECT_EQ(targets.interface_of(address(7)), "eth1");
  EXPECT_EQ(targets.interface_of("192.0.2.2"), "");
  EXPECT_EQ(targets.interface_of("192.0.2.3"), "");
  const auto noted = targets.snapshot();
  EXPECT_EQ(noted.size(), WatchedTargets::kMostUnwatched + 1);
  EXPECT_TRUE(noted.contains("192.0.2.2"));
  EXPECT_FALSE(noted.contains("192.0.2.3"));
}

TEST(WatchedTargetsTest, WatchingWithoutAnInterfaceCountsAsUnwatched) {
  WatchedTargets targets;
  note_as_many_as_fit(targets);
  targets.watch(address(1), "");
  targets.watch("192.0.2.1", "");
  EXPECT_EQ(targets.interface_of("192.0.2.2"), "");
  EXPECT_EQ(targets.snapshot().size(), WatchedTargets::kMostUnwatched + 1);
  targets.watch(address(1), "eth0");
  targets.watch("192.0.2.1", "eth0");
  EXPECT_EQ(targets.interface_of("192.0.2.2"), "");
  EXPECT_TRUE(targets.snapshot().contains("192.0.2.2"));
}
