#include "lbctl/check_grammar.h"

namespace lbctl {

namespace {

using enum Context;
using enum ValueKind;

constexpr Keyword kKeywords[] = {
    {"options", kFile, ValueKind::kNone, true, true, kOptions},
    {"health", kFile, ValueKind::kNone, true, true, kHealth},
    {"rule", kFile, kText, true, true, kRule},
    {"routing-daemon", kOptions, kText, false, false},
    {"discovery", kOptions, kText, false, false},
    {"replies", kOptions, kText, false, false},
    {"keep-last-routes", kOptions, ValueKind::kNone, false, false},
    {"interface", kHealth, kText, true, true, kInterface},
    {"interface6", kHealth, kText, true, true, kInterface},
    {"origin", kInterface, kText, false, false},
    {"success-ct", kInterface, kNumber, false, false},
    {"failure-ct", kInterface, kNumber, false, false},
    {"hold-down", kInterface, kText, false, false},  // bad-option tells of its number
    {"nexthop", kInterface, kText, false, false},
    {"lease-file", kInterface, kText, false, false},
    {"source_address", kInterface, kText, false, false},
    {"namespace", kInterface, kText, false, false},
    {"check_all", kInterface, ValueKind::kNone, false, false},
    {"test", kInterface, kNumber, true, true, kTest},
    {"type", kTest, kText, true, false, kType},
    {"target", kTest, kText, false, false},
    {"resp-time", kTest, kNumber, false, false},
    {"period", kTest, kNumber, false, false},
    {"count", kTest, kNumber, false, false},
    {"timeout", kTest, kNumber, false, false},
    {"loss", kTest, kNumber, false, false},
    {"rtt", kTest, kNumber, false, false},
    {"jitter", kTest, kNumber, false, false},
    {"target", kType, kText, false, false},
    {"resp-time", kType, kNumber, false, false},
    {"period", kType, kNumber, false, false},
    {"count", kType, kNumber, false, false},
    {"timeout", kType, kNumber, false, false},
    {"loss", kType, kNumber, false, false},
    {"rtt", kType, kNumber, false, false},
    {"jitter", kType, kNumber, false, false},
    {"interface", kRule, kText, true, true, kMember},
    {"interface6", kRule, kText, true, true, kMember},
    {"target", kRule, ValueKind::kNone, true, true, kTarget},
    {"failover", kRule, ValueKind::kNone, false, false},
    {"namespace", kRule, kText, false, false},
    {"weight", kMember, kNumber, false, false},
    {"address", kTarget, kText, false, false},
    {"metric", kTarget, kNumber, false, false},
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
