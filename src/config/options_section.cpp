#include "config/options_section.h"

#include <string_view>

#include "config/log.h"

namespace {

constexpr int kOptionDepth = 1;

struct Option {
  std::string_view name;
  std::string_view value;  // the only one; empty: the option stands alone
  bool Options::*on;
};

constexpr Option kOptions[] = {
    {"routing-daemon", "bird2", &Options::bird2_routes},
    {"discovery", "linux", &Options::linux_discovery},
    {"replies", "wire", &Options::wire_replies},
    {"keep-last-routes", "", &Options::keeps_last_routes},
};

// "options {" itself and the brackets that close blocks.
bool is_frame(const ConfigLine& line) {
  return line.key.empty() || (line.opens_block && line.depth == kOptionDepth &&
                              line.key == line.section() && line.value.empty());
}

}  // namespace

void apply_option(const ConfigLine& line, Options& options) {
  if (is_frame(line)) return;
  const char* const key = line.key.c_str();
  const char* const value = line.value.c_str();
  if (line.depth != kOptionDepth || line.opens_block) {
    LB_ERROR("wan_lb: misplaced option in line %d of the configuration file: %s %s",
             line.line_number, key, value);
    return;
  }
  for (const Option& option : kOptions) {
    if (line.key != option.name) continue;
    if (line.value == option.value) {
      options.*option.on = true;
    } else {
      LB_ERROR("wan_lb: illegal value in line %d of the configuration file: %s %s",
               line.line_number, key, value);
    }
    return;
  }
  LB_ERROR("wan_lb: unknown option in line %d of the configuration file: %s %s", line.line_number,
           key, value);
}
