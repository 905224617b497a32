// How findings are printed, and how the command ends.
#include "lbctl/check_findings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "lbctl/check_file.h"
#include "lbctl/check_nearest_word.h"
#include "lbctl/run_command.h"
#include "support/temporary_directory.h"

namespace lbctl {

TEST(CheckFindingsTest, TextHasThePlaceTheCodeAndAHint) {
  Findings findings;
  findings.add({4, 2}, "metric", "the text", "the hint");
  findings.add({1, 9}, "brackets", "of \033[2Jit", "a\nhint");
  findings.sort();
  EXPECT_EQ(findings_text("a.conf", findings, false),
            "a.conf:1:9: error: of ?[2Jit [brackets]\n    a?hint\n"
            "a.conf:4:2: warning: the text [metric]\n    the hint\n");
  EXPECT_NE(findings_text("a.conf", findings, true).find("\033[31merror\033[0m"),
            std::string::npos);
}

TEST(CheckFindingsTest, JsonHasTheSame) {
  Findings findings;
  findings.add({4, 2}, "metric", "the text", "the hint");
  Json array = Json::array();
  append_findings("a.conf", findings, array);
  EXPECT_EQ(array.dump(),
            R"([{"file":"a.conf","line":4,"column":2,"severity":"warning","code":"metric",)"
            R"("text":"the text","hint":"the hint"}])");
}

TEST(CheckFindingsTest, TheStatusIsThatOfTheWorst) {
  Findings findings;
  EXPECT_EQ(check_status(findings, true), 0);
  findings.add({1, 1}, "metric", "", "");
  EXPECT_EQ(check_status(findings, false), 1);
  EXPECT_EQ(check_status(findings, true), 2);
  findings.add({1, 1}, "brackets", "", "");
  EXPECT_EQ(check_status(findings, false), 2);
  findings.add({1, 1}, "not-a-file", "", "");
  EXPECT_EQ(check_status(findings, false), 3);
}

TEST(CheckFindingsTest, AllFilesAreCheckedWhateverTheFirstIs) {
  const TemporaryDirectory directory;
  const std::string bad = directory.write("bad.conf", "colour red\n");
  const std::string missing = directory.file("missing.conf");
  const Outcome outcome = run_command({"check", "--offline", missing, bad});
  EXPECT_EQ(outcome.status, kExitUnreadable);
  EXPECT_EQ(outcome.complaint, "lbctl: " + missing + ": No such file or directory\n");
  EXPECT_NE(outcome.output.find("[unknown-section]"), std::string::npos);
}

TEST(CheckFindingsTest, TheNearestWordIsOneThatMayHaveBeenMeant) {
  EXPECT_EQ(nearest_word("sucess-ct", {"failure-ct", "success-ct"}), "success-ct");
  EXPECT_EQ(nearest_word("Source-Address", {"source_address"}), "source_address");
  EXPECT_EQ(nearest_word("taregt", {"target", "timeout"}), "target");
  EXPECT_EQ(nearest_word("colour", {"target", "timeout"}), "");
  EXPECT_EQ(nearest_word(std::string(10000, 'x'), {"target"}), "");
}

}  // namespace lbctl
