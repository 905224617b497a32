#include "platform/netns.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>

#include "support/wrapped_calls.h"

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
