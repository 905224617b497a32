// A configuration as it is meant: blocks in blocks, whatever brackets are missing or misplaced.
#pragma once

#include <string>
#include <vector>

#include "lbctl/check_grammar.h"
#include "lbctl/check_lines.h"

namespace lbctl {

// A line with a keyword, and the block that it opens.
struct Node {
  Word key;
  std::string value;  // empty where there is none
  Place value_place;  // the keyword's where there is none
  bool is_block = false;
  Context context = Context::kFile;  // that the line stands in
  const Keyword* keyword = nullptr;  // null: the context has none of that name
  std::vector<Node> children;

  Place place() const { return key.place; }
  Context inside() const { return keyword == nullptr ? Context::kUnknown : keyword->inside; }
};

// The nodes outside of all blocks. Tells of brackets, of text beside them, and of values that are
// missing, too many, or badly quoted.
std::vector<Node> read_outline(const std::vector<ReadLine>& lines, Findings& findings);

}  // namespace lbctl
