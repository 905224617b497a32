// The dump operations of LBOutput: records are filled one at a time and written as they are.
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
    // Without a buffer a record that does not fit on the disk fails at once, not at the close.
    if (file_ != nullptr) setvbuf(file_.get(), nullptr, _IONBF, 0);
  }

  bool valid() const { return file_ != nullptr; }

  template <typename Record>
  bool write(const Record& record) {
    return fwrite(&record, sizeof(record), 1, file_.get()) == 1;
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

// False after a failure, which is logged.
bool write_routes(const RuleKey& key, const LBRule& rule,
                  const WrittenState::TextByTarget& nexthops, const RouteSyntax& syntax,
                  const char* operation, DumpFile& file) {
  int32_t index = 0;
  for (const auto& [destination, target] : rule.targets) {
    if (index == static_cast<int32_t>(kDumpMaxRoutes)) break;
    const std::string written = written_destination(syntax, destination, key.is_ipv6());
    if (written.empty()) continue;
    DumpRoute record{};
    if (!fill_route(key, written, target, ++index, value_or_empty(nexthops, destination), record)) {
      LB_ERROR("<%s> wan_lb: snprintf failed", operation);
      return false;
    }
    if (!file.write(record)) {
      LB_ERROR("wan_lb: error dumping routes");
      return false;
    }
  }
  return true;
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
  const std::string path = outbounds_path(ipv6);
  DumpFile file(path);
  if (!file.valid()) {
    LB_ERROR("wan_lb: error open file for writing '%s'", path.c_str());
    return;
  }
  for (const InterfaceSnapshot& interface : snapshots) {
    DumpOutbound record{};
    if (!fill_outbound(interface, now, record)) {
      LB_ERROR("<%s> wan_lb: snprintf failed", kOperation);
      return;
    }
    if (!file.write(record)) {
      LB_ERROR("wan_lb: <%s> error writing data block", kOperation);
      return;
    }
  }
}

void LBOutput::dump_rules_and_routes(const std::map<std::string, LBRule>& rules,
                                     const LBConfig* names) {
  constexpr const char* kOperation = "dump_rules_and_routes";
  if (names == nullptr) return;

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
  const auto nexthops = names->copy_written().failover_nexthops;
  const RouteSyntax& syntax = route_syntax(*names->options);
  for (const auto& [name, rule] : rules) {
    const std::optional<RuleKey> key = parse_rule_key(name);
    if (!key) {
      LB_ERROR("<%s> wan_lb: sscanf failed", kOperation);
      return;
    }
    DumpRule record{};
    if (!fill_rule(*key, rule, *names, record)) {
      LB_ERROR("<%s> wan_lb: snprintf failed", kOperation);
      return;
    }
    if (!rules_file.write(record)) {
      LB_ERROR("wan_lb: <%s> error writing data block", kOperation);
      return;
    }
    if (!write_routes(*key, rule, value_or_empty(nexthops, name), syntax, kOperation,
                      routes_file)) {
      return;
    }
  }
}
