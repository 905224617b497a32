#include "lbctl/bird_configuration.h"

#include <glob.h>
#include <sys/stat.h>

#include <sstream>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "platform/file_descriptor.h"
#include "platform/places.h"
#include "platform/regular_file.h"
#include "routing/routing_daemon.h"

namespace lbctl {

namespace {

constexpr const char* kDebiansConfiguration = "/etc/bird/bird.conf";
constexpr size_t kLargestConfiguration = size_t{16} << 20;
constexpr int kDeepestInclude = 8;  // of BIRD itself
constexpr std::string_view kWhite = " \t\r\v\f";

std::optional<std::string> text_of_file(const std::string& path) {
  const FileDescriptor file = open_to_read(path);
  if (!file.valid() || !is_regular_file(file)) return std::nullopt;
  return read_up_to(file, kLargestConfiguration);
}

// What a line includes: BIRD takes the word at a line's beginning only. `end` becomes where that
// part of the line ends.
std::optional<std::string> included_by(std::string_view line, size_t& end) {
  constexpr std::string_view kInclude = "include";
  const size_t word = line.find_first_not_of(kWhite);
  if (word == std::string_view::npos || !line.substr(word).starts_with(kInclude)) return {};
  const size_t quote = line.find_first_not_of(kWhite, word + kInclude.size());
  if (quote == std::string_view::npos || line[quote] != '"') return {};
  const size_t close = line.find('"', quote + 1);
  if (close == std::string_view::npos) return {};
  end = close + 1;
  return std::string(line.substr(quote + 1, close - quote - 1));
}

// Whether a comment ("/*") that began on an earlier line, or in this one, goes on in the next line.
bool leaves_comment_open(std::string_view line, bool in_comment) {
  bool in_text = false;
  for (size_t at = 0; at < line.size(); ++at) {
    const std::string_view rest = line.substr(at);
    if (in_comment) {
      if (!rest.starts_with("*/")) continue;
      in_comment = false;
      ++at;
    } else if (line[at] == '"') {
      in_text = !in_text;
    } else if (in_text) {
      continue;
    } else if (line[at] == '#') {
      break;
    } else if (rest.starts_with("/*")) {
      in_comment = true;
      ++at;
    }
  }
  return in_comment;
}

std::vector<std::string> includes_of(const std::string& text) {
  std::vector<std::string> patterns;
  std::istringstream lines(text);
  bool in_comment = false;
  for (std::string line; std::getline(lines, line);) {
    size_t begin = 0;
    if (!in_comment) {
      if (const auto pattern = included_by(line, begin)) patterns.push_back(*pattern);
    }
    in_comment = leaves_comment_open(std::string_view(line).substr(begin), in_comment);
  }
  return patterns;
}

class IncludeSearch {
 public:
  explicit IncludeSearch(std::string root) : root_(std::move(root)) {}

  std::optional<bool> run(const std::string& configuration, const std::string& file) {
    wanted_path_ = root_ + file;
    if (stat(wanted_path_.c_str(), &wanted_) != 0) return std::nullopt;
    if (look_into(root_ + configuration, 0)) return true;
    if (is_unsure_) return std::nullopt;
    return false;
  }

 private:
  bool is_wanted(const std::string& path) const {
    if (path == wanted_path_) return true;  // it may be replaced at any moment
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && status.st_dev == wanted_.st_dev &&
           status.st_ino == wanted_.st_ino;
  }

  bool look_into(const std::string& path, int depth) {
    const auto text = text_of_file(path);
    if (!text) is_unsure_ = true;
    if (!text || depth > kDeepestInclude) return false;
    for (const std::string& pattern : includes_of(*text)) {
      const std::string where = pattern.starts_with('/')
                                    ? root_ + pattern
                                    : path.substr(0, path.rfind('/') + 1) + pattern;
      for (const std::string& found : files_of(where)) {
        if (is_wanted(found) || look_into(found, depth + 1)) return true;
      }
    }
    return false;
  }

  std::vector<std::string> files_of(const std::string& pattern) {
    std::vector<std::string> files;
    glob_t found{};
    const int result = glob(pattern.c_str(), GLOB_ERR | GLOB_NOESCAPE, nullptr, &found);
    for (size_t at = 0; result == 0 && at < found.gl_pathc; ++at) {
      files.emplace_back(found.gl_pathv[at]);
    }
    globfree(&found);
    if (result != 0 && result != GLOB_NOMATCH) is_unsure_ = true;
    return files;
  }

  const std::string root_;
  std::string wanted_path_;
  struct stat wanted_ {};
  bool is_unsure_ = false;
};

}  // namespace

std::string configuration_in(const std::vector<std::string>& arguments) {
  constexpr std::string_view kWithValue = "cDPsug";
  std::string configuration = kDebiansConfiguration;
  for (size_t at = 1; at < arguments.size(); ++at) {
    const std::string& argument = arguments[at];
    if (!argument.starts_with('-')) continue;
    for (size_t letter = 1; letter < argument.size(); ++letter) {
      if (argument[letter] == 'l') configuration.clear();  // in the directory it was started in
      if (kWithValue.find(argument[letter]) == std::string_view::npos) continue;
      std::string value = argument.substr(letter + 1);
      if (value.empty() && at + 1 < arguments.size()) value = arguments[++at];
      if (argument[letter] == 'c') configuration = value;
      break;
    }
  }
  return configuration.starts_with('/') ? configuration : "";
}

std::optional<bool> bird_includes(const std::string& root, const std::string& configuration,
                                  const std::string& file) {
  return IncludeSearch(root).run(configuration, file);
}

std::string bird_configuration_without(const std::string& vrf, const std::string& file) {
  const auto pid = parse_routing_pid(text_of_file(routing_pid_path(vrf)).value_or(""));
  if (!pid) return "";
  const std::string process = fmt::format("/proc/{}", *pid);
  if (text_of_file(process + "/comm") != "bird\n") return "";
  std::vector<std::string> arguments;
  std::istringstream command(text_of_file(process + "/cmdline").value_or(""));
  for (std::string argument; std::getline(command, argument, '\0');) arguments.push_back(argument);
  // The process may have a file system of its own (ip netns exec, a service's sandbox).
  const std::string configuration = configuration_in(arguments);
  if (configuration.empty()) return "";
  const auto includes = bird_includes(process + "/root", configuration, file);
  return includes.value_or(true) ? "" : configuration;
}

}  // namespace lbctl
