// Health tests as the configuration reader sees them, without any test class: the factory hands out
// recorders under the opaque test types.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "config/test_settings.h"

// What the reader told one test.
struct RecordedTest : TestSettings {
  explicit RecordedTest(std::string test_type) : type(std::move(test_type)) {}
  void set_target(const std::string& value) override { target = value; }
  void set_number(TestKeyword keyword, uint32_t value) override { numbers[keyword] = value; }

  std::string type;  // "ping", "ping_ext"; "ping6" for the one of IPv6
  std::string target;
  std::map<TestKeyword, uint32_t> numbers;
};

class FakeTestFactory : public TestFactory {
 public:
  std::shared_ptr<LBTest> create(std::string_view type) const override {
    if (type != "ping" && type != "ping_ext") return nullptr;
    return opaque<LBTest>(std::make_shared<RecordedTest>(std::string(type)));
  }
  std::shared_ptr<LBTest6> create6(std::string_view type) const override {
    if (type != "ping") return nullptr;
    return opaque<LBTest6>(std::make_shared<RecordedTest>("ping6"));
  }
  TestSettings& settings(LBTest& test) const override { return recorded(test); }
  TestSettings& settings(LBTest6& test) const override { return recorded(test); }

  // The recorder behind a test that this factory made.
  template <typename Test>
  static RecordedTest& recorded(Test& test) {
    return reinterpret_cast<RecordedTest&>(test);
  }

 private:
  template <typename Test>
  static std::shared_ptr<Test> opaque(const std::shared_ptr<RecordedTest>& test) {
    return std::shared_ptr<Test>(test, reinterpret_cast<Test*>(test.get()));
  }
};
