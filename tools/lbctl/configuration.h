// A configuration as the daemon reads it, by the daemon's own reader.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "config/health_test.h"
#include "config/lb_config.h"
#include "lbctl/platform/recorded_log.h"

namespace lbctl {

// A health test that is configured and never run. Its keywords are kept as the daemon's tests take
// them: each type has the keywords that its class has fields for, and their defaults.
class ConfiguredTest : public HealthTest {
 public:
  // `type` is the configuration's word: "ping" or "ping_ext".
  ConfiguredTest(std::string_view type, bool ipv6);

  const std::string& type() const { return type_; }
  bool is_burst() const { return type_ == "ping_ext"; }
  const std::string& target() const { return target_; }  // empty: the gateway

  // The number in force, of a keyword that the type has; 0 of another.
  int32_t number(TestKeyword keyword) const;

  void set_target(const std::string& target) override { target_ = target; }
  void set_number(TestKeyword keyword, uint32_t value) override;

  // Nothing is ever run.
  void init(LBInterface& /*interface*/) override {}
  void send(LBInterface& /*interface*/, const LBWorkerContext& /*worker*/) override {}
  void recv(LBInterface& /*interface*/, const LBWorkerContext& /*worker*/) override {}

  const char* type_name() const override { return type_.c_str(); }
  TestReport report() const override;
  std::string describe() const override { return type_ + " " + target_; }
  std::string get_description() const override { return describe(); }

 private:
  const std::string type_;
  std::string target_;
  std::map<TestKeyword, int32_t> numbers_;
};

// Makes ConfiguredTests for the types that the daemon has tests for.
class ConfiguredTestFactory : public TestFactory {
 public:
  std::shared_ptr<HealthTest> create(std::string_view type, bool ipv6) const override;
};

// A test of a configuration that was loaded here.
inline const ConfiguredTest& configured(const HealthTest& test) {
  return dynamic_cast<const ConfiguredTest&>(test);
}

struct Configuration {
  std::string path;
  LBConfig model;
  std::set<std::string> namespaces;  // that keywords named; "default" only then
  std::vector<LogMessage> messages;  // what the daemon would log while it reads
  bool complete = false;  // false: the brackets do not match, the daemon uses what was read before
};

// Reads the file with the daemon's reader. A Failure (kExitUnreadable) that names the file when it
// cannot be opened or is no regular file.
std::unique_ptr<Configuration> load_configuration(const std::string& path);

// The same from text. `name` stands for the file.
std::unique_ptr<Configuration> load_configuration_text(const std::string& text,
                                                       const std::string& name);

}  // namespace lbctl
