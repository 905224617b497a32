// The device's interface names, with the kernel's answers spelled out.
#include "platform/interface_names.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <string>

#include "support/wrapped_calls.h"

namespace {

template <typename Value>
void append(std::string& bytes, const Value& value) {
  bytes.append(reinterpret_cast<const char*>(&value), sizeof(value));
}

// One attribute, padded to four bytes.
std::string attribute(uint16_t type, const std::string& payload) {
  std::string bytes;
  append(bytes, static_cast<uint16_t>(4 + payload.size()));
  append(bytes, type);
  bytes += payload;
  bytes.resize((bytes.size() + 3) / 4 * 4);
  return bytes;
}

std::string message(uint16_t type, const std::string& body) {
  std::string bytes;
  append(bytes, static_cast<uint32_t>(16 + body.size()));
  append(bytes, type);
  append(bytes, uint16_t{0});  // flags
  append(bytes, uint32_t{0});  // sequence
  append(bytes, uint32_t{0});  // port
  return bytes + body;
}

// A link named wan7 with the given further attributes.
std::string link_answer(const std::string& attributes) {
  using namespace std::string_literals;
  return message(RTM_NEWLINK, std::string(sizeof(ifinfomsg), '\0') +
                                  attribute(IFLA_IFNAME, "wan7\0"s) + attributes);
}

class InterfaceNamesTest : public testing::Test {
 protected:
  // The name of wan7 when the kernel answers with `bytes`.
  std::string name_after(const std::string& bytes) {
    CallHook hook(wrapped::recv, [&](int, void* data, size_t size, int flags) -> ssize_t {
      EXPECT_TRUE((flags & MSG_DONTWAIT) != 0);
      const size_t given = std::min(size, bytes.size());
      memcpy(data, bytes.data(), given);
      return static_cast<ssize_t>(given);
    });
    return interfaces_linux_to_zel_name_static("wan7", 0);
  }
};

}  // namespace

TEST_F(InterfaceNamesTest, EmptyNameStaysEmpty) {
  EXPECT_STREQ(interfaces_linux_to_zel_name_static("", 0), "");
  EXPECT_STREQ(interfaces_linux_to_zel_name_static(nullptr, 0), "");
  EXPECT_EQ(call_count("socket"), 0);
}

TEST_F(InterfaceNamesTest, AliasIsTheName) {
  using namespace std::string_literals;
  EXPECT_EQ(name_after(link_answer(attribute(IFLA_MTU, "\0\0\0\0"s) +
                                   attribute(IFLA_IFALIAS, "Uplink A\0"s))),
            "Uplink A");
  EXPECT_EQ(name_after(link_answer(attribute(IFLA_IFALIAS, "unterminated"))), "unterminated");
}

TEST_F(InterfaceNamesTest, LinuxNameWithoutAnAlias) {
  using namespace std::string_literals;
  EXPECT_EQ(name_after(link_answer("")), "wan7");
  EXPECT_EQ(name_after(link_answer(attribute(IFLA_IFALIAS, "\0"s))), "wan7");
  EXPECT_EQ(name_after(link_answer(attribute(IFLA_IFALIAS, ""))), "wan7");
}

TEST_F(InterfaceNamesTest, LinuxNameOfAnUnknownInterface) {
  std::string body;
  append(body, int32_t{-ENODEV});
  body.resize(body.size() + 16);  // the question's header
  EXPECT_EQ(name_after(message(NLMSG_ERROR, body)), "wan7");
  EXPECT_STREQ(interfaces_linux_to_zel_name_static("lb-no-such-dev", 0), "lb-no-such-dev");
}

TEST_F(InterfaceNamesTest, TruncatedAnswersAreSurvived) {
  using namespace std::string_literals;
  const std::string whole = link_answer(attribute(IFLA_IFALIAS, "Uplink A\0"s));
  for (size_t size = 0; size < whole.size(); ++size) {
    const std::string name = name_after(whole.substr(0, size));
    EXPECT_EQ(name, "wan7") << size;
  }
}

TEST_F(InterfaceNamesTest, AttributeThatOverrunsTheMessageIsSurvived) {
  std::string bytes = link_answer("");
  append(bytes, uint16_t{200});  // length of the attribute
  append(bytes, uint16_t{IFLA_IFALIAS});
  bytes += "Up";
  const auto size = static_cast<uint32_t>(bytes.size());
  memcpy(bytes.data(), &size, sizeof(size));
  EXPECT_EQ(name_after(bytes), "wan7");
}

TEST_F(InterfaceNamesTest, LinuxNameWhenTheKernelCannotBeAsked) {
  {
    Fault fault("socket", EMFILE);
    EXPECT_STREQ(interfaces_linux_to_zel_name_static("wan7", 0), "wan7");
  }
  {
    Fault fault("send", ENOBUFS);
    EXPECT_STREQ(interfaces_linux_to_zel_name_static("wan7", 0), "wan7");
  }
  Fault fault("recv", EAGAIN);
  EXPECT_STREQ(interfaces_linux_to_zel_name_static("wan7", 0), "wan7");
  EXPECT_EQ(call_count("close"), 2);
}

TEST_F(InterfaceNamesTest, NameThatNoInterfaceCanHaveIsNotAskedFor) {
  const std::string name(300, 'x');
  EXPECT_EQ(interfaces_linux_to_zel_name_static(name.c_str(), 0), name);
  EXPECT_EQ(call_count("socket"), 0);
}

TEST_F(InterfaceNamesTest, OwnResultMayBeAskedForAgain) {
  const char* const first = interfaces_linux_to_zel_name_static("wan7", 0);
  EXPECT_STREQ(interfaces_linux_to_zel_name_static(first, 0), "wan7");
}
