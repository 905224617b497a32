#include "support/models.h"

#include <algorithm>
#include <filesystem>

#include "support/scratch.h"

namespace {

std::string number(int value) { return std::to_string(value); }

std::string address(int first, int index) {
  return number(first) + "." + number(index / 65536 % 256) + "." + number(index / 256 % 256) + "." +
         number(index % 256);
}

std::string wan(int index) { return "wan" + number(index); }

std::string interface_text(int index, int tests) {
  std::string text = "    interface " + wan(index) + " {\n        nexthop " + address(10, index) +
                     "\n        success-ct 2\n        failure-ct 3\n";
  for (int test = 1; test <= tests; ++test) {
    text += "        test " + number(test) + " {\n            type ping\n            target " +
            address(100 + test, index) + "\n            resp-time 1500\n        }\n";
  }
  return text + "    }\n";
}

std::string rule_text(int index, const RouterSize& size) {
  std::string text = "rule " + number(index) + "_ipv4 {\n";
  if (size.failover) text += "    failover\n";
  for (int member = 0; member < size.members; ++member) {
    text +=
        "    interface " + wan(member) + " {\n        weight " + number(1 + member) + "\n    }\n";
  }
  for (int target = 0; target < size.targets; ++target) {
    text += "    target {\n        address " + address(20, index * 256 + target) +
            "/32\n        metric " + number(10 + target) + "\n    }\n";
  }
  return text + "}\n";
}

void bring_up(LBInterface& interface) {
  MutexLock lock(interface.mutex);
  InterfaceState& state = interface.state;
  state.active = true;
  state.last_success = kWallClock - 1;
  state.last_failure = kWallClock - 90061;
  state.last_state_change = kWallClock - 3605;
  for (auto& [target, result] : state.target_results) {
    result = kProbeSuccess;
    state.success_counts[target] = interface.success_ct;
    state.failure_counts[target] = 0;
  }
}

}  // namespace

std::string router_text(const RouterSize& size) {
  std::string text;
  if (!size.options.empty()) text += "options {\n" + size.options + "}\n";
  text += "health {\n";
  for (int i = 0; i < size.interfaces; ++i) text += interface_text(i, size.tests);
  text += "}\n";
  for (int i = 1; i <= size.rules; ++i) text += rule_text(i, size);
  return text;
}

std::shared_ptr<LBDaemon> make_router(const RouterSize& size) {
  write_scratch("router.conf", router_text(size));
  std::filesystem::create_directories(scratch_path("out"));
  auto daemon = std::make_shared<LBDaemon>(scratch_path("out"));
  daemon->load_configuration(scratch_path("router.conf"));
  for (auto& [name, interface] : daemon->config().interfaces) bring_up(interface);
  return daemon;
}

std::string text_of_lines(int lines) {
  const RouterSize size{.interfaces = 4000, .tests = 2, .rules = 400, .members = 8, .targets = 16};
  std::string text = "# a large router\n\n" + router_text(size);
  auto left = lines - std::count(text.begin(), text.end(), '\n');
  for (; left > 0; --left) text += left % 2 == 0 ? "\n" : "# nothing more\n";
  return text;
}
