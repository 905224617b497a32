#include "tests/probe_factory.h"

#include "tests/burst_probe.h"
#include "tests/echo_probe.h"

std::shared_ptr<HealthTest> LBTestFactory::create(std::string_view type, bool ipv6) const {
  if (type == "ping" && ipv6) return std::make_shared<LBTestICMP6>();
  if (type == "ping") return std::make_shared<LBTestICMP>();
  if (type == "ping_ext" && !ipv6) return std::make_shared<LBTestPING>();
  return nullptr;
}
