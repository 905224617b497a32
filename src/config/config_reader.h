// The reader of the configuration file: lines, blocks, and one keyword dispatch per line.
//
// The file is a tree of blocks in curly brackets. A line is a keyword, perhaps a value, perhaps
// brackets; it belongs to the depth that holds after its brackets, so the line that opens a block
// already belongs to that block. What the keywords do is up to the sections (health_section.h,
// rule_section.h, options_section.h); unknown sections and keywords are ignored.
#pragma once

#include <cstdio>
#include <set>
#include <string>

#include "config/config_line.h"
#include "config/health_section.h"
#include "config/health_test.h"
#include "config/lb_config.h"
#include "config/rule_section.h"

// Fills one LBConfig and notes every VRF name that a "namespace" keyword gave. One thread only.
class ConfigReader {
 public:
  // All three are used until the reader goes; none is owned.
  ConfigReader(LBConfig& config, std::set<std::string>& namespaces, const TestFactory& factory);

  // Reads the file at `path`. False when it cannot be opened or its brackets do not match (logged):
  // what was read until then stays in the model, but tests by default are not added.
  bool read_config(const std::string& path);

 private:
  bool read_lines(FILE* file);

  // One line without its comment. False when the brackets leave the range that the stack has.
  bool read_line(const std::string& line);

  void dispatch_line(const ConfigLine& line);

  // Notes the keyword of the present depth; nothing where the depth is out of range.
  void set_block(const std::string& key);
  bool depth_in_range() const { return depth_ >= 0 && depth_ <= kMaxBlockDepth; }

  HealthSection health_;
  RuleSection rules_;
  Options& options_;
  BlockStack blocks_;
  int depth_ = 0;
  int line_number_ = 0;
};
