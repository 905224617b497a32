// The section "health" of the configuration file: interfaces and their tests.
//
//   health {
//     interface eth0 {        depth 2: an interface and its keywords
//       success-ct 3
//       test 1 {              depth 3: a test's index, then its keywords, or
//         type ping {         depth 4: the keywords in a block of their own
#pragma once

#include <memory>
#include <set>
#include <string>

#include "config/config_line.h"
#include "config/health_test.h"
#include "config/lb_config.h"

// Applies the lines in their order: a line acts on the interface and the tests that earlier lines
// chose. One thread only.
class HealthSection {
 public:
  HealthSection(LBConfig& config, std::set<std::string>& namespaces, const TestFactory& factory);

  // A line that has nothing to act on, or an unknown keyword, is ignored.
  void apply(const ConfigLine& line);

  // Gives every interface without a test a ping test of index 1.
  void add_default_tests();

 private:
  void select_interface(const std::string& name, bool ipv6);
  void apply_to_interface(const ConfigLine& line);
  void apply_to_test(const ConfigLine& line);
  void create_test(const std::string& type);
  void set_target(const std::string& target);

  // The current test of the current interface's family; null when there is none.
  HealthTest* current_test() const;

  LBConfig& config_;
  std::set<std::string>& namespaces_;
  const TestFactory& factory_;

  // What the next line acts on. The tests are not tied to the current interface: they stay chosen
  // until the next "type" of their family.
  LBInterface* interface_ = nullptr;
  std::shared_ptr<HealthTest> test_;
  std::shared_ptr<HealthTest> test6_;
  int32_t test_index_ = 0;
};
