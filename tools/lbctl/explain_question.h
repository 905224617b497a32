// What is asked of `lbctl explain`, and its answer.
#pragma once

#include <ctime>
#include <string>

#include "lbctl/explain_situation.h"

namespace lbctl {

struct ExplainRequest {
  std::string subject;        // an interface's label, a prefix, or nothing: all that is not well
  std::string configuration;  // empty: the usual one where it is there
  std::string output_directory;
};

struct Answer {
  bool is_well = false;
  std::string text;
};

// Puts the states of the dumps into the configuration's model.
void take_over_states(const Dumps& dumps, LBConfig& model);

// The same from what was read. A Failure (kExitUsage) for a subject that nobody knows.
Answer answer(const Situation& situation, const std::string& subject, std::time_t now);

// The exit status.
int run_explain(const ExplainRequest& request);

}  // namespace lbctl
