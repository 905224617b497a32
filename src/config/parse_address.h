// Address texts, for callers that cannot go on without an address.
#pragma once

#include <string>

// Parses the text form of an address of `address_family` (AF_INET, AF_INET6) into `address`
// (in_addr or in6_addr, network byte order). False, logged, for a text that is no address. Any
// thread.
bool parse_address(int address_family, const std::string& text, void* address);

// Logs what parse_address does, for callers that convert where nothing may be logged: `status` is
// what the conversion (address_from_text) said.
void log_no_address(int status);
