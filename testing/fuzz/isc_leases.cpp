// Lease files as stock clients leave them.
#include "routing/isc_leases.h"

#include "packets/family.h"
#include "support/bytes.h"
#include "support/property.h"

namespace {

constexpr int64_t kNow = 1'795'568'400;  // 2026/11/25 01:00:00

void check_address(const std::optional<std::string>& router, const Family& family) {
  in6_addr address;
  if (router) HOLDS(address_from_text(family.address_family, *router, &address) == 1);
}

// Whatever stands before, a whole lease counts behind it, unless a string or a block is open.
void check_own_lease(std::string_view text, std::span<const uint8_t> bytes) {
  const auto address = take<in6_addr>(bytes);
  const std::string router = address_to_text(AF_INET, &address);
  const std::string lease = "lease { interface \"eth0\"; option routers " + router +
                            ", 192.0.2.9; expire 3 2026/11/25 01:00:01; }\n";
  HOLDS(isc_lease_router(lease, "eth0", kNow) == router);
  HOLDS(!isc_lease_router(lease, "eth0", kNow + 1));
  HOLDS(!isc_lease_router(lease, "eth1", kNow));
  if (text.find_first_of("\"{}#") != std::string_view::npos) return;
  HOLDS(isc_lease_router(std::string(text) + ";" + lease, "eth0", kNow) == router);
  HOLDS(isc_lease_router(lease + std::string(text), "eth0", kNow) == router);
}

void check_own_line(std::string_view text, std::span<const uint8_t> bytes) {
  const auto address = take<in6_addr>(bytes);
  const std::string router = address_to_text(AF_INET6, &address);
  const std::string line = "new_routers='" + router + " fe80::9'\n";
  HOLDS(script_router(line) == router);
  HOLDS(!script_router("lease6 {\n" + line + "}\n"));
  if (text.find("lease6") != std::string_view::npos || script_router(std::string(text) + "\n")) {
    return;
  }
  HOLDS(script_router(std::string(text) + "\n" + line) == router);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ExactCopy copy({data, size});
  check_address(isc_lease_router(copy.text(), "eth0", kNow), kIpv4);
  check_address(isc_lease_router(copy.text(), "", kNow), kIpv4);
  check_address(script_router(copy.text()), kIpv6);
  check_own_lease(copy.text(), copy.bytes());
  check_own_line(copy.text(), copy.bytes());
  return 0;
}
