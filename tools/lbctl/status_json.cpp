#include "lbctl/status_json.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "config/health_test.h"

namespace lbctl {

namespace {

int version(bool ipv6) { return ipv6 ? 6 : 4; }

// Empty texts are null.
Json text_or_null(const std::string& text) { return text.empty() ? Json(nullptr) : Json(text); }

const char* result_word(int32_t result) {
  if (result == kResultSuccess) return "success";
  return result == kResultFailure ? "failure" : "none";
}

const char* nexthop_source(const InterfaceDump& interface) {
  if (interface.nexthop_is_dhcp) return "dhcp";
  return interface.nexthop_is_tunnel ? "tunnel" : "static";
}

Json against_limit(const Json& value, const Json& limit) {
  return {{"value", value}, {"limit", limit}};
}

double seconds(int32_t milliseconds) { return milliseconds / 1000.0; }

Json measurement_of(const TestDump& test) {
  if (!test.measurement) return nullptr;
  const TestDump::Measurement& found = *test.measurement;
  return {{"loss", against_limit(found.measured_loss, found.loss)},
          {"rtt", against_limit(seconds(found.measured_rtt), seconds(found.rtt))},
          {"jitter", against_limit(seconds(found.measured_jitter), seconds(found.jitter))}};
}

Json interface_of(const InterfaceDump& interface) {
  Json tests = Json::array();
  for (const TestDump& test : interface.tests) {
    tests.push_back({{"target", test.target},
                     {"result", result_word(test.result)},
                     {"success_count", test.success_count},
                     {"failure_count", test.failure_count},
                     {"measurement", measurement_of(test)}});
  }
  return {{"name", interface.name},
          {"family", version(interface.ipv6)},
          {"vrf", interface.vrf},
          {"state", interface.active ? "active" : "failed"},
          {"state_age", std::max(interface.change_age, 0)},
          {"nexthop", text_or_null(interface.nexthop)},
          {"nexthop_source", nexthop_source(interface)},
          {"source_address", text_or_null(interface.source_address)},
          {"success_ct", interface.success_ct},
          {"failure_ct", interface.failure_ct},
          {"tests", std::move(tests)}};
}

Json rule_of(const RuleStatus& status) {
  Json members = Json::array();
  for (const MemberDump& member : status.rule.members) {
    members.push_back(
        {{"device", member.device}, {"weight", member.weight}, {"family", version(member.ipv6)}});
  }
  Json routes = Json::array();
  for (const auto& [route, in_force, used_instead] : status.routes) {
    routes.push_back({{"destination", route.destination},
                      {"metric", route.metric == -1 ? Json(nullptr) : Json(route.metric)},
                      {"nexthop", text_or_null(route.nexthop)},
                      {"in_force", in_force ? Json(*in_force) : Json(nullptr)}});
  }
  return {{"number", status.rule.number},  {"family", version(status.rule.ipv6)},
          {"vrf", status.rule.vrf},        {"failover", status.rule.failover},
          {"members", std::move(members)}, {"routes", std::move(routes)}};
}

}  // namespace

Json status_document(const Status& status) {
  Json result = document("status");
  result["written"] = rfc3339(status.written);
  result["stale"] = status.stale;
  result["interfaces"] = Json::array();
  for (const InterfaceDump& interface : status.interfaces)
    result["interfaces"].push_back(interface_of(interface));
  result["rules"] = Json::array();
  for (const RuleStatus& rule : status.rules) result["rules"].push_back(rule_of(rule));
  return result;
}

}  // namespace lbctl
