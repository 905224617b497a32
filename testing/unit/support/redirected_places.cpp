#include "support/redirected_places.h"

#include "support/test_start.h"

namespace {

constexpr const char* kNowhere = "/nonexistent";

// Never destroyed: threads may ask until the process ends.
std::string& the_root() {
  static std::string* const root = new std::string(kNowhere);
  return *root;
}

const AtTestStart reset_at_test_start([] { the_root() = kNowhere; });

const char* family_word(bool ipv6) { return ipv6 ? "ipv6" : "ipv4"; }

}  // namespace

void redirect_places(const std::string& root) { the_root() = root; }

std::string route_file_path(const std::string& vrf, bool ipv6) {
  return the_root() + "/routes/" + vrf + "." + family_word(ipv6);
}

std::string routing_pid_path(const std::string& vrf) { return the_root() + "/pids/" + vrf; }

std::string lease_file_path(const std::string& interface_name, bool ipv6) {
  return the_root() + "/leases/" + interface_name + "." + family_word(ipv6);
}
