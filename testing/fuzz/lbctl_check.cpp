// lbctl check of any bytes: places inside of the file, and nothing that the daemon's reader logs or
// takes otherwise is passed over.
#include <algorithm>
#include <string>

#include "lbctl/check_file.h"
#include "lbctl/check_outline.h"
#include "lbctl/check_view.h"
#include "lbctl/configuration.h"
#include "support/bytes.h"
#include "support/property.h"

namespace {

using namespace lbctl;

void check_places(std::string_view text, const Findings& findings) {
  std::vector<int> sizes = {0};
  for (const char character : text) {
    if (character == '\n') {
      sizes.push_back(0);
    } else {
      ++sizes.back();
    }
  }
  for (const Finding& finding : findings.all()) {
    HOLDS(finding.place.line >= 1 && static_cast<size_t>(finding.place.line) <= sizes.size());
    // Behind the last character at most, where something is missing.
    const int size = sizes[static_cast<size_t>(finding.place.line) - 1];
    HOLDS(finding.place.column >= 1 && finding.place.column <= size + 1);
    HOLDS(!finding.text.empty() && !finding.hint.empty());
  }
}

// What the check has understood is what the daemon's model has.
void check_same(const std::string& text, const Configuration& configuration) {
  Findings findings;
  const View view = make_view(read_outline(read_lines(text), findings), findings);
  const LBConfig& model = configuration.model;
  HOLDS(view.interfaces.size() == model.interfaces.size() + model.interfaces6.size());
  for (const InterfaceView& interface : view.interfaces) {
    const auto found = model.interfaces_of(interface.ipv6).find(interface.name);
    HOLDS(found != model.interfaces_of(interface.ipv6).end());
    const LBInterface& read = found->second;
    HOLDS(read.nexthop == interface.value("nexthop") && read.origin == interface.origin());
    HOLDS(read.vrf == interface.vrf() &&
          read.check_all == (interface.find("check_all") != nullptr));
    HOLDS(read.source_address == interface.value("source_address"));
    HOLDS(read.lease_file == interface.value("lease-file"));
    HOLDS(read.tests.size() == std::max<size_t>(1, interface.tests.size()));
    for (const TestView& test : interface.tests) {
      HOLDS(read.tests.contains(test.index));
      const ConfiguredTest& probe = configured(*read.tests.at(test.index));
      HOLDS(probe.type() == test.type());
      HOLDS(probe.target() == (test.find("target") == nullptr ? "" : test.find("target")->value));
      HOLDS(probe.number(TestKeyword::kResponseTime) == test.number("resp-time", 5000));
    }
  }
  HOLDS(view.rules.size() == model.rules.size());
  for (const RuleView& rule : view.rules) {
    HOLDS(model.rules.contains(rule.name));
    const LBRule& read = model.rules.at(rule.name);
    HOLDS(read.vrf == rule.vrf() && (read.failover != 0) == rule.failover);
    HOLDS(read.members.size() == rule.members.size());
    HOLDS(read.targets.size() == rule.destinations.size());
    for (const MemberView& member : rule.members) {
      HOLDS(read.members.contains(member.name));
      HOLDS(read.members.at(member.name).weight == member.weight_number());
      HOLDS(read.members.at(member.name).ipv6 == member.ipv6);
    }
  }
  const Options& options = *model.options;
  HOLDS(options.bird2_routes == view.options.bird2_routes);
  HOLDS(options.linux_discovery == view.options.linux_discovery);
  HOLDS(options.wire_replies == view.options.wire_replies);
  HOLDS(options.keeps_last_routes == view.options.keeps_last_routes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ExactCopy copy({data, size});
  const std::string text(copy.text());
  const Findings findings = check_text(text, nullptr);
  check_places(text, findings);
  HOLDS(!findings.has("reader-message"));
  findings_text("file", findings, false);
  if (!findings.empty()) return 0;
  const auto configuration = load_configuration_text(text, "file");
  HOLDS(configuration->complete && configuration->messages.empty());
  check_same(text, *configuration);
  return 0;
}
