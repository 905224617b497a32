#include "routing/lease_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file_descriptor.h"
#include "support/fifo.h"
#include "support/recorded_log.h"
#include "support/temporary_directory.h"
#include "support/wrapped_calls.h"

namespace {

constexpr bool kIpv4 = false;
constexpr bool kIpv6 = true;

using Router = std::optional<std::string>;

struct LeaseCase {
  const char* name;
  bool ipv6;
  std::string text;
  Router router;
};

void PrintTo(const LeaseCase& lease, std::ostream* out) { *out << lease.name; }

class LeaseFileTextTest : public testing::TestWithParam<LeaseCase> {};

}  // namespace

TEST_P(LeaseFileTextTest, GivesTheRouter) {
  EXPECT_EQ(lease_router(GetParam().text, GetParam().ipv6), GetParam().router);
}

INSTANTIATE_TEST_SUITE_P(
    Ipv4, LeaseFileTextTest,
    testing::Values(
        LeaseCase{"Empty", kIpv4, "", std::nullopt},
        LeaseCase{"Typical", kIpv4,
                  "lease {\n  interface \"wan1\";\n  option routers 192.0.2.1;\n}\n", "192.0.2.1"},
        LeaseCase{
            "TwoLeases", kIpv4,
            "lease {\n  option routers 192.0.2.1;\n}\nlease {\n  option routers 192.0.2.2;\n}\n",
            "192.0.2.1"},
        LeaseCase{"TwoRouters", kIpv4, "  option routers 10.0.0.1,10.0.0.2;\n", "10.0.0.1"},
        LeaseCase{"TwoRoutersApart", kIpv4, "  option routers 10.0.0.1, 10.0.0.2;\n", "10.0.0.1"},
        LeaseCase{"NoSemicolon", kIpv4, "  option routers 10.0.0.12\n", "10.0.0.12"},
        LeaseCase{"NoNewline", kIpv4, "option routers 10.0.0.12;", "10.0.0.12"},
        LeaseCase{"Tabs", kIpv4, "\toption\trouters\t10.0.0.1;\n", "10.0.0.1"},
        LeaseCase{"Tildes", kIpv4, "option~routers~10.0.0.1;\n", "10.0.0.1"},
        LeaseCase{"ManyBlanks", kIpv4, "   option    routers   10.0.0.1;\n", "10.0.0.1"},
        LeaseCase{"CarriageReturnIsTheOneCharacterDropped", kIpv4, "option routers 10.0.0.1;\r\n",
                  "10.0.0.1;"},
        LeaseCase{"OnlyOneCharacterIsDropped", kIpv4, "option routers 10.0.0.1;;\n", "10.0.0.1;"},
        LeaseCase{"OtherFirstWord", kIpv4, "supersede routers 10.0.0.1;\n", "10.0.0.1"},
        LeaseCase{"WordInTheWrongPlace", kIpv4, "routers 10.0.0.1;\n", std::nullopt},
        LeaseCase{"LongerWord", kIpv4, "option routers-new 10.0.0.1;\n", std::nullopt},
        LeaseCase{"UpperCase", kIpv4, "option ROUTERS 10.0.0.1;\n", std::nullopt},
        LeaseCase{"NoAddress", kIpv4, "option routers\n  option routers 10.0.0.1;\n", ""},
        LeaseCase{"OnlySemicolon", kIpv4, "option routers ;\n", ""},
        LeaseCase{"OnlyCommas", kIpv4, "option routers ,,\n", ""},
        LeaseCase{"OneDigit", kIpv4, "option routers 1\n", "1"},
        LeaseCase{"NulEndsTheLine", kIpv4, std::string("option routers 10.0.0.1\0;;;\n", 28),
                  "10.0.0.1"},
        LeaseCase{"NulHidesTheWord", kIpv4, std::string("option \0routers 10.0.0.1;\n", 26),
                  std::nullopt},
        LeaseCase{"NulOnlyEndsItsOwnLine", kIpv4, std::string("\0\noption routers 10.0.0.1;\n", 27),
                  "10.0.0.1"},
        LeaseCase{"Ipv6Line", kIpv4, "new_routers='fe80::1'\n", std::nullopt}),
    [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Ipv6, LeaseFileTextTest,
    testing::Values(
        LeaseCase{"Empty", kIpv6, "", std::nullopt},
        LeaseCase{"Typical", kIpv6, "reason='BOUND6'\nnew_routers='fe80::1'\n", "fe80::1"},
        LeaseCase{"FirstOfTwoLines", kIpv6, "new_routers='fe80::1'\nnew_routers='fe80::2'\n",
                  "fe80::1"},
        LeaseCase{"TwoRoutersLoseTheLastCharacter", kIpv6, "new_routers='fe80::1 fe80::2'\n",
                  "fe80::"},
        LeaseCase{"NoQuotes", kIpv6, "new_routers=fe80::1\n", "e80::"},
        LeaseCase{"BlankBeforeTheWord", kIpv6, " new_routers='fe80::1'\n", std::nullopt},
        LeaseCase{"BlankBeforeTheSign", kIpv6, "new_routers ='fe80::1'\n", std::nullopt},
        LeaseCase{"BlankAfterTheSign", kIpv6, "new_routers= 'fe80::1'\n", "fe80::1"},
        LeaseCase{"Tilde", kIpv6, "new_routers~'fe80::1'\n", "fe80::1"},
        LeaseCase{"NoValue", kIpv6, "new_routers=\nnew_routers='fe80::1'\n", ""},
        LeaseCase{"NoSign", kIpv6, "new_routers\n", ""},
        LeaseCase{"EmptyQuotes", kIpv6, "new_routers=''\n", ""},
        LeaseCase{"OneCharacter", kIpv6, "new_routers='\n", ""},
        LeaseCase{"OnlyBlanks", kIpv6, "new_routers=   \n", ""},
        LeaseCase{"Ipv4Line", kIpv6, "option routers 192.0.2.1;\n", std::nullopt}),
    [](const auto& test) { return test.param.name; });

// 1023 bytes are a line of their own, whatever follows them.
TEST(LeaseFileLinesTest, LongLineIsReadInPieces) {
  const std::string filler(1023, 'x');
  EXPECT_EQ(lease_router(filler + "option routers 10.0.0.1;\n", kIpv4), "10.0.0.1");
  EXPECT_EQ(lease_router(filler.substr(10) + "option routers 10.0.0.1;\n", kIpv4), std::nullopt);
  EXPECT_EQ(lease_router(filler + filler + "new_routers='fe80::1'", kIpv6), "fe80::1");

  const std::string start = "option routers ";
  const std::string cut = start + std::string(1023 - start.size() - 8, ' ') + "10.0.0.123;\n";
  EXPECT_EQ(lease_router(cut, kIpv4), "10.0.0.1");
}

TEST(LeaseFileLinesTest, LineOf1023BytesWithItsNewlineIsWhole) {
  const std::string start = "option routers ";
  const std::string line = start + std::string(1023 - start.size() - 10, ' ') + "10.0.0.1;\n";
  ASSERT_EQ(line.size(), 1023u);
  EXPECT_EQ(lease_router(line, kIpv4), "10.0.0.1");
}

using testing::ElementsAre;
using testing::IsEmpty;

class LeaseFileTest : public TemporaryDirectoryTest {
 protected:
  static auto refusal(const std::string& path) {
    return LoggedWarning("wan_lb: lease file '" + path + "' is no regular file, not read");
  }
};

TEST_F(LeaseFileTest, IsRead) {
  const std::string path = directory_.write("lease", "option routers 192.0.2.1;\n");
  EXPECT_EQ(read_lease_router(path, kIpv4), "192.0.2.1");
}

TEST_F(LeaseFileTest, LargerThanOneReadIsReadOn) {
  const std::string path =
      directory_.write("lease", std::string(100'000, '\n') + "option routers 192.0.2.1;\n");
  EXPECT_EQ(read_lease_router(path, kIpv4), "192.0.2.1");
}

TEST_F(LeaseFileTest, MissingGivesNothing) {
  EXPECT_EQ(read_lease_router(directory_.file("none"), kIpv4), std::nullopt);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(LeaseFileTest, UnreadableGivesNothing) {
  const std::string path = directory_.write("lease", "option routers 192.0.2.1;\n");
  const Fault fault("open", EACCES);
  EXPECT_EQ(read_lease_router(path, kIpv4), std::nullopt);
}

TEST_F(LeaseFileTest, FifoIsReportedAndNeverOpened) {
  const std::string path = directory_.file("fifo");
  const Fifo fifo(path);
  fifo.must_not_hold_up([&] { EXPECT_EQ(read_lease_router(path, kIpv4), std::nullopt); });
  EXPECT_THAT(log_records(), ElementsAre(refusal(path)));
  EXPECT_EQ(call_count("open"), 0);
}

TEST_F(LeaseFileTest, OnlyARegularFileIsRead) {
  const std::string path = directory_.file("fifo");
  const Fifo fifo(path);
  const FileDescriptor writer(open(path.c_str(), O_RDWR | O_CLOEXEC));
  const std::string text = "option routers 192.0.2.1;\n";
  ASSERT_EQ(write(writer.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  EXPECT_EQ(read_lease_router(path, kIpv4), std::nullopt);
  EXPECT_THAT(log_records(), ElementsAre(refusal(path)));
}

TEST_F(LeaseFileTest, EndlessDeviceIsNotRead) {
  EXPECT_EQ(read_lease_router("/dev/zero", kIpv4), std::nullopt);
  EXPECT_THAT(log_records(), ElementsAre(refusal("/dev/zero")));
}

TEST_F(LeaseFileTest, DirectoryGivesNothing) {
  EXPECT_EQ(read_lease_router(directory_.path(), kIpv4), std::nullopt);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(LeaseFileTest, HugeFileIsReadInPartOnly) {
  const std::string path = directory_.write("lease", "");
  ASSERT_EQ(truncate(path.c_str(), off_t{1} << 40), 0);  // sparse: 1 TiB of NUL bytes
  EXPECT_EQ(read_lease_router(path, kIpv4), std::nullopt);
}
