// The rules of lbctl check about blocks, keywords, and the values that they take.
#pragma once

#include <vector>

#include "lbctl/check_outline.h"

namespace lbctl {

void check_syntax(const std::vector<Node>& nodes, Findings& findings);

}  // namespace lbctl
