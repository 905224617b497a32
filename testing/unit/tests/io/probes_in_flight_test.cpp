// The table of probes in flight: keys, entries, what replies do to it.
#include "tests/io/probes_in_flight.h"

#include <gtest/gtest.h>

#include <random>

#include "packets/family.h"

namespace {

PendingProbe probe(const std::string& ifname, const std::string& target) {
  return {ifname, kProbeWaiting, {5, 6}, target};
}

}  // namespace

TEST(ProbesInFlightKeyTest, RunFromOneToTheLargestAndOnFromZero) {
  ProbesInFlight probes;
  for (int32_t key = 1; key <= 32766; ++key) ASSERT_EQ(probes.next_key(), key);
  EXPECT_EQ(probes.next_key(), 0);
  EXPECT_EQ(probes.next_key(), 1);
}

TEST(ProbesInFlightKeyTest, FamiliesCountApart) {
  ProbesInFlight& ipv4 = probes_in_flight(kIpv4);
  ProbesInFlight& ipv6 = probes_in_flight(kIpv6);
  EXPECT_NE(&ipv4, &ipv6);
  const int32_t key = ipv6.next_key();
  ipv4.next_key();
  EXPECT_EQ(ipv6.next_key(), (key + 1) % 32767);
}

TEST(ProbesInFlightTest, HoldsWhatWasEntered) {
  ProbesInFlight probes;
  probes.insert(7, probe("eth0", "192.0.2.1"));
  const auto entry = probes.find("eth0", "192.0.2.1");
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->key, 7);
  EXPECT_EQ(entry->probe.ifname, "eth0");
  EXPECT_EQ(entry->probe.state, -2);
  EXPECT_EQ(entry->probe.sent_at.tv_sec, 5);
  EXPECT_EQ(entry->probe.sent_at.tv_nsec, 6);
  EXPECT_EQ(entry->probe.target, "192.0.2.1");
}

// The same key again changes neither the probe that has it nor where that is found.
TEST(ProbesInFlightTest, RefusedProbeIsNotFound) {
  ProbesInFlight probes;
  probes.insert(7, probe("eth0", "192.0.2.1"));
  probes.insert(7, probe("eth1", "192.0.2.2"));
  EXPECT_FALSE(probes.find("eth1", "192.0.2.2"));
  ASSERT_TRUE(probes.find("eth0", "192.0.2.1"));
  probes.erase(7);
  EXPECT_FALSE(probes.find("eth0", "192.0.2.1"));
  EXPECT_EQ(probes.size(), 0u);
}

TEST(ProbesInFlightTest, NameAndTargetAreNotRunTogether) {
  ProbesInFlight probes;
  probes.insert(7, probe("wan1", "10.0.0.1"));
  EXPECT_FALSE(probes.find("wan11", "0.0.0.1"));
  EXPECT_FALSE(probes.find("wan", "110.0.0.1"));
  EXPECT_FALSE(probes.find("wan1", "10.0.0"));
  EXPECT_FALSE(probes.find("wan1", "10.0.0.10"));
}

TEST(ProbesInFlightTest, EveryOneOfManyIsFound) {
  ProbesInFlight probes;
  const auto name = [](int32_t number) { return "wan" + std::to_string(number); };
  for (int32_t key = 0; key < 1000; ++key) probes.insert(key, probe(name(key), "192.0.2.1"));
  for (int32_t key = 0; key < 1000; key += 2) probes.erase(key);
  for (int32_t key = 0; key < 1000; ++key) {
    const auto entry = probes.find(name(key), "192.0.2.1");
    ASSERT_EQ(entry.has_value(), key % 2 == 1) << key;
    EXPECT_TRUE(!entry || entry->key == key);
  }
}

TEST(ProbesInFlightTest, FindsByInterfaceAndTargetTogether) {
  ProbesInFlight probes;
  probes.insert(7, probe("eth0", "192.0.2.1"));
  probes.insert(8, probe("eth1", "192.0.2.2"));
  EXPECT_FALSE(probes.find("eth0", "192.0.2.2"));
  EXPECT_FALSE(probes.find("eth1", "192.0.2.1"));
  EXPECT_FALSE(probes.find("eth", "192.0.2.1"));
  EXPECT_EQ(probes.find("eth1", "192.0.2.2")->key, 8);
}

TEST(ProbesInFlightTest, FindsTheFirstInKeyOrder) {
  ProbesInFlight probes;
  probes.insert(9, probe("eth0", "192.0.2.1"));
  probes.insert(3, probe("eth0", "192.0.2.1"));
  EXPECT_EQ(probes.find("eth0", "192.0.2.1")->key, 3);
}

