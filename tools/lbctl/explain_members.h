// Who carries a rule's routes, and why the others do not.
#pragma once

#include <string>
#include <vector>

#include "lbctl/explain_situation.h"

namespace lbctl {

struct Carrier {
  std::string label;    // "wan1/6"
  std::string address;  // next hop
};

struct MemberReport {
  std::vector<Carrier> carriers;
  std::vector<std::string> sentences;  // one per member
  std::string next_step;               // where nobody carries
  bool is_complete = true;             // false: a member could not be told
};

// For the worker of the rule's own family.
MemberReport report_members(const Situation& situation, const RuleDump& rule);

}  // namespace lbctl
