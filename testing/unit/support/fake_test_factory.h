// Health tests as the configuration reader sees them, without any real test class.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "support/blank_test.h"

// Keeps what the reader told it.
struct RecordedTest : BlankTest {
  explicit RecordedTest(std::string test_type) : type(std::move(test_type)) {}
  void set_target(const std::string& value) override { target = value; }
  void set_number(TestKeyword keyword, uint32_t value) override { numbers[keyword] = value; }

  std::string type;  // "ping", "ping_ext"; "ping6" for the one of IPv6
  std::string target;
  std::map<TestKeyword, uint32_t> numbers;
};

class FakeTestFactory : public TestFactory {
 public:
  std::shared_ptr<HealthTest> create(std::string_view type, bool ipv6) const override {
    if (ipv6) return type == "ping" ? std::make_shared<RecordedTest>("ping6") : nullptr;
    if (type != "ping" && type != "ping_ext") return nullptr;
    return std::make_shared<RecordedTest>(std::string(type));
  }
};
