// An interface whose results a test records and settles.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "routing/interface_health.h"
#include "support/model_builder.h"
#include "support/recorded_log.h"
#include "support/virtual_clock/virtual_clock.h"

class InterfaceHealthFixture : public testing::Test {
 protected:
  static constexpr int32_t kStart = 1'700'000'000;  // the virtual wall clock
  static constexpr const char* kTarget = "192.0.2.9";

  void settle(const std::string& target, int32_t result) {
    edit_state(interface_, [&](InterfaceState& state) { state.target_results[target] = result; });
  }
  void record(std::initializer_list<int32_t> results, const std::string& target = kTarget) {
    for (int32_t result : results) record_result(interface_, result, target);
  }
  int32_t settled(const std::string& target = kTarget) const {
    return interface_.snapshot().target_results.at(target);
  }
  int32_t successes() const { return success_count(interface_.snapshot(), kTarget); }
  int32_t failures() const { return failure_count(interface_.snapshot(), kTarget); }

  LBConfig config_;
  LBInterface& interface_ = add_interface(config_, "wan1");
  LBWorkerContext worker_ = worker_of(false);
};
