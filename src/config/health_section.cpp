#include "config/health_section.h"

#include <charconv>
#include <optional>
#include <string_view>
#include <utility>

#include "config/log.h"

namespace {

constexpr int kInterfaceDepth = 2;
constexpr int kTestDepth = 3;
constexpr int kTypeDepth = 4;

constexpr int32_t kDefaultTestIndex = 1;
constexpr std::string_view kDefaultTestType = "ping";

// The keywords that give a number to the current IPv4 test, whatever the interface's family.
constexpr std::pair<std::string_view, TestKeyword> kIpv4Numbers[] = {
    {"period", TestKeyword::kPeriod}, {"timeout", TestKeyword::kTimeout},
    {"count", TestKeyword::kCount},   {"loss", TestKeyword::kLoss},
    {"rtt", TestKeyword::kRtt},       {"jitter", TestKeyword::kJitter},
};

std::optional<TestKeyword> ipv4_number(std::string_view key) {
  for (const auto& [name, keyword] : kIpv4Numbers) {
    if (key == name) return keyword;
  }
  return std::nullopt;
}

// Digits alone, and no more than fit.
std::optional<int32_t> whole_number(std::string_view text) {
  int32_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number < 0) return std::nullopt;
  return number;
}

bool is_test_keyword(std::string_view key) {
  return key == "type" || key == "target" || key == "resp-time" || ipv4_number(key).has_value();
}

}  // namespace

HealthSection::HealthSection(LBConfig& config, std::set<std::string>& namespaces,
                             const TestFactory& factory)
    : config_(config), namespaces_(namespaces), factory_(factory) {}

void HealthSection::apply(const ConfigLine& line) {
  switch (line.depth) {
    case kInterfaceDepth:
      if (line.key == "interface" || line.key == "interface6") {
        select_interface(line.value, line.key == "interface6");
      } else if (interface_ != nullptr) {
        apply_to_interface(line);
      }
      break;
    case kTestDepth:
      // Two forms of a test block are in use: with the keywords directly in it, or with a block of
      // the type around them. The line that opens the test block, and the bracket that closes
      // an inner block, set the index; any word may open a test block, a test keyword too.
      if (!line.opens_block && is_test_keyword(line.key)) {
        apply_to_test(line);
      } else {
        test_index_ = line.signed_number();
      }
      break;
    case kTypeDepth:
      apply_to_test(line);
      break;
    default:
      break;
  }
}

void HealthSection::select_interface(const std::string& name, bool ipv6) {
  if (name.empty()) return;
  interface_ = &config_.interfaces_of(ipv6).try_emplace(name, name, ipv6).first->second;
  interface_->options = config_.options;
}

void HealthSection::apply_to_interface(const ConfigLine& line) {
  LBInterface& interface = *interface_;
  if (line.key == "success-ct") {
    if (line.signed_number() > 0) {
      interface.success_ct = line.signed_number();
    } else {
      LB_ERROR("wan_lb: illegal success-ct specified in configuration file: %s",
               line.value.c_str());
    }
  } else if (line.key == "failure-ct") {
    if (line.signed_number() > 0) {
      interface.failure_ct = line.signed_number();
    } else {
      LB_ERROR("wan_lb: illegal failure-ct specified in configuration file: %s",
               line.value.c_str());
    }
  } else if (line.key == "nexthop") {
    interface.nexthop = line.value;
  } else if (line.key == "source_address") {
    interface.source_address = line.value;
  } else if (line.key == "check_all") {
    interface.check_all = true;
  } else if (line.key == "namespace") {
    interface.vrf = line.value;
    namespaces_.insert(line.value);
  } else if (line.key == "origin") {
    interface.origin = line.value;
  } else if (line.key == "lease-file") {
    interface.lease_file = line.value;
  } else if (line.key == "hold-down") {
    if (const auto seconds = whole_number(line.value)) {
      interface.hold_down = *seconds;
    } else {
      LB_ERROR("wan_lb: illegal hold-down in line %d of the configuration file: %s",
               line.line_number, line.value.c_str());
    }
  }
}

void HealthSection::apply_to_test(const ConfigLine& line) {
  if (line.key == "type") {
    create_test(line.value);
  } else if (line.key == "target") {
    set_target(line.value);
  } else if (line.key == "resp-time") {
    HealthTest* const test = current_test();
    if (test != nullptr) test->set_number(TestKeyword::kResponseTime, line.number());
  } else if (const auto keyword = ipv4_number(line.key); keyword && test_ != nullptr) {
    test_->set_number(*keyword, line.number());
  }
}

void HealthSection::create_test(const std::string& type) {
  if (interface_ == nullptr) return;
  std::shared_ptr<HealthTest>& current = interface_->ipv6 ? test6_ : test_;
  auto test = factory_.create(type, interface_->ipv6);
  if (test != nullptr) {
    current = interface_->tests.try_emplace(test_index_, std::move(test)).first->second;
  } else if (!interface_->ipv6) {
    // Unlike that of IPv6, a type that is unknown still chooses the test under the index.
    const auto found = interface_->tests.find(test_index_);
    current = found == interface_->tests.end() ? nullptr : found->second;
  }
}

void HealthSection::set_target(const std::string& target) {
  HealthTest* const test = current_test();
  if (test == nullptr || target.empty()) return;
  test->set_target(target);
  MutexLock lock(interface_->mutex);
  interface_->state.target_results[target] = -1;
}

HealthTest* HealthSection::current_test() const {
  if (interface_ == nullptr) return nullptr;
  return (interface_->ipv6 ? test6_ : test_).get();
}

void HealthSection::add_default_tests() {
  for (const bool ipv6 : {false, true}) {
    for (auto& [name, interface] : config_.interfaces_of(ipv6)) {
      if (!interface.tests.empty()) continue;
      interface.tests.emplace(kDefaultTestIndex, factory_.create(kDefaultTestType, ipv6));
    }
  }
}
