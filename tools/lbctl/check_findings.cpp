#include "lbctl/check_findings.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "lbctl/command.h"

namespace lbctl {

namespace {

constexpr Severity kError = Severity::kError;
constexpr Severity kWarning = Severity::kWarning;

constexpr CodeEntry kCodes[] = {
    // The file as such.
    {"not-a-file", kError},
    {"byte-order-mark", kError},
    {"carriage-returns", kError},
    {"nul-byte", kError},
    {"long-line", kWarning},
    {"brace-in-comment-cut", kWarning},
    // Blocks, keywords and their values.
    {"unknown-section", kError},
    {"unknown-keyword", kError},
    {"unknown-type", kError},
    {"wrong-depth", kError},
    {"brace-alone", kError},
    {"brackets", kError},
    {"text-on-block-line", kError},
    {"extra-text", kError},
    {"missing-value", kError},
    {"unbalanced-quote", kError},
    {"bad-number", kError},
    {"out-of-range", kError},
    {"bad-option", kError},
    {"given-twice", kWarning},
    // Names.
    {"bad-rule-name", kError},
    {"not-dumpable", kError},
    {"name-too-long", kWarning},
    {"unsafe-name", kWarning},
    // Interfaces and their tests.
    {"bad-address", kError},
    {"not-canonical", kError},
    {"wrong-family", kError},
    {"no-nexthop", kError},
    {"too-early", kError},
    {"bad-timeout", kError},
    {"unused-keyword", kWarning},
    {"host-name", kWarning},
    {"loss-zero", kWarning},
    {"limit-zero", kWarning},
    {"duplicate-test", kWarning},
    {"test-without-type", kWarning},
    {"resp-time-zero", kWarning},
    {"same-target-twice", kWarning},
    {"slow-detection", kWarning},
    {"too-many", kWarning},
    // Rules.
    {"no-such-interface", kError},
    {"other-vrf", kError},
    {"bad-prefix", kError},
    {"weight-too-large", kError},
    {"no-weight", kError},
    {"empty-rule", kWarning},
    {"unused-interface", kWarning},
    {"unserved", kWarning},
    {"duplicate-destination", kWarning},
    {"failover-tie", kWarning},
    {"metric", kWarning},
    {"not-for-bird2", kWarning},
    // The machine.
    {"no-such-vrf", kWarning},
    {"no-such-device", kWarning},
    {"raw-ipv6", kWarning},
    {"rp-filter", kWarning},
    {"shadowed-default", kWarning},
    {"not-included", kWarning},
    // What the daemon logs and nothing above has told.
    {"reader-message", kError},
};

const char* word_of(Severity severity) { return severity == kError ? "error" : "warning"; }

}  // namespace

std::span<const CodeEntry> check_codes() { return kCodes; }

Severity severity_of(std::string_view code) {
  const auto* const found = std::find_if(std::begin(kCodes), std::end(kCodes),
                                         [code](const auto& entry) { return entry.code == code; });
  if (found == std::end(kCodes)) throw std::logic_error("unknown code " + std::string(code));
  return found->severity;
}

void Findings::add(Place place, std::string_view code, std::string text, std::string hint) {
  // Those of a code table live as long as the program.
  severity_of(code);
  findings_.push_back({place, code, std::move(text), std::move(hint)});
}

bool Findings::has(std::string_view code) const {
  return std::any_of(findings_.begin(), findings_.end(),
                     [code](const Finding& finding) { return finding.code == code; });
}

void Findings::sort() {
  std::stable_sort(findings_.begin(), findings_.end(),
                   [](const Finding& a, const Finding& b) { return a.place < b.place; });
}

std::string findings_text(const std::string& path, const Findings& findings, bool colour) {
  std::string text;
  for (const Finding& finding : findings.all()) {
    const Severity severity = severity_of(finding.code);
    text += fmt::format(
        "{}:{}:{}: {}: {} [{}]\n    {}\n", printable(path), finding.place.line,
        finding.place.column,
        coloured(word_of(severity), severity == kError ? Colour::kRed : Colour::kYellow, colour),
        printable(finding.text), finding.code, printable(finding.hint));
  }
  return text;
}

void append_findings(const std::string& path, const Findings& findings, Json& array) {
  for (const Finding& finding : findings.all()) {
    array.push_back({{"file", path},
                     {"line", finding.place.line},
                     {"column", finding.place.column},
                     {"severity", word_of(severity_of(finding.code))},
                     {"code", finding.code},
                     {"text", finding.text},
                     {"hint", finding.hint}});
  }
}

int check_status(const Findings& findings, bool strict) {
  if (findings.empty()) return kExitOk;
  if (findings.has("not-a-file")) return kExitUnreadable;
  const bool has_error = std::any_of(
      findings.all().begin(), findings.all().end(),
      [](const Finding& finding) { return severity_of(finding.code) == Severity::kError; });
  return has_error || strict ? 2 : 1;
}

}  // namespace lbctl
