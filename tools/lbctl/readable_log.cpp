#include "lbctl/readable_log.h"

#include <algorithm>
#include <string_view>

namespace lbctl {

std::vector<std::string> readable(const std::vector<LogMessage>& messages) {
  constexpr std::string_view kTag = "wan_lb: ";
  std::vector<std::string> sentences;
  for (const LogMessage& message : messages) {
    std::string_view text = message.text;
    if (text.starts_with('%')) text.remove_prefix(std::min(text.find(": ") + 2, text.size()));
    if (text.starts_with(kTag)) text.remove_prefix(kTag.size());
    if (std::find(sentences.begin(), sentences.end(), text) == sentences.end()) {
      sentences.emplace_back(text);
    }
  }
  return sentences;
}

}  // namespace lbctl
