// A health test that does nothing: a base for tests' own.
#pragma once

#include <string>

#include "config/health_test.h"

class BlankTest : public HealthTest {
 public:
  void set_target(const std::string&) override {}
  void set_number(TestKeyword, uint32_t) override {}
  void init(LBInterface&) override {}
  void send(LBInterface&, const LBWorkerContext&) override {}
  void recv(LBInterface&, const LBWorkerContext&) override {}
  const char* type_name() const override { return "ping"; }
  std::string describe() const override { return {}; }
  std::string get_description() const override { return {}; }
  TestReport report() const override { return {}; }
};
