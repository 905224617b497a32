// Lines of a log, and names from it in texts and pictures.
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lbctl/history_output.h"
#include "lbctl/history_summary.h"
#include "lbctl/log_line.h"
#include "support/bytes.h"
#include "support/property.h"

namespace {

constexpr std::time_t kNow = 1'770'000'000;
constexpr int64_t kSecond = 1'000'000;

void check_history(const std::vector<lbctl::StateChange>& changes) {
  const lbctl::History history = lbctl::summarize(changes, std::nullopt, kNow * kSecond);
  uint64_t count = 0;
  for (const lbctl::HistoryInterface& interface : history.interfaces) {
    count += interface.changes;
    HOLDS(interface.flaps <= interface.changes);
    const auto& percent = interface.availability_percent;
    HOLDS(!percent || (*percent >= 0 && *percent <= 100));
    for (const auto& period : interface.periods)
      HOLDS(history.begin <= period.from && period.from < period.to && period.to <= history.end);
  }
  HOLDS(count == history.changes.size());
  for (const lbctl::HistoryChange& change : history.changes) HOLDS(change.duration >= 0);
  lbctl::history_text(history, false);
  lbctl::history_document(history).dump(-1, ' ', false, lbctl::Json::error_handler_t::replace);
  const std::string picture = lbctl::history_picture(history);
  for (const char character : picture) {
    const auto byte = static_cast<unsigned char>(character);
    HOLDS(byte == '\n' || (byte >= 0x20 && byte != 0x7F));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  [[maybe_unused]] static const bool zone_is_set = [] {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    return true;
  }();
  const ExactCopy copy({data, size});
  const std::string_view text = copy.text();
  std::vector<lbctl::StateChange> changes;
  for (size_t start = 0; start < text.size();) {
    const size_t end = std::min(text.find('\n', start), text.size());
    const std::string_view line = text.substr(start, end - start);
    start = end + 1;
    lbctl::parse_history_time(line, kNow);
    auto change = lbctl::parse_log_line(line, kNow);
    if (!change) continue;
    HOLDS(!change->interface.empty());
    HOLDS(line.find("interface " + change->interface + " changed state to ") != line.npos);
    if (!changes.empty() && change->time < changes.back().time) change->time = changes.back().time;
    changes.push_back(std::move(*change));
  }
  check_history(changes);
  return 0;
}
