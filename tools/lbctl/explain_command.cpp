// `lbctl explain`: why a link is down, or a route not there.
#include <memory>

#include "lbctl/command.h"
#include "lbctl/explain_question.h"

namespace lbctl {

void add_explain_command(CLI::App& program, Action& action) {
  const auto request = std::make_shared<ExplainRequest>();
  request->output_directory = kDefaultOutputDirectory;
  const CommandLine command(
      program, "explain",
      "Says why an interface is FAILED or a destination has the next hops that it has, and what to "
      "do next; without a name all that is not well. Exit status: 0 when all is well with it, 1 "
      "when not, 2 for a name that the daemon does not know, 3 for what cannot be read.",
      "lbctl explain wan1 -f /etc/wan_lb/lb.conf");
  command.value("SUBJECT", request->subject,
                "an interface (wan1, or wan1/6 for IPv6), or a prefix or address");
  command.value("-f", request->configuration,
                "the daemon's configuration [/etc/wan_lb/lb.conf where it is there]");
  command.value("-o", request->output_directory, "the daemon's output directory").shows_default();
  command.runs(action, [request] { return run_explain(*request); });
}

}  // namespace lbctl
