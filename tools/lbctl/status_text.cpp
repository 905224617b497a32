#include "lbctl/status_text.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "config/health_test.h"
#include "lbctl/families.h"
#include "tests/burst_judge.h"

namespace lbctl {

namespace {

using Lines = std::vector<TextLine>;

constexpr size_t kStateWidth = 6;  // "active", "failed"
constexpr size_t kForWidth = 11;   // "59 min 59 s"
constexpr size_t kGap = 2;

// The columns of an interface table.
struct Columns {
  size_t name = 9;  // "INTERFACE"
  size_t vrf = 3;
  size_t nexthop = 8;
};

// As wide as what is in them; names give way to next hops, which are cut last.
Columns columns_for(const std::vector<const InterfaceDump*>& interfaces) {
  constexpr size_t kLongestNexthop = 39;  // an IPv6 address
  constexpr size_t kRoom = kTableWidth - kStateWidth - kForWidth - 4 * kGap;
  constexpr size_t kLeastVrf = 7;  // "default"
  Columns columns;
  for (const InterfaceDump* interface : interfaces) {
    columns.name = std::max(columns.name, plain(interface->name).size());
    columns.vrf = std::max(columns.vrf, plain(interface->vrf).size());
    columns.nexthop = std::max(columns.nexthop, plain(interface->nexthop).size());
  }
  columns.nexthop = std::min(columns.nexthop, kLongestNexthop);
  const size_t names = kRoom - columns.nexthop;
  columns.vrf = std::min(columns.vrf, std::max(kLeastVrf, names / 3));
  columns.name = std::min(columns.name, names - columns.vrf);
  return columns;
}

TextLine heading(const Columns& columns) {
  const std::string text =
      fmt::format("{}  {}  {}  {}  NEXT HOP", cell("INTERFACE", columns.name),
                  cell("VRF", columns.vrf), cell("STATE", kStateWidth), cell("FOR", kForWidth));
  return {{{text, Colour::kDim}}, "", ""};
}

TextLine interface_line(const InterfaceDump& interface, const Columns& columns) {
  const std::string state = interface.active ? "active" : "failed";
  const std::string nexthop = interface.nexthop.empty() ? "none" : plain(interface.nexthop);
  TextLine line;
  line.parts = {
      {cell(plain(interface.name), columns.name), Colour::kBold},
      {"  " + cell(plain(interface.vrf), columns.vrf) + "  ", {}},
      {cell(state, kStateWidth), interface.active ? Colour::kGreen : Colour::kRed},
      {"  " +
           cell(interface.was_looked_at() ? span(std::max(interface.change_age, 0)) : "not probed",
                kForWidth) +
           "  ",
       {}},
      {cut(nexthop, columns.nexthop), {}},
  };
  line.subject = interface_subject(interface);
  line.content = state + " " + interface.nexthop;
  return line;
}

// The dumps tell a test's type by its figures, which are there from the first result on.
const char* type_word(const InterfaceDump& interface, const TestDump& test) {
  if (test.measurement) return "ping_ext";
  return interface.ipv6 || test.result != kResultNone ? "ping" : "";
}

struct Outcome {
  const char* mark;
  const char* word;
  std::optional<Colour> colour;
};

Outcome outcome_of(const TestDump& test) {
  if (test.result == kResultSuccess) return {"+", "success", Colour::kGreen};
  if (test.result == kResultFailure) return {"-", "failure", Colour::kRed};
  return {" ", "no result", std::nullopt};
}

TextPart figure(const char* name, int32_t value, int32_t limit, const char* unit) {
  const bool reaches_limit = value >= limit;  // at its limit a burst fails
  return {fmt::format("{} {} of {} {}", name, value, limit, unit),
          reaches_limit ? std::optional(Colour::kRed) : std::nullopt};
}

std::string counts_of(const InterfaceDump& interface, const TestDump& test) {
  return fmt::format("  good {}/{}  bad {}/{}", test.success_count, interface.success_ct,
                     test.failure_count, interface.failure_ct);
}

std::string target_of(const TestDump& test) {
  return test.target.empty() ? "no target yet" : plain(test.target);
}

// The columns of the lines of tests.
struct TestColumns {
  size_t type = 4;
  size_t target = 0;
};

constexpr size_t kMarkWidth = 4;     // "  + "
constexpr size_t kOutcomeWidth = 9;  // "no result"

TestColumns test_columns_for(const std::vector<const InterfaceDump*>& interfaces) {
  TestColumns columns;
  size_t counts = 0;
  for (const InterfaceDump* interface : interfaces) {
    for (const TestDump& test : interface->tests) {
      columns.type = std::max(columns.type, std::string_view(type_word(*interface, test)).size());
      columns.target = std::max(columns.target, target_of(test).size());
      counts = std::max(counts, counts_of(*interface, test).size());
    }
  }
  const size_t rest = kMarkWidth + columns.type + kGap + kGap + kOutcomeWidth + counts;
  columns.target = std::min(columns.target, kTableWidth - std::min(rest, kTableWidth));
  return columns;
}

void append_test(const InterfaceDump& interface, size_t at, const TestColumns& columns,
                 Lines& lines) {
  const TestDump& test = interface.tests[at];
  const Outcome outcome = outcome_of(test);
  TextLine line;
  line.parts = {{fmt::format("  {} ", outcome.mark), outcome.colour},
                {cell(type_word(interface, test), columns.type) + "  " +
                     cell(target_of(test), columns.target) + "  ",
                 {}},
                {cell(outcome.word, kOutcomeWidth), outcome.colour},
                {counts_of(interface, test), {}}};
  line.subject = fmt::format("{} test {}", interface_subject(interface), at + 1);
  line.content = fmt::format("{} {}", outcome.word, test.target);
  lines.push_back(std::move(line));
  if (!test.measurement) return;
  const TestDump::Measurement& found = *test.measurement;
  // A burst that ends early, because a request was not answered, leaves the figures of the one
  // before.
  const bool ended_early =
      test.result == kResultFailure &&
      is_acceptable({found.measured_jitter, found.measured_loss, found.measured_rtt},
                    {found.jitter, found.loss, found.rtt});
  lines.push_back({{{ended_early ? "      no answer; before: " : "      ", {}},
                    figure("loss", found.measured_loss, found.loss, "%"),
                    {"   ", {}},
                    figure("rtt", found.measured_rtt, found.rtt, "ms"),
                    {"   ", {}},
                    figure("jitter", found.measured_jitter, found.jitter, "ms")},
                   "",
                   ""});
}

// "Rule 1  default  failover: eth0 10, eth1 1", in as many lines as it takes.
void append_rule_head(const RuleDump& rule, Lines& lines) {
  std::string text = fmt::format("Rule {}  {}  {}:", rule.number, cut(plain(rule.vrf), 31),
                                 rule.failover ? "failover" : "by weight");
  if (rule.members.empty()) text += " no members";
  for (const MemberDump& member : rule.members) {
    std::string word = fmt::format(" {} {}", cut(plain(member.device), 60), member.weight);
    if (&member != &rule.members.back()) word += ',';
    if (text.size() + word.size() > kTableWidth) {
      lines.push_back({{{text, {}}}, "", ""});
      text = "   ";
    }
    text += word;
  }
  lines.push_back({{{text, {}}}, "", ""});
}

void append_route(const RuleStatus& rule, const RouteStatus& status, Lines& lines) {
  const RouteDump& route = status.route;
  TextPart force{"kernel's table not readable", Colour::kDim};
  if (status.in_force) {
    force = *status.in_force ? TextPart{"in force", Colour::kGreen}
                             : TextPart{"not in force", Colour::kRed};
  }
  if (!status.used_instead.empty())
    force.text += fmt::format(": another route is used (from {})", status.used_instead);
  std::string target = "  " + plain(route.destination);
  if (route.metric != -1) target += fmt::format("  metric {}", route.metric);
  std::string way;
  if (rule.rule.failover)
    way = route.nexthop.empty() ? "  no next hop" : "  via " + plain(route.nexthop);
  TextLine shown;
  shown.subject = fmt::format("route {}/{} {} {}", rule.rule.number, rule.rule.ipv6 ? 6 : 4,
                              rule.rule.vrf, route.index);
  shown.content = fmt::format("{} {} {}", route.destination, route.nexthop, force.text);
  if (target.size() + way.size() + kGap + force.text.size() > kTableWidth) {
    lines.push_back({{{target, {}}}, "", ""});
    target = "  ";
  }
  shown.parts = {{target + way + "  ", {}}, force};
  lines.push_back(std::move(shown));
}

void append_family(const Status& status, bool ipv6, Lines& lines) {
  std::vector<const InterfaceDump*> interfaces;
  for (const InterfaceDump& interface : status.interfaces) {
    if (interface.ipv6 == ipv6) interfaces.push_back(&interface);
  }
  std::vector<const RuleStatus*> rules;
  for (const RuleStatus& rule : status.rules) {
    if (rule.rule.ipv6 == ipv6) rules.push_back(&rule);
  }
  if (interfaces.empty() && rules.empty()) return;
  if (!lines.empty()) lines.emplace_back();
  lines.push_back({{{family_name(ipv6), Colour::kBold}}, "", ""});
  if (interfaces.empty()) {
    lines.push_back({{{"No interfaces.", {}}}, "", ""});
  } else {
    const Columns columns = columns_for(interfaces);
    const TestColumns test_columns = test_columns_for(interfaces);
    lines.push_back(heading(columns));
    for (const InterfaceDump* interface : interfaces) {
      lines.push_back(interface_line(*interface, columns));
      for (size_t at = 0; at < interface->tests.size(); ++at)
        append_test(*interface, at, test_columns, lines);
    }
  }
  for (const RuleStatus* rule : rules) {
    append_rule_head(rule->rule, lines);
    for (const RouteStatus& route : rule->routes) append_route(*rule, route, lines);
  }
}

}  // namespace

std::string interface_subject(const InterfaceDump& interface) {
  return "interface " + interface_label(interface.name, interface.ipv6);
}

std::vector<TextLine> status_tables(const Status& status) {
  Lines lines;
  for (const bool ipv6 : {false, true}) append_family(status, ipv6, lines);
  if (lines.empty()) lines.push_back({{{"No interfaces and no rules.", {}}}, "", ""});
  for (TextLine& line : lines) line.clip(kTableWidth);
  return lines;
}

TextLine written_line(const Status& status) {
  const std::string when =
      fmt::format("Written {}, {} ago.", rfc3339(status.written), span(status.age()));
  if (!status.stale) return {{{when, {}}}, "", ""};
  return {{{"STALE: ", Colour::kRed}, {when + " Is the daemon running?", {}}}, "", ""};
}

std::vector<TextLine> status_text(const Status& status) {
  Lines lines = status_tables(status);
  lines.emplace_back();
  lines.push_back(written_line(status));
  return lines;
}

}  // namespace lbctl
