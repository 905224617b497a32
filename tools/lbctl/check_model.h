// The rules of lbctl check about what the configuration says: interfaces and tests, rules, names.
#pragma once

#include "lbctl/check_view.h"

namespace lbctl {

void check_interfaces(const View& view, Findings& findings);  // and their tests
void check_rules(const View& view, Findings& findings);
void check_names(const View& view, Findings& findings);

// True when a rule of its VRF has the interface as a member.
bool is_used(const View& view, const InterfaceView& interface);

}  // namespace lbctl
