#include "lbctl/history_summary.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <utility>

namespace lbctl {

namespace {

constexpr int64_t kMicrosecond = 1'000'000;
constexpr double kDay = 86400.0 * kMicrosecond;

struct Open {
  HistoryInterface result;
  bool is_known = false;
  bool active = false;
  int64_t since = 0;
  std::optional<size_t> change;  // its place in the history, if it lies within the span
};

// Ends the present state of an interface at `to`.
void close_period(Open& open, int64_t to, History& history) {
  if (!open.is_known) return;
  const int64_t from = std::max(open.since, history.begin);
  if (to > from) open.result.periods.push_back({from, to, open.active});
  if (open.change) history.changes[*open.change].duration = to - open.since;
}

void add_up(HistoryInterface& interface) {
  int64_t active = 0;
  int64_t known = 0;
  for (const HistoryInterface::Period& period : interface.periods) {
    known += period.to - period.from;
    if (period.active) active += period.to - period.from;
  }
  if (known == 0) return;
  interface.availability_percent = 100.0 * static_cast<double>(active) / static_cast<double>(known);
  interface.flaps_per_day =
      static_cast<double>(interface.flaps) * kDay / static_cast<double>(known);
}

}  // namespace

History summarize(const std::vector<StateChange>& changes, std::optional<int64_t> since,
                  int64_t until) {
  History history;
  history.begin = since.value_or(changes.empty() ? until : std::min(changes.front().time, until));
  history.end = std::max(until, history.begin);
  std::map<std::pair<bool, std::string>, Open> interfaces;
  for (const StateChange& change : changes) {
    if (change.time > history.end) break;
    Open& open = interfaces[{change.ipv6, change.interface}];
    if (open.is_known && open.active == change.active) continue;
    close_period(open, change.time, history);
    const bool is_within = change.time >= history.begin;
    if (is_within) {
      ++open.result.changes;
      if (open.is_known && !change.active) ++open.result.flaps;
      history.changes.push_back({change});
    }
    open.change = is_within ? std::optional(history.changes.size() - 1) : std::nullopt;
    open.is_known = true;
    open.active = change.active;
    open.since = change.time;
  }
  for (auto& [key, open] : interfaces) {
    close_period(open, history.end, history);
    open.result.ipv6 = key.first;
    open.result.name = key.second;
    add_up(open.result);
    history.interfaces.push_back(std::move(open.result));
  }
  return history;
}

std::optional<int64_t> parse_history_time(std::string_view text, std::time_t now) {
  std::string_view rest = text;
  if (const auto time = take_rfc3339(rest)) return rest.empty() ? time : std::nullopt;
  const std::string midnight = std::string(text) + "T00:00:00";
  rest = midnight;
  if (const auto time = take_rfc3339(rest)) return rest.empty() ? time : std::nullopt;

  constexpr int64_t kMostBack = 1'000'000'000;
  constexpr std::pair<char, int64_t> kUnits[] = {
      {'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}, {'w', int64_t{7} * 86400}};
  int64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || end - stop != 1 || number < 0 || number > kMostBack)
    return std::nullopt;
  for (const auto& [letter, seconds] : kUnits) {
    if (letter == *stop && number <= kMostBack / seconds)
      return (now - number * seconds) * kMicrosecond;
  }
  return std::nullopt;
}

}  // namespace lbctl
