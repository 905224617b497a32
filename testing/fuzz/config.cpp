// The configuration file, and what the daemon makes of it.
#include <climits>
#include <set>
#include <string>

#include "config/config_reader.h"
#include "config/tokens.h"
#include "core/lb_daemon.h"
#include "support/bytes.h"
#include "support/config_model.h"
#include "support/config_uses.h"
#include "support/memory_file.h"
#include "support/property.h"

namespace {

struct Reading {
  explicit Reading(const MemoryFile& file)
      : accepted(ConfigReader(config, namespaces, factory).read_config(file.path())) {}

  RecordingFactory factory;
  LBConfig config;
  std::set<std::string> namespaces;
  bool accepted;
};

// Whether the brackets match, read a second time: lines of at most 1023 characters, which end at a
// NUL byte or a "#"; a bracket counts where it stands alone; a line must end in depth 0 to 31.
bool naive_accepts(std::string_view text) {
  int depth = 0;
  std::string word;
  bool ended = false;  // the rest of the line is a comment
  size_t length = 0;
  bool in_range = true;
  const auto end_word = [&] {
    if (word == "{") ++depth;
    if (word == "}") --depth;
    word.clear();
  };
  const auto end_line = [&] {
    end_word();
    ended = false;
    length = 0;
    in_range = in_range && depth >= 0 && depth <= 31;
  };
  for (const char character : text) {
    ++length;
    if (character == '#' || character == '\0') ended = true;
    if (!ended && character != '\n') {
      if (character == ' ' || character == '\t' || character == '~')
        end_word();
      else
        word += character;
    }
    if (character == '\n' || length == 1023) end_line();
  }
  end_line();
  return in_range && depth == 0;
}

// What every model keeps to, whatever the file was.
void check_model(const Reading& reading) {
  const auto check_text = [](const std::string& text) {
    HOLDS(text.find_first_of(std::string_view("\n#\0", 3)) == std::string::npos);
    HOLDS(text.size() < 1023);
  };
  const auto check_vrf = [&](const std::string& vrf) {
    check_text(vrf);
    HOLDS(vrf == kDefaultNamespace || reading.namespaces.contains(vrf));
  };
  for (const bool ipv6 : {false, true}) {
    for (const auto& [name, interface] : reading.config.interfaces_of(ipv6)) {
      HOLDS(!name.empty() && interface.name == name && interface.ipv6 == ipv6);
      HOLDS(interface.success_ct > 0 && interface.failure_ct > 0 && interface.hold_down >= 0);
      HOLDS(interface.options == reading.config.options);
      HOLDS(!reading.accepted || !interface.tests.empty());
      for (const std::string& text : {name, interface.origin, interface.nexthop,
                                      interface.source_address, interface.lease_file}) {
        check_text(text);
      }
      check_vrf(interface.vrf);
      for (const auto& [target, result] : interface.snapshot().target_results) {
        HOLDS(!target.empty() && result == -1);
        check_text(target);
      }
      for (const auto& [index, test] : interface.tests) reading.factory.check(*test);
    }
  }
  for (const auto& [name, rule] : reading.config.rules) {
    check_text(name);
    check_vrf(rule.vrf);
    const unsigned int number = parse_unsigned(name);
    HOLDS(number >= 1 && number <= INT_MAX);
    HOLDS(rule.failover == 0 || rule.failover == 1);
    for (const auto& [member, settings] : rule.members) {
      check_text(member);
      HOLDS(settings.weight >= 0);
    }
    for (const auto& [prefix, target] : rule.targets) check_text(prefix);
  }
}

// The daemon loads the same model, and knows every VRF that has something to do.
void check_daemon(const MemoryFile& file, Reading& reading) {
  LBDaemon daemon("/nonexistent");
  HOLDS(daemon.load_configuration(file.path()));
  HOLDS(config_text(daemon.config(), nullptr) == config_text(reading.config, nullptr));
  std::set<std::string> vrfs = reading.namespaces;
  vrfs.insert(kDefaultNamespace);
  HOLDS(daemon.namespaces() == vrfs);
  for (const bool ipv6 : {false, true}) {
    for (const auto& [name, interface] : reading.config.interfaces_of(ipv6)) {
      HOLDS(daemon.presence(interface.vrf, ipv6).has_interfaces);
    }
  }
  for (const auto& [name, rule] : reading.config.rules) {
    HOLDS(daemon.presence(rule.vrf, !is_ipv4_rule(name)).has_rules);
  }
  use_config(daemon.config(), vrfs);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ExactCopy copy({data, size});
  static MemoryFile file("configuration");
  file.replace(copy.text());
  Reading reading(file);
  HOLDS(reading.accepted == naive_accepts(copy.text()));
  check_model(reading);
  check_daemon(file, reading);

  // Written out and read again, it is the same model.
  if (!reading.accepted || !is_writable(reading.config)) return 0;
  const std::string written = config_text(reading.config, &reading.factory);
  file.replace(written);
  const Reading again(file);
  HOLDS(again.accepted);
  check_model(again);
  HOLDS(config_text(again.config, &again.factory) == written);
  return 0;
}
