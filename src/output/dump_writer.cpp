// The dump operations of LBOutput: all records of a file are filled, then the file is opened and
// written in one call, so that readers hardly ever find a part of it.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <vector>

#include "config/log.h"
#include "output/dump_records.h"
#include "output/lb_output.h"
#include "platform/clock.h"
#include "platform/regular_file.h"
#include "routing/route_syntax.h"

namespace {

// A dump file that is being written, anew.
class DumpFile {
 public:
  explicit DumpFile(const std::string& path) : file_(open_to_rewrite(path)) {
    // Without a buffer what does not fit on the disk fails at once, not at the close.
    if (file_ != nullptr) setvbuf(file_.get(), nullptr, _IONBF, 0);
  }

  bool valid() const { return file_ != nullptr; }

  template <typename Record>
  bool write(const std::vector<Record>& records) {
    return fwrite(records.data(), sizeof(Record), records.size(), file_.get()) == records.size();
  }

 private:
  struct Closer {
    void operator()(FILE* file) const { fclose(file); }
  };
  std::unique_ptr<FILE, Closer> file_;
};

// What is noted for `key`, or an empty value.
template <typename Value>
Value value_or_empty(const std::map<std::string, Value>& values, const std::string& key) {
  const auto found = values.find(key);
  return found == values.end() ? Value() : found->second;
}

// As the routing daemon's files have it: a rule may have destinations of both families. Empty when
// it is in neither.
std::string written_destination(const RouteSyntax& syntax, const std::string& text, bool ipv6) {
  std::string written = syntax.written_destination(text, ipv6);
  return written.empty() ? syntax.written_destination(text, !ipv6) : written;
}

// Appends a record that is all zero, has `fill` fill it and takes it away again if that fails.
template <typename Record, typename Fill>
bool append(std::vector<Record>& records, Fill fill) {
  const bool filled = fill(records.emplace_back());
  if (!filled) records.pop_back();
  return filled;
}

struct RuleRecords {
  std::vector<DumpRule> rules;
  std::vector<DumpRoute> routes;
  const char* failed_call = nullptr;  // what ended them too early
};

bool append_routes(const RuleKey& key, const LBRule& rule,
                   const WrittenState::TextByTarget& nexthops, const RouteSyntax& syntax,
                   std::vector<DumpRoute>& routes) {
  int32_t index = 0;
  for (const auto& entry : rule.targets) {
    if (index == static_cast<int32_t>(kDumpMaxRoutes)) break;
    const std::string written = written_destination(syntax, entry.first, key.is_ipv6());
    if (written.empty()) continue;
    ++index;
    const bool filled = append(routes, [&](DumpRoute& record) {
      return fill_route(key, written, entry.second, index, value_or_empty(nexthops, entry.first),
                        record);
    });
    if (!filled) return false;
  }
  return true;
}

RuleRecords make_rule_records(const std::map<std::string, LBRule>& rules, const LBConfig& names) {
  const auto nexthops = [&names] {
    const MutexLock lock(names.written_mutex);
    return names.written.failover_nexthops;
  }();
  const RouteSyntax& syntax = route_syntax(*names.options);
  RuleRecords records;
  records.rules.reserve(rules.size());
  for (const auto& entry : rules) {
    const LBRule& rule = entry.second;
    const std::optional<RuleKey> key = parse_rule_key(entry.first);
    if (!key) {
      records.failed_call = "sscanf";
      break;
    }
    const bool filled =
        append(records.rules,
               [&](DumpRule& record) { return fill_rule(*key, rule, names, record); }) &&
        append_routes(*key, rule, value_or_empty(nexthops, entry.first), syntax, records.routes);
    if (!filled) {
      records.failed_call = "snprintf";
      break;
    }
  }
  return records;
}

}  // namespace

void LBOutput::dump_outbounds(timespec now, const InterfaceMap* interfaces, bool ipv6) {
  if (interfaces != nullptr) write_outbounds(*interfaces, ipv6, now);
}

void LBOutput::write_outbounds(const InterfaceMap& interfaces, bool ipv6,
                               const std::optional<timespec>& at) {
  constexpr const char* kOperation = "dump_outbounds";
  MutexLock lock(family_mutexes_[ipv6 ? 1 : 0]);
  const std::vector<InterfaceSnapshot> snapshots = take_snapshots(interfaces);
  const auto now = static_cast<uint32_t>((at ? *at : wall_now()).tv_sec);
  std::vector<DumpOutbound> records;
  records.reserve(snapshots.size());
  const bool filled =
      std::all_of(snapshots.begin(), snapshots.end(), [&](const InterfaceSnapshot& interface) {
        return append(records,
                      [&](DumpOutbound& record) { return fill_outbound(interface, now, record); });
      });
  const std::string path = outbounds_path(ipv6);
  DumpFile file(path);
  if (!file.valid()) {
    LB_ERROR("wan_lb: error open file for writing '%s'", path.c_str());
  } else if (!file.write(records)) {
    LB_ERROR("wan_lb: <%s> error writing data block", kOperation);
  } else if (!filled) {
    LB_ERROR("<%s> wan_lb: snprintf failed", kOperation);
  }
}

void LBOutput::dump_rules_and_routes(const std::map<std::string, LBRule>& rules,
                                     const LBConfig* names) {
  constexpr const char* kOperation = "dump_rules_and_routes";
  if (names == nullptr) return;

  const RuleRecords records = make_rule_records(rules, *names);
  DumpFile rules_file(rules_path());
  if (!rules_file.valid()) {
    LB_ERROR("wan_lb: Error open file for writing '%s'", rules_path().c_str());
    return;
  }
  DumpFile routes_file(routes_path());
  if (!routes_file.valid()) {
    LB_ERROR("wan_lb: Error open file for writing '%s'", routes_path().c_str());
    return;
  }
  if (!rules_file.write(records.rules)) {
    LB_ERROR("wan_lb: <%s> error writing data block", kOperation);
  } else if (!routes_file.write(records.routes)) {
    LB_ERROR("wan_lb: error dumping routes");
  } else if (records.failed_call != nullptr) {
    LB_ERROR("<%s> wan_lb: %s failed", kOperation, records.failed_call);
  }
}
