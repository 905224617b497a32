// The status report and the binary dumps that the daemon leaves for people and programs.
//
//   DIRECTORY/wlb_ipv4.out, wlb_ipv6.out                               docs/status-report.md
//   DIRECTORY/wlb_dump/wlb_rules.bin, wlb_routes.bin                   docs/dump-files.md
//   DIRECTORY/wlb_dump/wlb_ipv4_outbounds.bin, wlb_ipv6_outbounds.bin
#pragma once

#include <array>
#include <ctime>
#include <initializer_list>
#include <optional>
#include <set>
#include <string>

#include "config/lb_config.h"
#include "config/worker_context.h"
#include "platform/mutex.h"

// One object serves the workers of all VRFs. Every VRF's worker of a family writes the files of
// that family, so these workers take turns; they wait for nothing but each other's writing.
class LBOutput {
 public:
  // A mutex that cannot be made is logged and ends the calling thread, as one that cannot be
  // destroyed does.
  explicit LBOutput(const std::string& output_directory);
  ~LBOutput() noexcept(false);  // pthread_exit unwinds through it
  LBOutput(const LBOutput&) = delete;
  LBOutput& operator=(const LBOutput&) = delete;

  // Writes all files of the worker's family and the files of the rules. A failure is logged and
  // ends this write; the next one starts anew. The files of the rules are left out while another
  // worker writes them.
  void write(const LBConfig& config, const LBWorkerContext& worker);

  // Writes one outbounds file into the dump directory, which must exist. `now` is the wall clock.
  // Nothing happens without interfaces.
  void dump_outbounds(timespec now, const InterfaceMap* interfaces, bool ipv6);

  // Writes the rules and the routes file; one caller at a time. `names` knows the members' Linux
  // names and the next hops that failover rules have chosen. Nothing happens without it.
  void dump_rules_and_routes(const std::map<std::string, LBRule>& rules, const LBConfig* names);

  // The paths that a family's writes have used so far; those of the rules count as IPv4.
  // Not called by the daemon itself: it is for whoever links the library.
  std::set<std::string> used_files(bool ipv6) const;

 private:
  bool make_dump_directory();
  void note_files(std::initializer_list<std::string> paths, bool ipv6);
  // Writes one outbounds file with ages at `at`, or at the time when all was copied.
  void write_outbounds(const InterfaceMap& interfaces, bool ipv6,
                       const std::optional<timespec>& at);
  void write_status(const std::string& path, const LBConfig& config, bool ipv6);

  std::string status_path(bool ipv6) const;
  std::string outbounds_path(bool ipv6) const;
  std::string rules_path() const { return dump_directory_ + "/wlb_rules.bin"; }
  std::string routes_path() const { return dump_directory_ + "/wlb_routes.bin"; }

  const std::string output_directory_;
  const std::string dump_directory_;

  Mutex mutex_;                          // the files of the rules; only ever tried
  std::array<Mutex, 2> family_mutexes_;  // the files of IPv4 and of IPv6
  mutable Mutex files_mutex_;
  std::array<std::set<std::string>, 2> files_ LB_GUARDED_BY(files_mutex_);
};
