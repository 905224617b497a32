#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "support/test_start.h"

namespace {

std::vector<void (*)()>& resets() {
  static std::vector<void (*)()> all;
  return all;
}

class ResetBeforeTest : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override {
    for (void (*reset)() : resets()) reset();
  }
};

}  // namespace

AtTestStart::AtTestStart(void (*reset)()) { resets().push_back(reset); }

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new ResetBeforeTest);
  return RUN_ALL_TESTS();
}
