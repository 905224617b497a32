// Dump files of any bytes. The first byte says which file it is; what is taken from it is shown in
// every way that there is.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "lbctl/dumps.h"
#include "lbctl/metrics_text.h"
#include "lbctl/status_json.h"
#include "lbctl/status_text.h"
#include "output/dump_format.h"
#include "support/bytes.h"
#include "support/property.h"

namespace {

using lbctl::Dumps;
using lbctl::Status;
using lbctl::TextLine;

bool is_shorter(const std::string& text, size_t size) { return text.size() < size; }

bool is_plain(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char character) {
    return character == '\n' || (character >= 0x20 && character < 0x7F);
  });
}

// Either nothing was taken, or all.
template <class Value>
void check_parsed(const lbctl::Parsed<Value>& parsed, size_t bytes, size_t record) {
  if (!parsed.error.empty()) {
    HOLDS(parsed.values.empty());
  } else {
    HOLDS(parsed.values.size() * record == bytes);
  }
}

void check_fields(const Dumps& dumps) {
  for (const auto& interface : dumps.interfaces) {
    HOLDS(!interface.name.empty() && is_shorter(interface.name, kDumpNameSize));
    HOLDS(is_shorter(interface.vrf, kDumpVrfSize));
    HOLDS(is_shorter(interface.nexthop, kDumpAddressSize));
    HOLDS(interface.tests.size() <= kDumpMaxTests);
    HOLDS(interface.success_ct > 0 && interface.failure_ct > 0);
    for (const auto& test : interface.tests) HOLDS(test.result >= 0 && test.result <= 2);
  }
  for (const auto& rule : dumps.rules) {
    HOLDS(rule.number > 0 && rule.members.size() <= kDumpMaxMembers);
    for (const auto& route : rule.routes)
      HOLDS(route.index > 0 && route.index <= static_cast<int32_t>(kDumpMaxRoutes));
  }
}

// A kernel that has a route to each destination, by whatever a rule of it names.
lbctl::TableReader kernel_of(const Dumps& dumps) {
  return [&dumps](const std::string& vrf, bool ipv6) {
    std::vector<lbctl::KernelRoute> table;
    for (const auto& rule : dumps.rules) {
      for (const auto& route : rule.routes) {
        table.push_back(
            {lbctl::canonical_destination(route.destination, ipv6),
             0,
             12,
             {{route.nexthop, rule.members.empty() ? vrf : rule.members[0].device, 1}}});
      }
    }
    return table;
  };
}

void check_shown(const Dumps& dumps) {
  const Status status = lbctl::make_status(dumps, {}, 1000, kernel_of(dumps));
  HOLDS(status.interfaces.size() == dumps.interfaces.size());
  const std::vector<TextLine> lines = lbctl::status_text(status);
  for (const TextLine& line : lines) HOLDS(line.text().size() <= lbctl::kTableWidth);
  HOLDS(is_plain(lbctl::joined(lines, false)));
  const std::string document =
      lbctl::status_document(status).dump(-1, ' ', false, lbctl::Json::error_handler_t::replace);
  HOLDS(nlohmann::json::accept(document));

  const std::string text = lbctl::metrics_text(dumps, {}, lbctl::Samples{});
  HOLDS(is_plain(text));
  const lbctl::Samples samples = lbctl::read_samples(text);
  const auto lines_of_samples = [&text] {
    size_t count = 0;
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) count += text[at] != '#';
    return count;
  };
  HOLDS(samples.size() == lines_of_samples());  // no series is there twice
  // The same state again changes nothing.
  const std::string again = lbctl::metrics_text(dumps, {}, samples);
  HOLDS(again == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  const auto kind = take<uint8_t>(bytes);
  const ExactCopy file(bytes);
  Dumps dumps;
  if (kind % 4 < 2) {
    auto parsed = lbctl::parse_outbounds(file.bytes(), kind % 4 == 1);
    check_parsed(parsed, bytes.size(), sizeof(DumpOutbound));
    dumps.interfaces = std::move(parsed.values);
  } else if (kind % 4 == 2) {
    auto parsed = lbctl::parse_rules(file.bytes());
    check_parsed(parsed, bytes.size(), sizeof(DumpRule));
    dumps.rules = std::move(parsed.values);
  } else {
    auto parsed = lbctl::parse_routes(file.bytes());
    check_parsed(parsed, bytes.size(), sizeof(DumpRoute));
    dumps.rules.resize(1);
    dumps.rules[0].vrf = "default";
    for (const auto& route : parsed.values) {
      dumps.rules[0].number = route.rule_number;
      dumps.rules[0].ipv6 = route.ipv6;
    }
    dumps.rules[0].failover = true;
    dumps.rules[0].members = {{"eth0", 1, dumps.rules[0].ipv6}};
    lbctl::join_routes(dumps.rules, std::move(parsed.values));
    if (dumps.rules[0].number == 0) dumps.rules.clear();
  }
  check_fields(dumps);
  check_shown(dumps);
  return 0;
}