TEST(ProbesInFlightTest, RecordUnderTheSameKeyIsKept) {
  ProbesInFlight probes;
  probes.insert(7, probe("eth0", "192.0.2.1"));
  probes.insert(7, probe("eth1", "192.0.2.2"));
  EXPECT_EQ(probes.size(), 1u);
  EXPECT_TRUE(probes.find("eth0", "192.0.2.1"));
  EXPECT_FALSE(probes.find("eth1", "192.0.2.2"));
}

TEST(ProbesInFlightTest, AnswerMarksItsProbeOnly) {
  ProbesInFlight probes;
  probes.insert(7, probe("eth0", "192.0.2.1"));
  probes.insert(8, probe("eth0", "192.0.2.2"));
  probes.mark_answered(7);
  EXPECT_EQ(probes.find("eth0", "192.0.2.1")->probe.state, 0);
  EXPECT_EQ(probes.find("eth0", "192.0.2.2")->probe.state, -2);
}

TEST(ProbesInFlightTest, AnswerMarksTheProbeThatItIsTo) {
  ProbesInFlight probes;
  probes.insert(7, probe("eth0", "192.0.2.1"));
  PendingProbe asked;
  const auto says = [&](bool answer) {
    return [&asked, answer](const PendingProbe& of) {
      asked = of;
      return answer;
    };
  };
  probes.mark_answered(8, says(true));
  EXPECT_EQ(asked.ifname, "") << "nobody is asked about a key that is not there";
  probes.mark_answered(7, says(false));
  EXPECT_EQ(asked.ifname, "eth0");
  EXPECT_EQ(asked.target, "192.0.2.1");
  EXPECT_EQ(probes.find("eth0", "192.0.2.1")->probe.state, -2);
  probes.mark_answered(7, says(true));
  EXPECT_EQ(probes.find("eth0", "192.0.2.1")->probe.state, 0);
}

TEST(ProbesInFlightTest, AnswerToNothingEntersNothing) {
  ProbesInFlight probes;
  probes.mark_answered(7);
  EXPECT_EQ(probes.size(), 0u);
}

// A received key has 32 bits; none of those beyond the range of keys is another way to say a key.
TEST(ProbesInFlightTest, RandomKeysChangeNothing) {
  ProbesInFlight probes;
  probes.insert(0, probe("eth0", "a"));
  probes.insert(7, probe("eth0", "b"));
  probes.insert(32766, probe("eth0", "c"));
  std::mt19937 random(31);
  for (int round = 0; round < 100000; ++round) {
    const uint32_t key = random();
    if (key != 0 && key != 7 && key != 32766) probes.mark_answered(key);
  }
  for (const int64_t key : {int64_t{1} << 32, (int64_t{1} << 32) + 7, int64_t{-1}, int64_t{32767},
                            int64_t{0xffffffff}, int64_t{7} << 24}) {
    probes.mark_answered(key);
  }
  for (const char* target : {"a", "b", "c"}) {
    EXPECT_EQ(probes.find("eth0", target)->probe.state, -2) << target;
  }
  EXPECT_EQ(probes.size(), 3u);
}

TEST(ProbesInFlightTest, ErasedProbeIsGone) {
  ProbesInFlight probes;
  probes.insert(7, probe("eth0", "192.0.2.1"));
  probes.erase(8);
  EXPECT_EQ(probes.size(), 1u);
  probes.erase(7);
  EXPECT_EQ(probes.size(), 0u);
  EXPECT_FALSE(probes.find("eth0", "192.0.2.1"));
}

TEST(ProbesInFlightTimeTest, EachTimeIsCutFirst) {
  EXPECT_EQ(elapsed_milliseconds({10, 0}, {15, 0}), 5000);
  EXPECT_EQ(elapsed_milliseconds({10, 999999}, {10, 1000000}), 1);
  EXPECT_EQ(elapsed_milliseconds({10, 0}, {10, 999999}), 0);
  EXPECT_EQ(elapsed_milliseconds({10, 999999999}, {11, 0}), 1);
  EXPECT_EQ(elapsed_milliseconds({11, 0}, {10, 0}), -1000);
}

TEST(ProbesInFlightTimeTest, LongUptimesFit) {
  EXPECT_EQ(elapsed_milliseconds({0, 0}, {100000000, 0}), 100000000000);
}
