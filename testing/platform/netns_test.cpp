#include "platform/netns.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/wrapped_calls.h"

namespace {

// The device and the inode of what is at a path.
using Places = std::map<std::string, std::pair<dev_t, ino_t>>;

constexpr const char* kOwn = "/proc/thread-self/ns/net";
constexpr const char* kRed = "/var/run/netns/red";
constexpr dev_t kNamespaces = 4;  // the file system that they are of

// Asks about the VRF red in a thread of its own, at each of the states that the places take.
std::vector<bool> replaced_with(const std::vector<Places>& states) {
  std::vector<bool> answers;
  const Places* present = nullptr;
  CallHook hook(wrapped::stat, [&](const char* path, struct stat* result) {
    const auto found = present->find(path);
    if (found == present->end()) {
      errno = ENOENT;
      return -1;
    }
    result->st_dev = found->second.first;
    result->st_ino = found->second.second;
    return 0;
  });
  std::thread([&] {
    for (const Places& state : states) {
      present = &state;
      answers.push_back(netns_was_replaced("red"));
    }
  }).join();
  return answers;
}

}  // namespace

TEST(NetnsTest, UnknownNameFails) {
  errno = 0;
  EXPECT_EQ(lh_netns_set("lb-test-no-such-namespace"), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(call_count("setns"), 0);
}

TEST(NetnsTest, EntersTheNamedNetworkNamespaceAndClosesItsFile) {
  std::string opened;
  CallHook open_hook(wrapped::open, [&](const char* path, int flags, mode_t) {
    opened = path;
    EXPECT_TRUE((flags & O_CLOEXEC) != 0);
    return wrapped::open.real("/dev/null", O_RDONLY | O_CLOEXEC, 0);
  });
  int kind = 0;
  CallHook setns_hook(wrapped::setns, [&](int, int type) {
    kind = type;
    return 0;
  });
  EXPECT_EQ(lh_netns_set("red"), 0);
  EXPECT_EQ(opened, "/var/run/netns/red");
  EXPECT_EQ(kind, CLONE_NEWNET);
  EXPECT_EQ(call_count("close"), 1);
}

TEST(NetnsTest, RefusalKeepsItsReason) {
  CallHook open_hook(wrapped::open, [](const char*, int, mode_t) {
    return wrapped::open.real("/dev/null", O_RDONLY | O_CLOEXEC, 0);
  });
  Fault fault("setns", EPERM);
  EXPECT_EQ(lh_netns_set("red"), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(call_count("close"), 1);
}

// --- a namespace that is made anew ---

TEST(NetnsReplacedTest, NameStandsForTheThreadsOwn) {
  EXPECT_THAT(replaced_with({{{kOwn, {kNamespaces, 100}}, {kRed, {kNamespaces, 100}}}}),
              testing::ElementsAre(false));
}

TEST(NetnsReplacedTest, NameStandsForAnother) {
  const Places before{{kOwn, {kNamespaces, 100}}, {kRed, {kNamespaces, 100}}};
  const Places after{{kOwn, {kNamespaces, 100}}, {kRed, {kNamespaces, 101}}};
  EXPECT_THAT(replaced_with({before, after, after, before}),
              testing::ElementsAre(false, true, true, false));
}

// The thread does not leave its namespace, so that a cycle has no more to look at than the name.
TEST(NetnsReplacedTest, OwnIsLookedUpOnce) {
  const Places places{{kOwn, {kNamespaces, 100}}, {kRed, {kNamespaces, 100}}};
  replaced_with({places, places, places});
  EXPECT_EQ(call_count("stat"), 4);
}

TEST(NetnsReplacedTest, EveryThreadHasItsOwn) {
  EXPECT_THAT(replaced_with({{{kOwn, {kNamespaces, 100}}, {kRed, {kNamespaces, 100}}}}),
              testing::ElementsAre(false));
  EXPECT_THAT(replaced_with({{{kOwn, {kNamespaces, 101}}, {kRed, {kNamespaces, 100}}}}),
              testing::ElementsAre(true));
}

// As between the deletion and the next creation.
TEST(NetnsReplacedTest, NameStandsForNothing) {
  EXPECT_THAT(replaced_with({{{kOwn, {kNamespaces, 100}}}}), testing::ElementsAre(false));
}

// The mount point alone, before the namespace is mounted there.
TEST(NetnsReplacedTest, NameStandsForAPlainFile) {
  EXPECT_THAT(replaced_with({{{kOwn, {kNamespaces, 100}}, {kRed, {kNamespaces + 1, 101}}}}),
              testing::ElementsAre(false));
}

TEST(NetnsReplacedTest, OwnCannotBeTold) {
  EXPECT_THAT(replaced_with({{{kRed, {kNamespaces, 101}}}}), testing::ElementsAre(false));
}
