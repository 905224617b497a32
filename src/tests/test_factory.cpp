#include "tests/test_factory.h"

#include "tests/echo_test.h"
#include "tests/extended_ping_test.h"

std::shared_ptr<LBTest> LBTestFactory::create(std::string_view type) const {
  if (type == "ping") return std::make_shared<LBTestICMP>();
  if (type == "ping_ext") return std::make_shared<LBTestPING>();
  return nullptr;
}

std::shared_ptr<LBTest6> LBTestFactory::create6(std::string_view type) const {
  if (type == "ping") return std::make_shared<LBTestICMP6>();
  return nullptr;
}

TestSettings& LBTestFactory::settings(LBTest& test) const { return test; }

TestSettings& LBTestFactory::settings(LBTest6& test) const { return test; }
