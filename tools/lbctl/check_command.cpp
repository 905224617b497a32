// lbctl check: tells what is wrong with configurations before the daemon reads them.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "lbctl/check_file.h"
#include "lbctl/command.h"
#include "lbctl/print.h"

namespace lbctl {

namespace {

struct CheckOptions {
  std::vector<std::string> files;
  bool json = false;
  bool strict = false;
  bool offline = false;
};

int run_check(const CheckOptions& options) {
  const std::unique_ptr<Machine> machine = options.offline ? nullptr : this_machine();
  Json found = Json::array();
  int status = kExitOk;
  for (const std::string& path : options.files) {
    try {
      const Findings findings = check_file(path, machine.get());
      if (options.json) {
        append_findings(path, findings, found);
      } else {
        print_text(findings_text(path, findings, wants_colour()));
      }
      status = std::max(status, check_status(findings, options.strict));
    } catch (const Failure& failure) {  // the others are checked all the same
      complain(failure.what());
      status = std::max(status, failure.exit_status());
    }
  }
  if (options.json) {
    Json whole = document("check");
    whole["findings"] = std::move(found);
    print_document(whole);
  }
  return status;
}

}  // namespace

void add_check_command(CLI::App& program, Action& action) {
  const auto options = std::make_shared<CheckOptions>();
  const CommandLine command(
      program, "check",
      "Tells what is wrong with a configuration, also what the daemon passes over in "
      "silence. Exits with 0 when nothing is, 1 for warnings, 2 for errors, 3 for a "
      "file that cannot be read.",
      "lbctl check /etc/wan_lb/lb.conf");
  command.values("FILE", options->files, "Configurations").required();
  command.flag("--json", options->json, "Print one JSON document");
  command.flag("--strict", options->strict, "Take warnings for errors");
  command.flag("--offline", options->offline,
               "Ask this machine nothing: the configuration is for another one");
  command.runs(action, [options] { return run_check(*options); });
}

}  // namespace lbctl
