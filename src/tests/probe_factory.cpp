#include "tests/probe_factory.h"

#include "tests/burst_probe.h"
#include "tests/echo_probe.h"

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
