#include "lbctl/check_syntax.h"

#include <charconv>
#include <string_view>

#include <fmt/format.h>

#include "lbctl/check_nearest_word.h"
#include "lbctl/check_values.h"

namespace lbctl {

namespace {

std::string joined(const std::vector<std::string_view>& words) {
  return fmt::format("{}", fmt::join(words, ", "));
}

std::string did_you_mean(const std::string& word, const std::vector<std::string_view>& known) {
  const std::string nearest = nearest_word(word, known);
  if (!nearest.empty()) return fmt::format("did you mean '{}'?", nearest);
  return "known here: " + joined(known);
}

// What the reader does with a line of a rule that it has no keyword for.
std::string fate(const Node& node) {
  const bool starts_rule = node.context == Context::kRule;
  if (starts_rule && read_number(node.value).value > 0) {
    return fmt::format("the daemon takes the line for the start of a rule '{}'", node.value);
  }
  if (starts_rule) return "the daemon logs an illegal rule number and passes over it";
  if (node.context == Context::kInterface && node.is_block) {
    return "the daemon takes the block for a test";
  }
  return "the daemon passes over it";
}

void tell_unknown(const Node& node, Findings& findings) {
  const std::string& word = node.key.text;
  if (node.context == Context::kOptions) {
    findings.add(node.place(), "bad-option",
                 fmt::format("'{}' is no option: the daemon logs it and goes on without", word),
                 did_you_mean(word, words_of(node.context)));
    return;
  }
  const Context home = home_of(word);
  if (home != Context::kUnknown) {
    findings.add(
        node.place(), "wrong-depth",
        fmt::format("'{}' does not belong in {}: {}", word, name_of(node.context), fate(node)),
        fmt::format("it belongs in {}; look for a bracket too many or too few before it",
                    name_of(home)));
  } else if (node.context == Context::kFile) {
    findings.add(node.place(), "unknown-section",
                 fmt::format("there is no section '{}': the daemon passes over it with all that is "
                             "in it",
                             word),
                 did_you_mean(word, words_of(node.context)));
  } else {
    findings.add(
        node.place(), "unknown-keyword",
        fmt::format("there is no keyword '{}' in {}: {}", word, name_of(node.context), fate(node)),
        did_you_mean(word, words_of(node.context)));
  }
}

// The values of options: "" for the one that stands alone.
struct OptionValue {
  std::string_view name;
  std::string_view value;
};
constexpr OptionValue kOptionValues[] = {{"routing-daemon", "bird2"},
                                         {"discovery", "linux"},
                                         {"replies", "wire"},
                                         {"keep-last-routes", ""}};

void check_option(const Node& node, Findings& findings) {
  for (const auto& [name, value] : kOptionValues) {
    if (node.key.text != name) continue;
    if (node.is_block) {
      findings.add(node.place(), "bad-option",
                   fmt::format("'{}' opens no block: the daemon logs it and goes on without", name),
                   "write options one on a line, without brackets of their own");
    } else if (node.value != value) {
      findings.add(node.value_place, "bad-option",
                   fmt::format("'{}' is no value of '{}': the daemon logs it and goes on without",
                               node.value, name),
                   value.empty() ? fmt::format("'{}' stands alone", name)
                                 : fmt::format("its only value is '{}'", value));
    }
    return;
  }
}

void check_hold_down(const Node& node, Findings& findings) {
  int32_t seconds = 0;
  const std::string& text = node.value;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  if (error == std::errc() && stop == end && seconds >= 0) return;
  findings.add(node.value_place, "bad-option",
               fmt::format("'{}' is no time for 'hold-down': the daemon logs it and holds nothing "
                           "down",
                           text),
               "write whole seconds, digits alone, 2147483647 at most");
}

void check_lease_file(const Node& node, Findings& findings) {
  if (node.value.starts_with('/')) return;
  findings.add(
      node.value_place, "bad-option",
      fmt::format("'{}' is no whole path of a 'lease-file': where the daemon looks depends "
                  "on where it was started",
                  node.value),
      "write the path from '/' on");
}

void check_number(const Node& node, Findings& findings) {
  const std::string& key = node.key.text;
  const Number number = read_number(node.value);
  if (!number.has_digits) {
    findings.add(node.value_place, "bad-number",
                 node.value.empty() ? fmt::format("'{}' has no number: the daemon takes 0", key)
                                    : fmt::format("'{}' of '{}' is no number: the daemon takes 0",
                                                  node.value, key),
                 "write a whole number");
    return;
  }
  if (number.has_rest) {
    findings.add(node.value_place, "bad-number",
                 fmt::format("'{}' of '{}' does not end with its number: the daemon takes what "
                             "stands before the first other character",
                             node.value, key),
                 "write the number alone, without a unit");
    return;
  }
  if (key == "metric") return;  // what it can be is up to the routing daemon
  const bool counts = key == "success-ct" || key == "failure-ct" || key == "weight";
  const int64_t least = key == "test" ? INT32_MIN : counts || key == "count" ? 1 : 0;
  // The time between two bursts is counted in milliseconds of 32 bits.
  const int64_t most = key == "period" ? INT32_MAX / 1000 : INT32_MAX;
  if (number.fits && number.value >= least && number.value <= most) return;
  const char* const effect =
      !number.fits          ? "the daemon keeps its low 32 bits only"
      : key == "weight"     ? "the daemon refuses it, and the interface carries nothing"
      : counts              ? "the daemon refuses it, and the default stays"
      : number.value > most ? "the daemon takes another time for it"
      : key == "count"      ? "every burst fails without a request"
                            : "the daemon takes it as it is, which no test can meet";
  findings.add(node.value_place, "out-of-range",
               fmt::format("'{}' is out of the range of '{}': {}", node.value, key, effect),
               fmt::format("write a number from {} to {}", least, most));
}

void check_value(const Node& node, Findings& findings) {
  const std::string& key = node.key.text;
  if (key == "hold-down") return check_hold_down(node, findings);
  if (key == "lease-file") return check_lease_file(node, findings);
  switch (node.keyword->value) {
    case ValueKind::kNumber:
      return check_number(node, findings);
    case ValueKind::kText:
      if (node.value.empty() && key != "rule") {
        findings.add(node.place(), "missing-value",
                     fmt::format("'{}' has no value: the daemon {}", key,
                                 key == "interface" || key == "interface6"
                                     ? "takes the block for a part of what was read before it"
                                     : "takes an empty text"),
                     fmt::format("write '{} VALUE', or take the line away", key));
      }
      return;
    case ValueKind::kNone:
      if (!node.value.empty()) {
        findings.add(
            node.value_place,
            node.context == Context::kFile && key == "options" ? "bad-option" : "extra-text",
            fmt::format("'{}' takes no value: the daemon passes over '{}'{}", key, node.value,
                        node.keyword->must_open ? "" : ", and the keyword is in force"),
            "take the word away, or the whole line where it is not wanted");
      }
      return;
  }
}

void check_node(const Node& node, Findings& findings) {
  if (node.key.is_brace() && !node.key.in_quotes) return;  // a block without keyword: was told
  if (node.keyword == nullptr) return tell_unknown(node, findings);
  if (node.context == Context::kOptions) return check_option(node, findings);
  check_value(node, findings);
  if (node.is_block && !node.keyword->may_open) {
    findings.add(
        node.place(), "brackets",
        fmt::format("'{}' opens no block: the daemon does not see the keyword", node.key.text),
        "take the brackets away");
    return;
  }
  check_syntax(node.children, findings);
}

}  // namespace

void check_syntax(const std::vector<Node>& nodes, Findings& findings) {
  for (const Node& node : nodes) check_node(node, findings);
}

}  // namespace lbctl
