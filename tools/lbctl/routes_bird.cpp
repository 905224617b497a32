#include "lbctl/routes_bird.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>

#include <fmt/format.h>

#include "lbctl/command.h"
#include "platform/file_descriptor.h"
#include "platform/regular_file.h"

namespace lbctl {

namespace {

// What the routes need around them. Its lines come before theirs.
constexpr std::string_view kHead =
    "router id 192.0.2.1;\n"
    "ipv4 table master4;\n"
    "ipv6 table master6;\n"
    "protocol device { }\n";
constexpr int kHeadLines = 4;

// As which descriptor the configuration reaches it.
constexpr int kConfiguration = 3;
constexpr const char* kConfigurationPath = "/proc/self/fd/3";

// In one of the directories, between colons.
std::string find_bird(const std::string& directories) {
  std::istringstream all(directories);
  for (std::string directory; std::getline(all, directory, ':');) {
    std::string program = directory + "/bird";
    if (!directory.empty() && access(program.c_str(), X_OK) == 0) return program;
  }
  return "";
}

Failure cannot_run(const std::string& program, int error) {
  return unreadable(fmt::format("{} cannot be run: {}", program, std::strerror(error)));
}

FileDescriptor memory_file(const std::string& program, const std::string& text) {
  FileDescriptor file(memfd_create("bird.conf", MFD_CLOEXEC));
  for (size_t written = 0; file.valid() && written < text.size();) {
    const ssize_t count = write(file.get(), text.data() + written, text.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) file.reset();
    if (count > 0) written += static_cast<size_t>(count);
  }
  if (!file.valid()) throw cannot_run(program, errno);
  return file;
}

struct Run {
  int status = 0;
  std::string words;
};

// Runs `bird -p` on the open configuration; what it says on both outputs.
Run run_bird(const std::string& program, const FileDescriptor& configuration) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw cannot_run(program, errno);
  FileDescriptor read_end(ends[0]);
  FileDescriptor write_end(ends[1]);
  // None of them may be the number that the configuration gets.
  const FileDescriptor source(fcntl(configuration.get(), F_DUPFD_CLOEXEC, kConfiguration + 1));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, write_end.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, write_end.get(), STDERR_FILENO);
  posix_spawn_file_actions_adddup2(&actions, source.get(), kConfiguration);
  const std::array<const char*, 5> arguments{"bird", "-p", "-c", kConfigurationPath, nullptr};
  pid_t pid = 0;
  const int error = posix_spawn(&pid, program.c_str(), &actions, nullptr,
                                const_cast<char* const*>(arguments.data()), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw cannot_run(program, error);
  write_end.reset();
  Run run;
  run.words = read_up_to(read_end, 65536);
  read_end.reset();
  while (waitpid(pid, &run.status, 0) < 0 && errno == EINTR) {
  }
  return run;
}

// "bird: /proc/self/fd/3:12:3 ..." says "FILE:8:3: ...".
std::string in_terms_of(const std::string& name, const std::string& words) {
  static const std::regex place(R"(^(?:bird: )?/proc/self/fd/3:(\d+):(\d+):?\s*(.*)$)");
  std::string result;
  std::istringstream lines(words);
  for (std::string line; std::getline(lines, line);) {
    std::smatch found;
    if (std::regex_match(line, found, place)) {
      line = fmt::format("{}:{}:{}: {}", name, std::stoi(found[1]) - kHeadLines, found[2].str(),
                         found[3].str());
    }
    result += (result.empty() ? "" : "\n") + line;
  }
  return result;
}

}  // namespace

std::string bird_directories() {
  const char* const path = std::getenv("PATH");
  return std::string(path == nullptr ? "" : path) + ":/usr/sbin:/usr/local/sbin:/sbin";
}

BirdVerdict ask_bird(const std::string& text, const std::string& name,
                     const std::string& directories) {
  const std::string program = find_bird(directories);
  if (program.empty()) return {};
  const Run run = run_bird(program, memory_file(program, std::string(kHead) + text));
  BirdVerdict verdict;
  verdict.is_installed = true;
  verdict.accepts = WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0;
  if (!verdict.accepts) verdict.words = in_terms_of(name, run.words);
  return verdict;
}

}  // namespace lbctl
