#include "tests/burst_judge.h"

#include <algorithm>
#include <cmath>

void BurstTally::add_reply(int64_t rtt) {
  total_ += rtt;
  worst_ = std::max(worst_, rtt);
  ++received_;
}

void BurstTally::add_lost(int64_t limit) {
  worst_ = limit;
  total_ += limit;
}

BurstMeasurement BurstTally::measure(int32_t count) const {
  BurstMeasurement measured;
  const double share = static_cast<double>(received_) / sent_ * 100.0;
  measured.loss = 100 - static_cast<int32_t>(std::nearbyint(share));
  measured.rtt = static_cast<int32_t>(total_ / count);
  measured.jitter = static_cast<int32_t>(worst_ - measured.rtt);
  return measured;
}

bool is_acceptable(const BurstMeasurement& measured, const BurstLimits& limits) {
  return measured.loss < limits.loss && measured.rtt < limits.rtt &&
         measured.jitter < limits.jitter;
}

bool is_within_period(int64_t last_run_ms, int64_t now_ms, int32_t period) {
  const auto last = static_cast<uint32_t>(last_run_ms);
  if (last == 0) return false;
  const auto passed = static_cast<int32_t>(static_cast<uint32_t>(now_ms) - last);
  return passed < static_cast<int32_t>(static_cast<uint32_t>(period) * 1000u);
}
