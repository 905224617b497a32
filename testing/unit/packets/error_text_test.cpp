#include "packets/error_text.h"

#include <gtest/gtest.h>

#include <cerrno>

TEST(ErrorTextTest, IsThatOfEveryValue) {
  EXPECT_EQ(error_text(0), "Success");
  EXPECT_EQ(error_text(ENODEV), "No such device");
  EXPECT_EQ(error_text(-1), "Unknown error -1");
}
