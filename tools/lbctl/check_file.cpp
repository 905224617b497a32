#include "lbctl/check_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <fmt/format.h>

#include "lbctl/check_lines.h"
#include "lbctl/check_model.h"
#include "lbctl/check_outline.h"
#include "lbctl/check_syntax.h"
#include "lbctl/command.h"
#include "lbctl/configuration.h"
#include "platform/regular_file.h"

namespace lbctl {

namespace {

// The reader's messages are about errors, and about what a line becomes that is cut in two.
bool explains_messages(const Findings& findings) {
  return findings.has("long-line") ||
         std::any_of(findings.all().begin(), findings.all().end(), [](const Finding& finding) {
           return severity_of(finding.code) == Severity::kError;
         });
}

// Without the mark of the log: "%WAN-W-ERR: ".
std::string message_text(const std::string& text) {
  const size_t colon = text.starts_with('%') ? text.find(": ") : std::string::npos;
  return colon == std::string::npos ? text : text.substr(colon + 2);
}

void tell_messages(const std::string& text, Findings& findings) {
  const auto configuration = load_configuration_text(text, "configuration");
  if (configuration->messages.empty() || explains_messages(findings)) return;
  findings.add(
      {1, 1}, "reader-message",
      fmt::format("the daemon logs: {}", message_text(configuration->messages.front().text)),
      "nothing else is known of it: please report the file");
}

}  // namespace

Findings check_text(const std::string& text, const Machine* machine) {
  Findings findings;
  const std::vector<ReadLine> lines = read_lines(text);
  check_bytes(text, lines, findings);
  const std::vector<Node> nodes = read_outline(lines, findings);
  check_syntax(nodes, findings);
  const View view = make_view(nodes, findings);
  check_interfaces(view, findings);
  check_rules(view, findings);
  check_names(view, findings);
  if (machine != nullptr) check_machine(view, *machine, findings);
  tell_messages(text, findings);
  findings.sort();
  return findings;
}

Findings check_file(const std::string& path, const Machine* machine) {
  const FileDescriptor file = open_to_read(path);
  // A socket cannot even be opened.
  if (!file.valid() && errno != ENXIO) {
    throw unreadable(fmt::format("{}: {}", path, std::strerror(errno)));
  }
  if (!file.valid() || !is_regular_file(file)) {
    Findings findings;
    findings.add({1, 1}, "not-a-file",
                 "this is no file but a directory, a pipe or a device: the daemon reads nothing, "
                 "or waits for ever",
                 "name a file");
    return findings;
  }
  return check_text(read_up_to(file, SIZE_MAX), machine);
}

}  // namespace lbctl
