// The lease file of the IPv6 DHCP client's script.
#include "support/lease_properties.h"

namespace {

// The first word behind "new_routers=", less its first and its last character.
std::optional<std::string> naive_router(std::string_view line) {
  // Only a blank ends a name or a value; a tab becomes blanks.
  std::string text;
  for (const char character : line) {
    if (character == '\t')
      text += ' ';
    else if (character != '\n')
      text += character;
  }
  const std::vector<std::string_view> parts = pieces_of(text, "=~");
  if (parts.empty() || parts[0] != "new_routers") return std::nullopt;
  if (parts.size() < 2) return "";
  const std::vector<std::string_view> words = pieces_of(parts[1], " ");
  if (words.empty() || words[0].size() < 2) return "";
  return std::string(words[0].substr(1, words[0].size() - 2));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ExactCopy copy({data, size});
  check_lease_text(copy.text(), true, naive_router);
  check_lease_address(copy.bytes(), true, "new_routers='", "'\n");
  return 0;
}
