// The words of a route line, for the syntaxes that read back what they wrote.
#pragma once

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>

#include "routing/route_syntax.h"

// Takes words, separated by one blank, from the front of a line that ends with ";".
class RouteWords {
 public:
  explicit RouteWords(std::string_view line) : rest_(line) {
    if (!rest_.empty() && rest_.back() == ';') rest_.remove_suffix(1);
  }

  // True, and the word is taken, when it is the next one.
  bool take(std::string_view word) {
    if (next() != word || word.empty()) return false;
    drop();
    return true;
  }

  // The next word, whatever it is; false when there is none.
  bool take_text(std::string& text) {
    text = next();
    drop();
    return !text.empty();
  }

  // A number of 32 bits; false, and nothing taken, for another word.
  template <class Number>
  bool take_number(Number& number) {
    const std::string_view word = next();
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, number);
    if (word.empty() || error != std::errc() || stop != end) return false;
    drop();
    return true;
  }

 private:
  std::string_view next() const { return rest_.substr(0, rest_.find(' ')); }
  void drop() { rest_.remove_prefix(std::min(next().size() + 1, rest_.size())); }

  std::string_view rest_;
};

// `route`, if `syntax` writes it as exactly this line.
inline std::optional<StaticRoute> written_as(const RouteSyntax& syntax, StaticRoute route,
                                             const std::string& line) {
  if (route.nexthops.empty() || syntax.line(route) != line + "\n") return std::nullopt;
  return route;
}
