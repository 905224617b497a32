// What holds for the lease files of both families.
#pragma once

#include <algorithm>
#include <cctype>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "packets/family.h"
#include "routing/lease_file.h"
#include "support/bytes.h"
#include "support/memory_file.h"
#include "support/property.h"

// The non-empty pieces of `text` between characters of `separators`.
inline std::vector<std::string_view> pieces_of(std::string_view text, std::string_view separators) {
  std::vector<std::string_view> pieces;
  size_t start = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i < text.size() && separators.find(text[i]) == std::string_view::npos) continue;
    if (i > start) pieces.push_back(text.substr(start, i - start));
    start = i + 1;
  }
  return pieces;
}

// `naive_router` reads one line; no value when it is no router line.
template <class NaiveRouter>
void check_lease_text(std::string_view text, bool ipv6, NaiveRouter naive_router) {
  const std::optional<std::string> router = lease_router(text, ipv6);

  // A second reading: lines of at most 1023 characters, which end at a NUL byte.
  std::optional<std::string> expected;
  std::string line;
  for (size_t i = 0; i < text.size() && !expected; ++i) {
    line += text[i];
    if (text[i] != '\n' && line.size() < 1023 && i + 1 < text.size()) continue;
    expected = naive_router(std::string_view(line).substr(0, line.find('\0')));
    line.clear();
  }
  HOLDS(router == expected);

  if (router) {
    // It becomes a part of one line of the routing daemon's file.
    HOLDS(router->size() < 1023);
    HOLDS(router->find_first_of(std::string_view(" \t\n~\0", 5)) == std::string::npos);
  }

  static MemoryFile file("leases");
  file.replace(text);
  HOLDS(read_lease_router(file.path(), ipv6) == router);
}

// Whatever the address is, the statement that carries it gives it back, also behind lines of other
// statements.
inline void check_lease_address(std::span<const uint8_t> bytes, bool ipv6, const std::string& start,
                                const std::string& end) {
  const auto address = take<in6_addr>(bytes);
  const std::string router = address_to_text(ipv6 ? AF_INET6 : AF_INET, &address);
  const std::string statement = start + router + end;
  HOLDS(lease_router(statement, ipv6) == router);
  HOLDS(lease_router("lease {\n\n  interface=eth0;\n" + statement + "}\n" + statement, ipv6) ==
        router);
}
