// The one daemon object of the process.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>

#include "config/lb_config.h"
#include "output/lb_output.h"
#include "platform/watchdog.h"
#include "routing/route_decision.h"

// Made by the main thread and filled before any other thread starts; then shared by all workers.
class LBDaemon {
 public:
  explicit LBDaemon(const std::string& output_directory) : output_(output_directory) {}

  // Reads the configuration file and makes it the active configuration. A file with errors is used
  // as far as it was read, so this always succeeds; the reader logs what it found.
  bool load_configuration(const std::string& path);

  // Learns the watchdog's time-out.
  void register_with_watchdog();

  // The VRFs to look at, in order: "default" and every one that the configuration names.
  std::set<std::string> namespaces() const;

  // What a VRF has of a family. Fixed once the configuration is loaded.
  VrfPresence presence(const std::string& vrf, bool ipv6) const;

  LBConfig& config() { return config_; }
  LBDecision& decision() { return decision_; }
  LBOutput& output() { return output_; }

  // The two words of the watchdog library, shared by all workers.
  WatchdogWord* watchdog_timeout() { return &watchdog_timeout_; }
  WatchdogWord* watchdog_last() { return &watchdog_last_; }

 private:
  LBConfig parsed_;
  LBConfig config_;
  std::set<std::string> namespaces_;
  std::map<std::pair<std::string, bool>, VrfPresence> vrf_presence_;
  LBDecision decision_;
  LBOutput output_;
  WatchdogWord watchdog_timeout_ = 0;
  WatchdogWord watchdog_last_ = 0;

  void note_presence();
};
