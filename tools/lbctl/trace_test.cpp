#include "lbctl/trace_test.h"

namespace lbctl {

TraceTest::TraceTest(const ConfiguredTest& configured, bool ipv6)
    : LBTest(family_of(ipv6)),
      is_burst_(configured.is_burst()),
      limits_{.jitter = configured.number(TestKeyword::kJitter),
              .loss = configured.number(TestKeyword::kLoss),
              .rtt = configured.number(TestKeyword::kRtt)} {
  LBTest::set_target(configured.target());
  LBTest::set_number(TestKeyword::kResponseTime,
                     static_cast<uint32_t>(configured.number(TestKeyword::kResponseTime)));
}

}  // namespace lbctl
