// A configuration model as text, in the form that the reader takes: the same model gives the same
// text.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "config/health_test.h"
#include "config/lb_config.h"
#include "support/property.h"
#include "tests/probe_factory.h"

// One of the daemon's own tests, which keeps what the reader told it.
class RecordingTest : public HealthTest {
 public:
  RecordingTest(std::shared_ptr<HealthTest> test, std::string_view test_type)
      : type(test_type), real_(std::move(test)) {}

  void set_target(const std::string& value) override {
    real_->set_target(value);
    target = value;
  }
  void set_number(TestKeyword keyword, uint32_t value) override {
    real_->set_number(keyword, value);
    numbers[keyword] = value;
  }
  void init(LBInterface& interface) override { real_->init(interface); }
  void send(LBInterface& interface, const LBWorkerContext& worker) override {
    real_->send(interface, worker);
  }
  void recv(LBInterface& interface, const LBWorkerContext& worker) override {
    real_->recv(interface, worker);
  }
  const char* type_name() const override { return real_->type_name(); }
  std::string describe() const override { return real_->describe(); }
  std::string get_description() const override { return real_->get_description(); }
  TestReport report() const override { return real_->report(); }

  const std::string type;
  std::string target;
  std::map<TestKeyword, uint32_t> numbers;

 private:
  const std::shared_ptr<HealthTest> real_;
};

// Makes the daemon's own tests, each in a recording one.
class RecordingFactory : public TestFactory {
 public:
  std::shared_ptr<HealthTest> create(std::string_view type, bool ipv6) const override {
    auto test = real_.create(type, ipv6);
    return test == nullptr ? nullptr : std::make_shared<RecordingTest>(std::move(test), type);
  }

  // The test shows what it was told.
  void check(const HealthTest& test) const {
    const auto& record = dynamic_cast<const RecordingTest&>(test);
    const TestReport report = test.report();
    HOLDS(report.target == record.target);
    HOLDS(report.result == kResultNone && !report.measurement);
    const auto resp_time = record.numbers.find(TestKeyword::kResponseTime);
    HOLDS(report.resp_time ==
          (resp_time == record.numbers.end() ? 5000 : static_cast<int32_t>(resp_time->second)));
  }

  std::string text(const HealthTest& test) const {
    static const std::map<TestKeyword, const char*> kWords = {
        {TestKeyword::kResponseTime, "resp-time"},
        {TestKeyword::kPeriod, "period"},
        {TestKeyword::kTimeout, "timeout"},
        {TestKeyword::kCount, "count"},
        {TestKeyword::kLoss, "loss"},
        {TestKeyword::kRtt, "rtt"},
        {TestKeyword::kJitter, "jitter"}};
    const auto& record = dynamic_cast<const RecordingTest&>(test);
    std::string text = "type " + record.type + "\n";
    if (!record.target.empty()) text += "target \"" + record.target + "\"\n";
    for (const auto& [keyword, value] : record.numbers) {
      text += std::string(kWords.at(keyword)) + " " + std::to_string(value) + "\n";
    }
    return text;
  }

 private:
  LBTestFactory real_;
};

// The model's text; without a factory the tests are only named.
inline std::string config_text(const LBConfig& config, const RecordingFactory* factory) {
  const auto line = [](const std::string& keyword, const std::string& value) {
    return keyword + " \"" + value + "\"";
  };
  std::string text = "options {\n";
  if (config.options->bird2_routes) text += "routing-daemon bird2\n";
  if (config.options->linux_discovery) text += "discovery linux\n";
  if (config.options->wire_replies) text += "replies wire\n";
  if (config.options->keeps_last_routes) text += "keep-last-routes\n";
  text += "}\nhealth {\n";
  for (const bool ipv6 : {false, true}) {
    for (const auto& [name, interface] : config.interfaces_of(ipv6)) {
      text += line(ipv6 ? "interface6" : "interface", name) + " {\n";
      text += "success-ct " + std::to_string(interface.success_ct) + "\n";
      text += "failure-ct " + std::to_string(interface.failure_ct) + "\n";
      text += line("nexthop", interface.nexthop) + "\n";
      text += line("source_address", interface.source_address) + "\n";
      text += line("namespace", interface.vrf) + "\n";
      text += line("origin", interface.origin) + "\n";
      text += line("lease-file", interface.lease_file) + "\n";
      text += "hold-down " + std::to_string(interface.hold_down) + "\n";
      if (interface.check_all) text += "check_all\n";
      for (const auto& [index, test] : interface.tests) {
        text += "test " + std::to_string(index) + " {\n";
        text += factory == nullptr ? test->type_name() : factory->text(*test);
        text += "\n}\n";
      }
      text += "}\n";
    }
  }
  text += "}\n";
  for (const auto& [name, rule] : config.rules) {
    text += line("rule", name) + " {\n";
    text += line("namespace", rule.vrf) + "\n";
    if (rule.failover != 0) text += "failover\n";
    for (const auto& [member, settings] : rule.members) {
      text += line(settings.ipv6 ? "interface6" : "interface", member) + " {\n";
      if (settings.weight != 0) text += "weight " + std::to_string(settings.weight) + "\n";
      text += "}\n";
    }
    for (const auto& [prefix, target] : rule.targets) {
      text += "target {\n" + line("address", prefix) + "\n";
      text += "metric " + std::to_string(target.metric) + "\n}\n";
    }
    text += "}\n";
  }
  return text;
}

// False where a text of the model cannot be written as one value: it would not fit in a line, or it
// has a word that is a bracket.
inline bool is_writable(const LBConfig& config) {
  const auto fits = [](const std::string& text) {
    if (text.size() > 900) return false;
    const std::string words = "~" + text + "~";
    for (size_t i = 1; i + 1 < words.size(); ++i) {
      const auto separates = [](char c) { return c == ' ' || c == '\t' || c == '~'; };
      const bool bracket = words[i] == '{' || words[i] == '}';
      if (bracket && separates(words[i - 1]) && separates(words[i + 1])) return false;
    }
    return true;
  };
  for (const bool ipv6 : {false, true}) {
    for (const auto& [name, interface] : config.interfaces_of(ipv6)) {
      bool all_fit = fits(name) && fits(interface.nexthop) && fits(interface.source_address) &&
                     fits(interface.vrf) && fits(interface.origin) && fits(interface.lease_file);
      for (const auto& [index, test] : interface.tests) {
        all_fit = all_fit && fits(test->report().target);
      }
      if (!all_fit) return false;
    }
  }
  for (const auto& [name, rule] : config.rules) {
    if (!fits(name) || !fits(rule.vrf)) return false;
    for (const auto& [member, settings] : rule.members) {
      if (!fits(member)) return false;
    }
    for (const auto& [prefix, target] : rule.targets) {
      if (!fits(prefix)) return false;
    }
  }
  return true;
}
