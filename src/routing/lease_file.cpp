#include "routing/lease_file.h"

#include <vector>

#include "config/log.h"
#include "config/tokens.h"
#include "platform/regular_file.h"

namespace {

constexpr size_t kMaxPiece = 1023;

// Far above any client's file. It bounds the time and memory that a runaway file can cost a worker.
constexpr size_t kMaxFileSize = size_t{16} << 20;

std::string first_token(const std::string& text, char delimiter) {
  return token_at(split_tokens(text, delimiter), 0);
}

// "option routers ADDRESS[,ADDRESS...];"
std::optional<std::string> option_routers(std::string_view line) {
  const std::vector<std::string> tokens = split_tokens(line, ' ');
  if (token_at(tokens, 1) != "routers") return std::nullopt;
  std::string router = first_token(token_at(tokens, 2), ',');
  if (!router.empty() && (router.back() < '0' || router.back() > '9')) router.pop_back();
  return router;
}

// "new_routers='ADDRESS'". The first and the last character of the first word go, whatever they
// are: where several addresses share the quotes, the first address loses its last character. The
// client is known to list one router; the cut is meant.
std::optional<std::string> new_routers(std::string_view line) {
  const std::vector<std::string> tokens = split_tokens(line, '=');
  if (token_at(tokens, 0) != "new_routers") return std::nullopt;
  std::string router = first_token(token_at(tokens, 1), ' ');
  if (!router.empty()) router.erase(0, 1);
  if (!router.empty()) router.pop_back();
  return router;
}

// Takes the next line, its newline included, from the front of `text`.
std::string_view take_piece(std::string_view& text) {
  std::string_view piece = text.substr(0, kMaxPiece);
  if (const size_t newline = piece.find('\n'); newline != std::string_view::npos) {
    piece = piece.substr(0, newline + 1);
  }
  text.remove_prefix(piece.size());
  return piece;
}

}  // namespace

std::optional<std::string> lease_router(std::string_view text, bool ipv6) {
  const auto parse_line = ipv6 ? new_routers : option_routers;
  while (!text.empty()) {
    std::string_view piece = take_piece(text);
    piece = piece.substr(0, piece.find('\0'));  // a line is a C string: it ends at a NUL byte
    // Both formats have the word; looking for it first makes a runaway file cheap.
    if (piece.find("routers") == std::string_view::npos) continue;
    if (std::optional<std::string> router = parse_line(piece)) return router;
  }
  return std::nullopt;
}

std::optional<std::string> read_lease_text(const std::string& path) {
  if (is_special_file(path)) {
    LB_WARNING("wan_lb: lease file '%s' is no regular file, not read", path.c_str());
    return std::nullopt;
  }
  const FileDescriptor file = open_to_read(path);
  if (!file.valid() || !is_regular_file(file)) return std::nullopt;
  return read_up_to(file, kMaxFileSize);
}

std::optional<std::string> read_lease_router(const std::string& path, bool ipv6) {
  const auto text = read_lease_text(path);
  return text ? lease_router(*text, ipv6) : std::nullopt;
}
