// Which keywords the blocks of a configuration have.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace lbctl {

// What a line stands in.
enum class Context {
  kFile,
  kOptions,
  kHealth,
  kInterface,
  kTest,
  kType,
  kRule,
  kMember,
  kTarget,
  kUnknown,  // a block that the daemon has no use for
};

enum class ValueKind { kNone, kText, kNumber };

struct Keyword {
  std::string_view word;
  Context context;
  ValueKind value;
  bool may_open;                       // may begin a block
  bool must_open;                      // only as the beginning of a block
  Context inside = Context::kUnknown;  // of the block
};

std::span<const Keyword> check_keywords();

// Null when the context has no such keyword.
const Keyword* find_keyword(Context context, std::string_view word);

// Those of the context.
std::vector<std::string_view> words_of(Context context);

// For texts: "a rule", "the section health".
std::string_view name_of(Context context);

// The context that has the keyword, of several the first; kUnknown when none has.
Context home_of(std::string_view word);

}  // namespace lbctl
