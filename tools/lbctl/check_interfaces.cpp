#include <map>
#include <set>
#include <tuple>

#include <fmt/format.h>

#include "lbctl/check_model.h"
#include "lbctl/check_nearest_word.h"
#include "lbctl/families.h"
#include "output/dump_format.h"

namespace lbctl {

namespace {

constexpr int64_t kSlowBurst = 60'000;  // milliseconds

bool is_of(AddressKind kind, bool ipv6) {
  return kind == (ipv6 ? AddressKind::kIpv6 : AddressKind::kIpv4);
}

// An address that is none of the interface's family.
void tell_wrong_family(const Setting& setting, const std::string& what,
                       const InterfaceView& interface, Findings& findings) {
  findings.add(setting.place, "wrong-family",
               fmt::format("{} '{}' is no {} address as {} needs: it is never reached", what,
                           setting.value, family_name(interface.ipv6), interface.label()),
               fmt::format("write an {} address, or move it to the block '{} {}'",
                           family_name(interface.ipv6), interface.ipv6 ? "interface" : "interface6",
                           interface.name));
}

void check_nexthop(const InterfaceView& interface, Findings& findings) {
  const Setting* const setting = interface.find("nexthop");
  if (setting == nullptr) return;
  const std::string& value = setting->value;
  if (value.empty() || value == "dhcp" || value == "tunnel" || value == "kernel") return;
  const AddressKind kind = kind_of_address(value);
  if (kind == AddressKind::kNone) {
    const std::string nearest = nearest_word(value, {"dhcp", "tunnel", "kernel"});
    const bool has_zone = value.find('%') != std::string::npos;
    findings.add(setting->place, "bad-address",
                 fmt::format("next hop '{}' is no address: the daemon writes it into the routing "
                             "daemon's file as it is, or leaves the routes out",
                             value),
                 !nearest.empty() ? fmt::format("did you mean '{}'?", nearest)
                 : has_zone       ? "write the address without '%' and what follows"
                                  : "write an address, 'dhcp', 'tunnel' or 'kernel'");
  } else if (!is_of(kind, interface.ipv6)) {
    tell_wrong_family(*setting, "next hop", interface, findings);
  } else if (!is_neighbour_address(value)) {
    findings.add(
        setting->place, "bad-address",
        fmt::format("next hop '{}' is the address of no host: no route by it can work", value),
        "write the address of the provider's router");
  } else if (canonical_address(value) != value) {
    findings.add(setting->place, "not-canonical",
                 fmt::format("next hop '{}' is not in the form in which the kernel writes it: the "
                             "daemon never finds the neighbour, and the interface stays failed",
                             value),
                 fmt::format("write '{}'", canonical_address(value)));
  }
}

void check_source(const InterfaceView& interface, Findings& findings) {
  const Setting* const setting = interface.find("source_address");
  if (setting == nullptr || setting->value.empty() || setting->value == "auto") return;
  const AddressKind kind = kind_of_address(setting->value);
  if (kind == AddressKind::kNone) {
    findings.add(
        setting->place, "bad-address",
        fmt::format("source address '{}' is no address: no probe is sent from it", setting->value),
        "write an address of this machine, or 'auto'");
  } else if (!is_of(kind, interface.ipv6)) {
    tell_wrong_family(*setting, "source address", interface, findings);
  }
}

void check_target(const InterfaceView& interface, const TestView& test, Findings& findings) {
  const Setting* const setting = test.find("target");
  if (setting == nullptr || setting->value.empty()) return;
  const AddressKind kind = kind_of_address(setting->value);
  if (kind != AddressKind::kNone) {
    if (!is_of(kind, interface.ipv6)) tell_wrong_family(*setting, "target", interface, findings);
  } else if (is_host_name(setting->value)) {
    findings.add(setting->place, "host-name",
                 fmt::format("target '{}' is a host name: the daemon probes addresses only, and "
                             "the test fails",
                             setting->value),
                 "write the address of the host");
  } else {
    findings.add(setting->place, "bad-address",
                 fmt::format("target '{}' is no address: the test fails", setting->value),
                 "write an address, or take the line away to probe the next hop");
  }
}

void check_burst(const TestView& test, Findings& findings) {
  if (const Setting* const timeout = test.find("timeout")) {
    const Number number = read_number(timeout->value);
    if (number.fits && number.value >= 0 && (number.value == 0 || number.value % 1000 != 0)) {
      findings.add(
          timeout->place, "bad-timeout",
          fmt::format("a wait of '{}' milliseconds is {}: every burst fails", timeout->value,
                      number.value == 0 ? "over before a reply can come" : "refused"),
          "write whole seconds: 1000, 2000, ...");
    }
  }
  for (const char* const key : {"loss", "rtt", "jitter"}) {
    const Setting* const limit = test.find(key);
    if (limit == nullptr) continue;
    const Number number = read_number(limit->value);
    if (!number.has_digits || number.value != 0) continue;
    const bool is_loss = std::string_view(key) == "loss";
    findings.add(limit->place, is_loss ? "loss-zero" : "limit-zero",
                 fmt::format("'{} 0' fails every burst, since a limit is reached at equality", key),
                 is_loss ? "write 1 to allow no loss" : "write 1 or more milliseconds");
  }
  const int64_t count = test.number("count", 10);
  const int64_t timeout = test.number("timeout", 1000);
  if (count < 1 || timeout < 1 || count > INT32_MAX || timeout > INT32_MAX) return;
  if (count * timeout <= kSlowBurst) return;
  const Setting* const given_count = test.find("count");
  const Setting* const given_timeout = test.find("timeout");
  const bool is_count = given_count != nullptr && (count > 10 || given_timeout == nullptr);
  const Setting* const cause = is_count ? given_count : given_timeout;
  if (cause == nullptr) return;
  findings.add(cause->place, "slow-detection",
               fmt::format("a burst of {} requests that wait {} ms each takes up to {} s, in which "
                           "no other interface of the VRF is looked at",
                           count, timeout, count * timeout / 1000),
               "let count x timeout be a minute at most");
}

// Looks come once a second, the first one as soon as the cycle's probes have left.
void check_response_time(const TestView& test, Findings& findings) {
  const Setting* const limit = test.find("resp-time");
  if (limit == nullptr) return;
  const Number number = read_number(limit->value);
  if (!number.has_digits || number.value != 0) return;
  findings.add(limit->place, "resp-time-zero",
               "'resp-time 0' fails a probe that was not answered before the first look at it, "
               "within milliseconds: the interface comes and goes",
               "write the milliseconds that a reply may take: 900 fails it at the next look");
}

void check_type(const InterfaceView& interface, const TestView& test, Findings& findings) {
  const Setting* const type = test.find("type");
  if (type == nullptr) {
    if (test.meant.contains("type")) return;
    findings.add(test.place, "test-without-type",
                 "the test has no type: the daemon makes no test of it, and takes its lines for "
                 "the test that was read before",
                 "make 'type ping' the first line of the test");
    return;
  }
  if (type->value.empty()) return;
  const bool is_burst = type->value == "ping_ext";
  if (type->value != "ping" && (!is_burst || interface.ipv6)) {
    findings.add(type->place, "unknown-type",
                 is_burst ? "'ping_ext' is a type of IPv4 tests only: the daemon makes no test of "
                            "it"
                          : fmt::format("there is no type '{}' of tests: the daemon makes no test "
                                        "of it",
                                        type->value),
                 interface.ipv6 ? "write 'type ping'" : "write 'type ping' or 'type ping_ext'");
    return;
  }
  if (is_burst) return check_burst(test, findings);
  check_response_time(test, findings);
  for (const char* const key : {"period", "count", "timeout", "loss", "rtt", "jitter"}) {
    const Setting* const setting = test.find(key);
    if (setting == nullptr) continue;
    findings.add(
        setting->key, "unused-keyword",
        interface.ipv6
            ? fmt::format("'{}' is no keyword of IPv6 tests: the daemon takes it for the "
                          "IPv4 test that was read before",
                          key)
            : fmt::format("a test of the type ping has no '{}': the daemon passes over it", key),
        interface.ipv6 ? "take the line away" : "take it away, or write 'type ping_ext'");
  }
}

// Origin, family, VRF, target: what one probe serves, or outcomes are counted by.
using Probed = std::map<std::tuple<std::string, bool, std::string, std::string>, const TestView*>;

void check_probed(const InterfaceView& interface, const TestView& test, Probed& probed,
                  Findings& findings) {
  const Setting* const target = test.find("target");
  const bool has_target = target != nullptr && !target->value.empty();
  const std::string nexthop = interface.value("nexthop");
  const std::string text = has_target ? target->value : nexthop;
  const auto [entry, is_new] =
      probed.try_emplace({interface.origin(), interface.ipv6, interface.vrf(), text}, &test);
  if (is_new) return;
  const bool has_burst = test.type() == "ping_ext" || entry->second->type() == "ping_ext";
  findings.add(
      has_target ? target->place : test.place, "same-target-twice",
      fmt::format("{} is probed by the test in line {} too: {}",
                  text.empty() ? "the next hop" : "'" + text + "'", entry->second->place.line,
                  has_burst ? "their outcomes are counted together" : "one probe serves both"),
      "take one of the tests away, or give it another target");
}

void check_tests(const InterfaceView& interface, Probed& probed, Findings& findings) {
  std::set<int32_t> indices;
  for (const TestView& test : interface.tests) {
    check_target(interface, test, findings);
    check_type(interface, test, findings);
    if (!indices.insert(test.index).second) {
      findings.add(
          test.place, "duplicate-test",
          fmt::format("{} has a test {} already: the daemon takes these lines for that one",
                      interface.label(), test.index),
          "give each test of an interface a number of its own");
    } else if (test.find("type") != nullptr) {
      check_probed(interface, test, probed, findings);
    }
  }
  if (interface.tests.size() > kDumpMaxTests) {
    findings.add(interface.tests[kDumpMaxTests].place, "too-many",
                 fmt::format("{} has {} tests: reports for programs hold the first {}",
                             interface.label(), interface.tests.size(), kDumpMaxTests),
                 "all are run; take some away to see all of them");
  }
}

void check_lease_use(const InterfaceView& interface, Findings& findings) {
  const Setting* const file = interface.find("lease-file");
  if (file == nullptr || interface.value("nexthop") == "dhcp") return;
  findings.add(file->key, "bad-option",
               "'lease-file' is read for 'nexthop dhcp' only: the daemon does not look at it",
               "write 'nexthop dhcp', or take the line away");
}

}  // namespace

void check_interfaces(const View& view, Findings& findings) {
  Probed probed;
  for (const InterfaceView& interface : view.interfaces) {
    check_nexthop(interface, findings);
    check_source(interface, findings);
    check_lease_use(interface, findings);
    check_tests(interface, probed, findings);
    if (interface.find("nexthop") == nullptr && !interface.meant.contains("nexthop") &&
        is_used(view, interface)) {
      findings.add(interface.place, "no-nexthop",
                   fmt::format("{} carries a rule and has no next hop: {}", interface.label(),
                               view.options.bird2_routes
                                   ? "the daemon leaves it out of all routes"
                                   : "the daemon writes 'via  weight', and the routing daemon "
                                     "refuses the whole file"),
                   "add 'nexthop' with an address, 'dhcp', 'tunnel' or 'kernel'");
    }
  }
}

}  // namespace lbctl
