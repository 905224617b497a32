// Makes the health tests that the configuration asks for.
#pragma once

#include <memory>
#include <string_view>

#include "config/health_test.h"

class LBTestFactory : public TestFactory {
 public:
  std::shared_ptr<HealthTest> create(std::string_view type, bool ipv6) const override;
};
