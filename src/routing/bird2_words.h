// The words that BIRD 2 keeps for itself.
#pragma once

#include <string_view>

// True for a word that BIRD 2.0.12 refuses as a device's name, in quotes too.
bool is_bird2_word(std::string_view text);
