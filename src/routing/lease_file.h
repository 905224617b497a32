// The router in a DHCP client's lease file.
//
// The IPv4 client writes option statements ("  option routers 192.0.2.1;"), the IPv6 client's
// script shell assignments ("new_routers='fe80::1'"). Both are read as lines of at most 1023 bytes:
// a longer line counts as several.
#pragma once

#include <optional>
#include <string>
#include <string_view>

// The first router that the text names. No value when no line is a router line; an empty text when
// the first router line has no usable address. Never fails, whatever the bytes are.
std::optional<std::string> lease_router(std::string_view text, bool ipv6);

// What the file holds, whatever its format; no value when `path` cannot be read or is no regular
// file (a special file is logged).
std::optional<std::string> read_lease_text(const std::string& path);

// The router that the file at `path` names; no value also when there is no text.
std::optional<std::string> read_lease_router(const std::string& path, bool ipv6);
