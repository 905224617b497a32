// Where measurements write; gone with the program.
#pragma once

#include <cstdint>
#include <string>

inline constexpr int32_t kWallClock = 1'700'000'000;

// A path in the scratch directory.
std::string scratch_path(const std::string& name);

void write_scratch(const std::string& name, const std::string& text);
