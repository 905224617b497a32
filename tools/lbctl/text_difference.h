// The difference of two texts, as diff -u writes it.
#pragma once

#include <string>
#include <string_view>

namespace lbctl {

// Empty when the texts are the same. The names stand behind "--- " and "+++ ".
std::string unified_difference(std::string_view old_text, std::string_view new_text,
                               const std::string& old_name, const std::string& new_name);

}  // namespace lbctl
