#include "config/config_reader.h"

#include <cstring>
#include <memory>
#include <utility>

#include "config/log.h"
#include "config/options_section.h"
#include "config/tokens.h"

namespace {

// A line of more characters than fit (less the terminating zero) counts as several lines.
constexpr int kLineBuffer = 1024;

// The text between the first and the last double quote. With one quote only, all that follows it.
std::string quoted_text(const std::string& line) {
  const size_t first = line.find('"');
  size_t last = line.rfind('"');
  if (last == first) last = line.find_last_not_of('\n') + 1;
  return line.substr(first + 1, last - first - 1);
}

}  // namespace

ConfigReader::ConfigReader(LBConfig& config, std::set<std::string>& namespaces,
                           const TestFactory& factory)
    : health_(config, namespaces, factory), rules_(config, namespaces), options_(*config.options) {}

bool ConfigReader::read_config(const std::string& path) {
  const auto close_file = [](FILE* file) { fclose(file); };
  const std::unique_ptr<FILE, decltype(close_file)> file(fopen(path.c_str(), "re"));
  if (file == nullptr) {
    LB_ERROR("wan_lb: configuration file not found: %s", path.c_str());
    return false;
  }
  if (!read_lines(file.get())) return false;
  health_.add_default_tests();
  return true;
}

bool ConfigReader::read_lines(FILE* file) {
  blocks_.fill("");
  depth_ = 0;
  line_number_ = 1;
  char buffer[kLineBuffer];
  bool line_ended = false;
  while (fgets(buffer, sizeof(buffer), file) != nullptr) {
    if (line_ended) ++line_number_;
    line_ended = strchr(buffer, '\n') != nullptr;
    buffer[strcspn(buffer, "#")] = '\0';
    if (!read_line(buffer)) {
      LB_WARNING("Malformed configuration file: brackets");
      return false;
    }
  }
  if (depth_ != 0) {
    LB_WARNING("Configuration error due to mismatched brackets");
    return false;
  }
  return true;
}

bool ConfigReader::read_line(const std::string& line) {
  const std::vector<std::string> tokens = split_tokens(line, ' ');
  if (tokens.empty()) return true;
  const bool quoted = line.find('"') != std::string::npos;
  bool opens_block = false;
  std::string key;
  std::string value;
  for (const std::string& token : tokens) {
    if (token == "{") {
      ++depth_;
      opens_block = true;
    } else if (token == "}") {
      set_block("");
      --depth_;
    } else {
      if (key.empty()) {
        key = token;
      } else if (value.empty()) {
        value = quoted ? quoted_text(line) : token;
      }
      set_block(key);
    }
  }
  dispatch_line({blocks_, depth_, opens_block, std::move(key), std::move(value), line_number_});
  return depth_in_range();
}

void ConfigReader::dispatch_line(const ConfigLine& line) {
  if (line.section() == "health") {
    health_.apply(line);
  } else if (line.section() == "rule") {
    rules_.apply(line);
  } else if (line.section() == "options") {
    apply_option(line, options_);
  }
}

void ConfigReader::set_block(const std::string& key) {
  if (depth_in_range()) blocks_[static_cast<size_t>(depth_)] = key;
}
