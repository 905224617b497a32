#include "core/lb_daemon.h"

#include "config/config_reader.h"
#include "tests/probe_factory.h"

bool LBDaemon::load_configuration(const std::string& path) {
  const LBTestFactory factory;
  ConfigReader reader(parsed_, namespaces_, factory);
  reader.read_config(path);
  config_.replace(parsed_);
  note_presence();
  return true;
}

void LBDaemon::note_presence() {
  for (const bool ipv6 : {true, false}) {
    for (const auto& [name, interface] : config_.interfaces_of(ipv6)) {
      vrf_presence_[{interface.vrf, ipv6}].has_interfaces = true;
    }
  }
  for (const auto& [name, rule] : config_.rules) {
    vrf_presence_[{rule.vrf, !is_ipv4_rule(name)}].has_rules = true;
  }
}

void LBDaemon::register_with_watchdog() {
  send_signal_live(1, 1);
  set_timeout(&watchdog_timeout_);
}

std::set<std::string> LBDaemon::namespaces() const {
  std::set<std::string> all = namespaces_;
  all.insert(kDefaultNamespace);
  return all;
}

VrfPresence LBDaemon::presence(const std::string& vrf, bool ipv6) const {
  const auto found = vrf_presence_.find({vrf, ipv6});
  return found == vrf_presence_.end() ? VrfPresence{} : found->second;
}
