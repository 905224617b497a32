#include "lbctl/explain_question.h"

#include <memory>

#include <fmt/format.h>

#include "lbctl/assumed_state.h"
#include "lbctl/command.h"
#include "lbctl/explain_destination.h"
#include "lbctl/explain_interface.h"
#include "lbctl/print.h"
#include "lbctl/readable_log.h"
#include "platform/clock.h"

namespace lbctl {

namespace {

constexpr const char* kUsualConfiguration = "/etc/wan_lb/lb.conf";

std::vector<Explanation> explain_named(const Situation& situation, const std::string& subject) {
  std::vector<Explanation> explanations;
  std::string name;
  bool ipv6 = false;
  if (parse_interface_label(subject, name, ipv6)) {
    const InterfaceDump* interface = situation.interface_dump(name, ipv6);
    // A name that only the other family has is meant for that one.
    if (interface == nullptr && !ipv6) interface = situation.interface_dump(name, true);
    if (interface != nullptr) return {explain_interface(situation, *interface)};
  }
  const auto destinations = find_destinations(situation.dumps, subject);
  explanations.reserve(destinations.size());
  for (const Destination& destination : destinations) {
    explanations.push_back(explain_destination(situation, destination));
  }
  if (explanations.empty()) {
    throw usage_error(fmt::format(
        "'{}' is neither an interface of the running daemon nor within a destination of its rules; "
        "lbctl status shows both",
        subject));
  }
  return explanations;
}

std::vector<Explanation> explain_faults(const Situation& situation) {
  std::vector<Explanation> explanations;
  for (const InterfaceDump& interface : situation.dumps.interfaces) {
    Explanation explanation = explain_interface(situation, interface);
    if (!explanation.is_well) explanations.push_back(std::move(explanation));
  }
  for (const Destination& destination : all_destinations(situation.dumps)) {
    Explanation explanation = explain_destination(situation, destination);
    if (!explanation.is_well) explanations.push_back(std::move(explanation));
  }
  return explanations;
}

std::unique_ptr<Configuration> load_named(const std::string& path) {
  if (!path.empty()) return load_configuration(path);
  const FileLook look = ThisRouter().file(kUsualConfiguration);
  return look.fault.empty() ? load_configuration(kUsualConfiguration) : nullptr;
}

}  // namespace

void take_over_states(const Dumps& dumps, LBConfig& model) {
  assume_all(model, false);
  for (const InterfaceDump& dump : dumps.interfaces) {
    if (!model.interfaces_of(dump.ipv6).contains(dump.name)) continue;
    assume(model, {dump.name, dump.ipv6}, dump.active);
    assume_nexthop(model, {{dump.name, dump.ipv6}, dump.nexthop});
  }
}

Answer answer(const Situation& situation, const std::string& subject, std::time_t now) {
  Answer answer{true, ""};
  const auto explanations =
      subject.empty() ? explain_faults(situation) : explain_named(situation, subject);
  for (const Explanation& explanation : explanations) {
    answer.is_well = answer.is_well && explanation.is_well;
    answer.text += text_of(explanation);
  }
  if (explanations.empty()) {
    answer.text = fmt::format(
        "All is well: {} active, {} routed.\n",
        counted(static_cast<int64_t>(situation.dumps.interfaces.size()), "interface"),
        counted(static_cast<int64_t>(all_destinations(situation.dumps).size()), "destination"));
  }
  if (situation.dumps.is_stale(now)) {
    Explanation stale;
    stale.headline = fmt::format("The dump files are {} old: all below was so then.",
                                 span(now - situation.dumps.newest.tv_sec));
    stale.add("The daemon writes them every second: it does not run, or hangs.",
              "See whether the daemon runs: pgrep -x lb, and its log.");
    answer = {false, text_of(stale) + answer.text};
  }
  if (situation.configuration == nullptr) {
    answer.text +=
        "The configuration was not looked at (-f FILE): it tells devices, where next hops are "
        "looked for, hold-down, check_all, and time-outs.\n";
  }
  return answer;
}

int run_explain(const ExplainRequest& request) {
  const auto configuration = load_named(request.configuration);
  const Dumps dumps = read_dumps(request.output_directory);
  if (configuration) {
    for (const std::string& sentence : readable(configuration->messages)) {
      complain(fmt::format("{}: {}", configuration->path, sentence));
    }
    take_over_states(dumps, configuration->model);
  }
  const ThisRouter machine;
  const Answer found =
      answer({dumps, configuration.get(), machine}, request.subject, wall_now().tv_sec);
  print_text(found.text);
  return found.is_well ? kExitOk : kExitNo;
}

}  // namespace lbctl
