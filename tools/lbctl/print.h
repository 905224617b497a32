// Output for people and for programs.
#pragma once

#include <ctime>

#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace lbctl {

// A document keeps the order in which its members were added.
using Json = nlohmann::ordered_json;

// A document of lbctl: its first member is "schema": "wan_lb/NAME/1".
Json document(const std::string& name);

// Prints the document on standard output. Texts that are no UTF-8 get replacement characters.
void print_document(const Json& document);

// The same for text, as it is.
void print_text(std::string_view text);

// One line on standard error, after "lbctl: ".
void complain(const std::string& text);

// The text without what could steer a terminal: control characters, also those of the second set
// (U+0080 to U+009F, and the same as bytes outside of UTF-8), become '?'.
std::string printable(std::string_view text);

// Whether results may be coloured: on a terminal only, and not with NO_COLOR
// (https://no-color.org).
bool wants_colour();

enum class Colour { kGreen, kRed, kYellow, kBold, kDim };

// The text in the colour, where wanted.
std::string coloured(std::string_view text, Colour colour, bool wanted);

// RFC 3339 in UTC, to the second: "2026-01-31T23:59:59Z".
std::string rfc3339(std::time_t time);

// A span of seconds in at most two units: "45 s", "12 min 5 s", "3 h 20 min", "5 d 2 h".
std::string span(int64_t seconds);

// How an interface is written wherever no family is said otherwise: "wan1", or for IPv6 "wan1/6".
std::string interface_label(const std::string& name, bool ipv6);

// The other way; false for a label without a name.
bool parse_interface_label(std::string_view label, std::string& name, bool& ipv6);

}  // namespace lbctl
