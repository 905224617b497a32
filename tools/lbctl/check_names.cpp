#include <net/if.h>

#include <set>

#include <fmt/format.h>

#include "lbctl/check_model.h"
#include "routing/bird2_words.h"

namespace lbctl {

namespace {

constexpr size_t kLongestName = 63;
constexpr size_t kLongestDevice = IF_NAMESIZE - 1;

class NameChecks {
 public:
  NameChecks(const View& view, Findings& findings) : view_(view), findings_(findings) {}

  void run() {
    for (const InterfaceView& interface : view_.interfaces) {
      const bool has_origin = interface.find("origin") != nullptr;
      if (has_origin) check(interface.name, interface.name_place, "interface name", kLongestName);
      check(interface.origin(), interface.origin_place(), "device", kLongestDevice);
      if (const Setting* vrf = interface.find("namespace")) check_vrf(*vrf);
      check_word(interface);
    }
    for (const RuleView& rule : view_.rules) {
      if (rule.vrf_setting) check_vrf(*rule.vrf_setting);
    }
  }

 private:
  void check(const std::string& name, Place place, const char* what, size_t longest) {
    if (name.size() > longest) {
      findings_.add(place, "name-too-long",
                    fmt::format("the {} '{}' has {} characters: {}", what, name, name.size(),
                                longest == kLongestDevice ? "Linux knows no device of that name"
                                                          : "the dumps cut it"),
                    fmt::format("use {} characters at most", longest));
    }
    if (!is_safe_name(name)) {
      findings_.add(place, "unsafe-name",
                    fmt::format("the {} '{}' has other characters than letters, digits, '.', '_' "
                                "and '-': it goes into paths and commands as it is",
                                what, name),
                    "use these characters only");
    }
  }

  // Each of them once.
  void check_vrf(const Setting& vrf) {
    if (vrfs_.insert(vrf.value).second) check(vrf.value, vrf.place, "VRF", kLongestName);
  }

  void check_word(const InterfaceView& interface) {
    if (!view_.options.bird2_routes || !is_bird2_word(interface.origin())) return;
    findings_.add(interface.origin_place(), "unsafe-name",
                  fmt::format("BIRD keeps the word '{}' for itself and takes it for no device: the "
                              "daemon leaves the interface out of all routes",
                              interface.origin()),
                  "rename the device; a name with a digit is safe");
  }

  const View& view_;
  Findings& findings_;
  std::set<std::string> vrfs_;
};

}  // namespace

void check_names(const View& view, Findings& findings) { NameChecks(view, findings).run(); }

}  // namespace lbctl
