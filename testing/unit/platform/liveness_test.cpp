#include "platform/linux/liveness.h"

#include <gtest/gtest.h>

TEST(LivenessTest, NobodyReportedIsAlive) { EXPECT_TRUE(Liveness().all_alive(1000, 1)); }

TEST(LivenessTest, ReportHoldsForTheTimeout) {
  Liveness liveness;
  liveness.report(1, 1000, true);
  EXPECT_TRUE(liveness.all_alive(1000, 50));
  EXPECT_TRUE(liveness.all_alive(1050, 50));
  EXPECT_FALSE(liveness.all_alive(1051, 50));
  liveness.report(1, 1060, true);
  EXPECT_TRUE(liveness.all_alive(1061, 50));
}

TEST(LivenessTest, EveryReporterCounts) {
  Liveness liveness;
  liveness.report(1, 1000, true);
  liveness.report(2, 1000, true);
  liveness.report(2, 1100, true);
  EXPECT_FALSE(liveness.all_alive(1100, 50));
  liveness.report(1, 1100, true);
  EXPECT_TRUE(liveness.all_alive(1100, 50));
}

TEST(LivenessTest, ReporterMaySayThatItIsNotAlive) {
  Liveness liveness;
  liveness.report(1, 1000, true);
  liveness.report(1, 1001, false);
  EXPECT_FALSE(liveness.all_alive(1001, 50));
  liveness.report(1, 1002, true);
  EXPECT_TRUE(liveness.all_alive(1002, 50));
}
