// What the configuration reader knows of a health test: its keywords, and who makes it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

class LBTest;
class LBTest6;

enum class TestKeyword { kResponseTime, kPeriod, kTimeout, kCount, kLoss, kRtt, kJitter };

// The settings of one test. Called by the reader only, before any thread runs.
class TestSettings {
 public:
  virtual ~TestSettings() = default;

  // The address or host name to probe.
  virtual void set_target(const std::string& target) = 0;

  // Takes the keyword's number as it was written (timeout: milliseconds). A test that has no field
  // for the keyword ignores it.
  virtual void set_number(TestKeyword keyword, uint32_t value) = 0;
};

// Makes the test objects, so that the reader needs to know none of their classes.
class TestFactory {
 public:
  virtual ~TestFactory() = default;

  // A new test of the type that the configuration names ("ping", ...); null for an unknown type.
  virtual std::shared_ptr<LBTest> create(std::string_view type) const = 0;
  virtual std::shared_ptr<LBTest6> create6(std::string_view type) const = 0;

  virtual TestSettings& settings(LBTest& test) const = 0;
  virtual TestSettings& settings(LBTest6& test) const = 0;
};
