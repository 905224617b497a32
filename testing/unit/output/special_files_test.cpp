// A FIFO in the place of a file that is written: it has its file's message, and the others are
// written all the same.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/fifo.h"
#include "support/output_fixture.h"
#include "support/recorded_log.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class OutputSpecialFilesTest : public OutputFixture {
 protected:
  // Writes with a FIFO in that place; what is logged then.
  std::vector<LogRecord> write_around_fifo(const std::string& place) {
    make_dump_directory();
    const Fifo fifo(place);
    fifo.must_not_hold_up([this] { write(); });
    EXPECT_TRUE(std::filesystem::is_fifo(place));
    return log_records();
  }
};

}  // namespace

TEST_F(OutputSpecialFilesTest, StatusReport) {
  EXPECT_THAT(
      write_around_fifo(path("wlb_ipv4.out")),
      ElementsAre(LoggedError("wan_lb: error ordering output file " + path("wlb_ipv4.out"))));
  EXPECT_EQ(outbounds().size(), 2u);
  EXPECT_EQ(rules().size(), 2u);
}

TEST_F(OutputSpecialFilesTest, OutboundsDump) {
  EXPECT_THAT(write_around_fifo(dump_path("wlb_ipv4_outbounds.bin")),
              ElementsAre(LoggedError("wan_lb: error open file for writing '" +
                                      dump_path("wlb_ipv4_outbounds.bin") + "'")));
  EXPECT_EQ(rules().size(), 2u);
  EXPECT_THAT(status(), HasSubstr("eth0"));
}

TEST_F(OutputSpecialFilesTest, RulesDump) {
  EXPECT_THAT(write_around_fifo(dump_path("wlb_rules.bin")),
              ElementsAre(LoggedError("wan_lb: Error open file for writing '" +
                                      dump_path("wlb_rules.bin") + "'")));
  EXPECT_EQ(outbounds().size(), 2u);
  EXPECT_THAT(status(), HasSubstr("eth0"));
}

TEST_F(OutputSpecialFilesTest, RoutesDump) {
  EXPECT_THAT(write_around_fifo(dump_path("wlb_routes.bin")),
              ElementsAre(LoggedError("wan_lb: Error open file for writing '" +
                                      dump_path("wlb_routes.bin") + "'")));
  EXPECT_EQ(outbounds().size(), 2u);
  EXPECT_THAT(status(), HasSubstr("eth0"));
}
