// The known word that was most likely meant.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace lbctl {

// Of the words the one that takes the fewest single changes (a character added, left out, replaced,
// or two neighbours exchanged) from `word`; capital letters and "_" for "-" cost nothing. Empty
// when even that one is not alike.
std::string nearest_word(std::string_view word, const std::vector<std::string_view>& words);

}  // namespace lbctl
