// What DHCP clients leave: 200 leases, of which the last is in force.
#include "routing/isc_leases.h"
#include "routing/lease_file.h"
#include "support/scratch.h"
#include "support/subject.h"

namespace {

std::string isc_leases(int count) {
  std::string text;
  for (int i = 1; i <= count; ++i) {
    text +=
        "lease {\n  interface \"eth0\";\n  fixed-address 192.0.2.20;\n"
        "  option subnet-mask 255.255.255.0;\n  option dhcp-lease-time 3600;\n"
        "  option routers 192.0.2." +
        std::to_string(i) +
        ", 192.0.2.254;\n"
        "  option domain-name-servers 192.0.2.53, 198.51.100.53;\n"
        "  renew 3 2033/11/25 00:32:03;\n  rebind 3 2033/11/25 00:54:33;\n"
        "  expire 3 2033/11/25 01:02:03;\n}\n";
  }
  return text;
}

const Registration kIsc("leases/dhclient, 200 leases", [] {
  return [text = isc_leases(200), device = std::string("eth0")] {
    keep(isc_lease_router(text, device, kWallClock));
  };
});

// The first line tells.
const Registration kScript("leases/script, IPv6", [] {
  return [text = std::string("interface='eth0'\nnew_ip6_address='2001:db8::20'\n"
                             "new_routers='fe80::1 fe80::2'\n")] { keep(script_router(text)); };
});

// Statements before it, as many as 200 leases have.
const Registration kDocumented("leases/statements, 200 leases", [] {
  std::string text;
  for (int i = 0; i < 1000; ++i) text += "  option dhcp-lease-time 3600;\n";
  text += "  option routers 192.0.2.1;\n";
  return [text] { keep(lease_router(text, false)); };
});

}  // namespace
