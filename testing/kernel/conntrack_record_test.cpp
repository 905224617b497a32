// Records in the kernel's own connection tracker, read back from its table.
#include "routing/conntrack_record.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "support/recorded_log.h"
#include "support/wrapped_calls.h"
#include "tests/echo_path.h"
#include "veth_test.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class KernelConntrack : public VethTest {
 protected:
  void SetUp() override {
    VethTest::SetUp();
    // A socket and a target of its own for each test: records outlive tests.
    static int number = 0;
    ++number;
    context_.vrf = "conntrack" + std::to_string(number);
    target_ = "198.51.100." + std::to_string(number);
    target6_ = "2001:db8:7::" + std::to_string(number);
  }

  int create(const std::string& target) {
    context_.ipv6 = false;
    return create_conntrack_record("192.0.2.1", target, context_);
  }
  int create6(const std::string& target) {
    context_.ipv6 = true;
    return create_conntrack_record("2001:db8::1", target, context_);
  }

  // The lines of the table that name `address`, each with single blanks. Read by conntrack(8): the
  // table below /proc is for the machine's administrator only, not for that of a user namespace.
  static std::vector<std::string> records(const std::string& address) {
    std::vector<std::string> found;
    for (const char* family : {"ipv4", "ipv6"}) {
      const std::string command =
          std::string("conntrack -L -o extended -f ") + family + " 2>/dev/null";
      FILE* table = popen(command.c_str(), "r");
      if (table == nullptr) {
        ADD_FAILURE() << "no table of the tracker";
        continue;
      }
      char line[1024];
      while (std::fgets(line, sizeof(line), table) != nullptr) {
        if (std::string(line).find("=" + address + " ") == std::string::npos) continue;
        std::istringstream words(line);
        std::string text;
        for (std::string word; words >> word;) text += (text.empty() ? "" : " ") + word;
        found.push_back(text);
      }
      EXPECT_EQ(pclose(table), 0) << command;
    }
    return found;
  }

  // The fifth word of a line: the seconds that its record has left.
  static int seconds_left(const std::string& line) {
    std::istringstream words(line);
    std::string skipped;
    int seconds = -1;
    words >> skipped >> skipped >> skipped >> skipped >> seconds;
    return seconds;
  }

  static std::string id() { return "id=" + std::to_string(getpid() & 0xffff); }

  LBWorkerContext context_;
  std::string target_;
  std::string target6_;
};

}  // namespace

TEST_F(KernelConntrack, Ipv4Record) {
  EXPECT_THAT(records(target_), IsEmpty());
  EXPECT_EQ(create(target_), 0);
  const auto found = records(target_);
  ASSERT_THAT(found, SizeIs(1));
  EXPECT_THAT(found[0],
              AllOf(HasSubstr("ipv4 2 icmp 1 "),
                    HasSubstr("src=192.0.2.1 dst=" + target_ + " type=8 code=0 " + id()),
                    HasSubstr("[UNREPLIED]"),
                    HasSubstr("src=" + target_ + " dst=192.0.2.1 type=0 code=0 " + id())));
  EXPECT_GT(seconds_left(found[0]), 25);
  EXPECT_LE(seconds_left(found[0]), 32);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelConntrack, Ipv6Record) {
  EXPECT_EQ(create6(target6_), 0);
  const auto found = records(target6_);
  const std::string near = "2001:db8::1";
  const std::string far = target6_;
  ASSERT_THAT(found, SizeIs(1));
  EXPECT_THAT(found[0],
              AllOf(HasSubstr("ipv6 10 icmpv6 58 "),
                    HasSubstr("src=" + near + " dst=" + far + " type=128 code=0 " + id()),
                    HasSubstr("[UNREPLIED]"),
                    HasSubstr("src=" + far + " dst=" + near + " type=129 code=0 " + id())));
  EXPECT_GT(seconds_left(found[0]), 25);
  EXPECT_LE(seconds_left(found[0]), 32);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelConntrack, IdentifierIsThatOfTheRequests) {
  EXPECT_EQ(echo_identifier(), getpid() & 0xffff);
}

TEST_F(KernelConntrack, ExistingRecordIsRefused) {
  EXPECT_EQ(create(target_), 0);
  EXPECT_EQ(create(target_), -1);
  EXPECT_EQ(create6(target6_), 0);
  EXPECT_EQ(create6(target6_), -1);
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedError("<create_conntrack_record> mnl_socket_recvfrom for ip version "
                              "4: File exists"),
                  LoggedError("<create_conntrack_record> mnl_socket_recvfrom for ip version "
                              "6: File exists")));
  EXPECT_THAT(records(target_), SizeIs(1));
}

TEST_F(KernelConntrack, SocketIsKeptAfterARefusalForBothFamilies) {
  EXPECT_EQ(create(target_), 0);
  EXPECT_EQ(create(target_), -1);
  EXPECT_EQ(create("203.0.113.1"), 0);
  EXPECT_THAT(records("203.0.113.1"), SizeIs(1));
  EXPECT_EQ(create("203.0.113.2"), 0);
  EXPECT_EQ(create6("2001:db8:8::2"), 0);
  EXPECT_EQ(call_count("mnl_socket_open2"), 1);
  EXPECT_EQ(call_count("mnl_socket_close"), 0);
}

TEST_F(KernelConntrack, OtherSourceIsAnotherRecord) {
  EXPECT_EQ(create(target_), 0);
  EXPECT_EQ(create_conntrack_record("192.0.2.2", target_, context_), 0);
  EXPECT_THAT(records(target_), SizeIs(2));
}

TEST_F(KernelConntrack, RecordThatIsGoneCanBeMadeAgain) {
  EXPECT_EQ(create(target_), 0);
  run("conntrack -D -d " + target_ + " >/dev/null 2>&1");
  EXPECT_THAT(records(target_), IsEmpty());
  EXPECT_EQ(create(target_), 0);
  EXPECT_THAT(records(target_), SizeIs(1));
}

TEST_F(KernelConntrack, UnparsableIpv6AddressSendsNothing) {
  EXPECT_EQ(create6("probe.example"), -1);
  EXPECT_EQ(call_count("mnl_socket_sendto"), 0);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("inet_pton() failed.\nError message: Success")));
  EXPECT_EQ(create6(target6_), 0);
}
