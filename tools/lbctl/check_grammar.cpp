#include "lbctl/check_grammar.h"

namespace lbctl {

namespace {

using enum Context;
using enum ValueKind;

constexpr Keyword kKeywords[] = {
    {kFile, "options", ValueKind::kNone, true, true, kOptions},
    {kFile, "health", ValueKind::kNone, true, true, kHealth},
    {kFile, "rule", kText, true, true, kRule},
    {kOptions, "routing-daemon", kText, false, false},
    {kOptions, "discovery", kText, false, false},
    {kOptions, "replies", kText, false, false},
    {kOptions, "keep-last-routes", ValueKind::kNone, false, false},
    {kHealth, "interface", kText, true, true, kInterface},
    {kHealth, "interface6", kText, true, true, kInterface},
    {kInterface, "origin", kText, false, false},
    {kInterface, "success-ct", kNumber, false, false},
    {kInterface, "failure-ct", kNumber, false, false},
    {kInterface, "hold-down", kText, false, false},  // bad-option tells of its number
    {kInterface, "nexthop", kText, false, false},
    {kInterface, "lease-file", kText, false, false},
    {kInterface, "source_address", kText, false, false},
    {kInterface, "namespace", kText, false, false},
    {kInterface, "check_all", ValueKind::kNone, false, false},
    {kInterface, "test", kNumber, true, true, kTest},
    {kTest, "type", kText, true, false, kType},
    {kTest, "target", kText, false, false},
    {kTest, "resp-time", kNumber, false, false},
    {kTest, "period", kNumber, false, false},
    {kTest, "count", kNumber, false, false},
    {kTest, "timeout", kNumber, false, false},
    {kTest, "loss", kNumber, false, false},
    {kTest, "rtt", kNumber, false, false},
    {kTest, "jitter", kNumber, false, false},
    {kType, "target", kText, false, false},
    {kType, "resp-time", kNumber, false, false},
    {kType, "period", kNumber, false, false},
    {kType, "count", kNumber, false, false},
    {kType, "timeout", kNumber, false, false},
    {kType, "loss", kNumber, false, false},
    {kType, "rtt", kNumber, false, false},
    {kType, "jitter", kNumber, false, false},
    {kRule, "interface", kText, true, true, kMember},
    {kRule, "interface6", kText, true, true, kMember},
    {kRule, "target", ValueKind::kNone, true, true, kTarget},
    {kRule, "failover", ValueKind::kNone, false, false},
    {kRule, "namespace", kText, false, false},
    {kMember, "weight", kNumber, false, false},
    {kTarget, "address", kText, false, false},
    {kTarget, "metric", kNumber, false, false},
};

}  // namespace

std::span<const Keyword> check_keywords() { return kKeywords; }

const Keyword* find_keyword(Context context, std::string_view word) {
  for (const Keyword& keyword : kKeywords) {
    if (keyword.context == context && keyword.word == word) return &keyword;
  }
  return nullptr;
}

std::vector<std::string_view> words_of(Context context) {
  std::vector<std::string_view> words;
  for (const Keyword& keyword : kKeywords) {
    if (keyword.context == context) words.push_back(keyword.word);
  }
  return words;
}

std::string_view name_of(Context context) {
  switch (context) {
    case kFile:
      return "the file, outside of all blocks";
    case kOptions:
      return "the section options";
    case kHealth:
      return "the section health";
    case kInterface:
      return "an interface of the section health";
    case kTest:
      return "a test";
    case kType:
      return "the type block of a test";
    case kRule:
      return "a rule";
    case kMember:
      return "an interface of a rule";
    case kTarget:
      return "a rule's target";
    case kUnknown:
      break;
  }
  return "a block that the daemon does not know";
}

Context home_of(std::string_view word) {
  for (const Keyword& keyword : kKeywords) {
    if (keyword.word == word) return keyword.context;
  }
  return kUnknown;
}

}  // namespace lbctl
