// Each code has a file that was made for it, a line in the documentation, and no other code.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "lbctl/check_fixture.h"

namespace lbctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Of this source. The compiler may know it relative to the build directory, where the tests are.
std::filesystem::path own_folder() {
  const auto build = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  return (build / __FILE__).parent_path();
}

const std::filesystem::path kFolder = own_folder() / "configurations";
const std::filesystem::path kPage = own_folder() / "../../../docs/lbctl/check.md";

// What no file can have: it is for what the rules do not know.
bool is_for_the_unknown(std::string_view code) { return code == "reader-message"; }

std::vector<std::string> of_file(const std::string& name) {
  const FakeMachine machine;
  return told(check_file((kFolder / name).string(), &machine));
}

// Where the finding of each file stands.
const std::map<std::string, std::string> kPlaces = {
    {"bad-address", "6:20"},
    {"bad-number", "7:23"},
    {"bad-option", "2:20"},
    {"bad-prefix", "25:17"},
    {"bad-rule-name", "17:6"},
    {"bad-timeout", "7:21"},
    {"brace-alone", "3:5"},
    {"brace-in-comment-cut", "2:1024"},
    {"brackets", "2:5"},
    {"byte-order-mark", "1:1"},
    {"carriage-returns", "1:9"},
    {"duplicate-destination", "33:17"},
    {"duplicate-test", "8:9"},
    {"empty-rule", "28:1"},
    {"extra-text", "4:19"},
    {"failover-tie", "23:16"},
    {"given-twice", "4:9"},
    {"host-name", "6:20"},
    {"limit-zero", "7:20"},
    {"long-line", "2:1024"},
    {"loss-zero", "7:18"},
    {"metric", "26:9"},
    {"missing-value", "4:9"},
    {"name-too-long", "4:16"},
    {"no-nexthop", "2:5"},
    {"no-such-device", "4:16"},
    {"no-such-interface", "21:15"},
    {"no-such-vrf", "4:19"},
    {"no-weight", "21:5"},
    {"not-a-file", "1:1"},
    {"not-canonical", "3:17"},
    {"not-included", "15:1"},
    {"not-dumpable", "17:6"},
    {"not-for-bird2", "25:17"},
    {"nul-byte", "3:26"},
    {"other-vrf", "19:5"},
    {"out-of-range", "4:20"},
    {"raw-ipv6", "2:5"},
    {"resp-time-zero", "7:23"},
    {"rp-filter", "7:20"},
    {"same-target-twice", "10:20"},
    {"shadowed-default", "15:17"},
    {"slow-detection", "7:19"},
    {"test-without-type", "4:9"},
    {"text-on-block-line", "18:22"},
    {"too-early", "5:13"},
    {"too-many", "204:9"},
    {"unbalanced-quote", "3:17"},
    {"unknown-keyword", "4:9"},
    {"unknown-section", "28:1"},
    {"unknown-type", "5:18"},
    {"unsafe-name", "4:16"},
    {"unserved", "2:5"},
    {"unused-interface", "9:5"},
    {"unused-keyword", "7:13"},
    {"weight-too-large", "22:16"},
    {"wrong-depth", "4:9"},
    {"wrong-family", "6:20"},
};

}  // namespace

TEST(CheckCodesTest, TheFileOfACodeHasThatCodeAndNoOther) {
  for (const CodeEntry& entry : check_codes()) {
    if (is_for_the_unknown(entry.code)) continue;
    const std::string code(entry.code);
    const std::string name = code + ".conf";
    ASSERT_TRUE(std::filesystem::exists(kFolder / name)) << "no file for " << code;
    ASSERT_TRUE(kPlaces.contains(code)) << code;
    std::vector<std::string> expected = {kPlaces.at(code) + " " + code};
    // A brace that is cut off counts, and the line is long.
    if (code == "brace-in-comment-cut") expected.insert(expected.begin(), "2:1024 long-line");
    EXPECT_THAT(of_file(name), testing::ElementsAreArray(expected)) << code;
  }
}

TEST(CheckCodesTest, EachFileIsThatOfACode) {
  for (const auto& entry : std::filesystem::directory_iterator(kFolder)) {
    const std::string code = entry.path().stem().string();
    EXPECT_NO_THROW(severity_of(code)) << entry.path();
  }
}

TEST(CheckCodesTest, ThePageTellsEachCodeWithItsSeverity) {
  std::stringstream page;
  page << std::ifstream(kPage).rdbuf();
  for (const CodeEntry& entry : check_codes()) {
    const std::string severity = entry.severity == Severity::kError ? "error" : "warning";
    EXPECT_NE(page.str().find(fmt::format("| `{}` | {} |", entry.code, severity)),
              std::string::npos)
        << entry.code;
  }
}

TEST(CheckCodesTest, AnUnknownCodeIsRefused) {
  EXPECT_THROW(severity_of("no-such-code"), std::logic_error);
}

}  // namespace lbctl
