// Makes the health tests that the configuration asks for.
#pragma once

#include "config/test_settings.h"

class LBTestFactory : public TestFactory {
 public:
  std::shared_ptr<LBTest> create(std::string_view type) const override;
  std::shared_ptr<LBTest6> create6(std::string_view type) const override;
  TestSettings& settings(LBTest& test) const override;
  TestSettings& settings(LBTest6& test) const override;
};
