// The routing daemon's own opinion about a file of routes.
#pragma once

#include <string>

namespace lbctl {

struct BirdVerdict {
  bool is_installed = false;
  bool accepts = false;
  std::string words;  // what it says about what it refuses; FILE:LINE:COLUMN first
};

// Where to look for it: PATH, and the directories that only administrators have in theirs.
std::string bird_directories();

// Has BIRD 2 parse a configuration that holds `text`, without using it (bird -p). `name` stands for
// the file in its words. A Failure (kExitUnreadable) when it cannot be run.
BirdVerdict ask_bird(const std::string& text, const std::string& name,
                     const std::string& directories = bird_directories());

}  // namespace lbctl
