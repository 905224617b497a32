// The reader of the configuration file: lines, blocks, and one keyword dispatch per line.
#pragma once

#include <array>
#include <set>
#include <string>

#include "config/lb_config.h"
#include "config/test_settings.h"

// Fills one LBConfig and notes every VRF name that a "namespace" keyword gave. One thread only.
class ConfigReader {
 public:
  // All three are used until the reader goes; none is owned.
  ConfigReader(LBConfig& config, std::set<std::string>& namespaces, const TestFactory& factory);

  // Reads the file at `path`. False when it cannot be opened or its brackets do not match (logged):
  // what was read until then stays in the model, but tests by default are not added.
  bool read_config(const std::string& path);

 private:
  static constexpr int kMaxDepth = 31;
  using BlockStack = std::array<std::string, kMaxDepth + 1>;
  // To be completed by the implementation.
};
