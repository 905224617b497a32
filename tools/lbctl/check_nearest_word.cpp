#include "lbctl/check_nearest_word.h"

#include <algorithm>
#include <cctype>

namespace lbctl {

namespace {

constexpr size_t kLongestWord = 64;

std::string plain(std::string_view word) {
  std::string text(word);
  for (char& character : text) {
    character = character == '_'
                    ? '-'
                    : static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
  }
  return text;
}

// Optimal string alignment.
size_t distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<size_t>> rows(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) rows[i][0] = i;
  for (size_t j = 0; j <= b.size(); ++j) rows[0][j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t replaced = rows[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      rows[i][j] = std::min({rows[i - 1][j] + 1, rows[i][j - 1] + 1, replaced});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        rows[i][j] = std::min(rows[i][j], rows[i - 2][j - 2] + 1);
      }
    }
  }
  return rows[a.size()][b.size()];
}

}  // namespace

std::string nearest_word(std::string_view word, const std::vector<std::string_view>& words) {
  if (word.size() > kLongestWord) return {};
  const std::string wanted = plain(word);
  std::string best;
  size_t least = std::max<size_t>(1, wanted.size() / 3) + 1;
  for (const std::string_view known : words) {
    const size_t changes = distance(wanted, plain(known));
    if (changes >= least) continue;
    least = changes;
    best = known;
  }
  return best;
}

}  // namespace lbctl
