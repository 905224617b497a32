// The lease file of the IPv4 DHCP client.
#include "support/lease_properties.h"

namespace {

// The third word of "option routers A[,B...];" up to the first comma, less one last character that
// is no digit.
std::optional<std::string> naive_router(std::string_view line) {
  const std::vector<std::string_view> words = pieces_of(line, " \t~\n");
  if (words.size() < 2 || words[1] != "routers") return std::nullopt;
  if (words.size() < 3) return "";
  const std::vector<std::string_view> addresses = pieces_of(words[2], ",");
  std::string router(addresses.empty() ? "" : addresses[0]);
  if (!router.empty() && std::string_view("0123456789").find(router.back()) == std::string::npos) {
    router.pop_back();
  }
  return router;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ExactCopy copy({data, size});
  check_lease_text(copy.text(), false, naive_router);
  check_lease_address(copy.bytes(), false, "  option routers ", ";\n");
  return 0;
}
