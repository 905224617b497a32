#include "output/status_report.h"

#include <array>
#include <ctime>

namespace {

constexpr uint32_t kMinute = 60;
constexpr uint32_t kHour = 60 * kMinute;
constexpr uint32_t kDay = 24 * kHour;

// "Sun Nov 15 09:17:08 2026" and a newline, in local time. Like the ages, the stamp is read without
// a sign, so that it is right from 2038 on too.
std::string date_line(int32_t seconds) {
  const time_t time = static_cast<uint32_t>(seconds);
  std::array<char, 64> text;
  return ctime_r(&time, text.data()) == nullptr ? "\n" : text.data();
}

const char* marker(int32_t result) {
  switch (result) {
    case kResultNone:
      return " ";
    case kResultSuccess:
      return "+";
    case kResultFailure:
      return "-";
    default:
      return "";
  }
}

std::string since_success(uint32_t time, uint32_t now) {
  if (time == 0) return "n/a\t\t";
  return elapsed_text(now <= time ? 0 : now - time) + "\t";
}

// Unlike the line of the success, this one does not hide a clock that was set back: the difference
// wraps around and shows as a very large number of days.
std::string since_failure(uint32_t time, uint32_t now) {
  if (time == 0) return "n/a\t\t";
  return elapsed_text(now - time) + "\t";
}

}  // namespace

std::string elapsed_text(uint32_t seconds) {
  std::string text;
  if (seconds >= kDay) text += std::to_string(seconds / kDay) + "d";
  seconds %= kDay;
  if (seconds >= kHour) text += std::to_string(seconds / kHour) + "h";
  seconds %= kHour;
  if (seconds >= kMinute) text += std::to_string(seconds / kMinute) + "m";
  return text + std::to_string(seconds % kMinute) + "s";
}

std::string interface_block(const InterfaceSnapshot& interface, uint32_t now) {
  const InterfaceState& state = interface.state;
  std::string text = "Interface:  " + interface.settings.name + "\n";
  text += std::string("  Status:  ") + (state.active ? "active" : "failed") + "\n";
  text += "  Last Status Change:  " + date_line(state.last_state_change);
  for (const TestReport& test : interface.tests) {
    text += std::string("  ") + marker(test.result) + "Test:  " + test.description + "\n";
  }
  text += "    Last Interface Success:  " +
          since_success(static_cast<uint32_t>(state.last_success), now) + "\n";
  text += "    Last Interface Failure:  " +
          since_failure(static_cast<uint32_t>(state.last_failure), now) + "\n\n";
  return text;
}
