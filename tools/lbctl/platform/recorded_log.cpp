#include "lbctl/platform/recorded_log.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

#include "platform/syslog.h"

namespace lbctl {
namespace {

constexpr size_t kLongestMessage = 4096;
constexpr size_t kMostMessages = 100'000;

struct Record {
  bool keep = true;
  std::vector<LogMessage> messages;
};

Record& record() {
  static thread_local Record record;
  return record;
}

}  // namespace

std::vector<LogMessage> take_log_messages() { return std::exchange(record().messages, {}); }

void keep_log_messages(bool keep) { record().keep = keep; }

}  // namespace lbctl

int SYSLOG_flag_get(int /*facility*/, int level) {
  return lbctl::record().keep && level <= 2 ? 1 : 0;
}

void SYSLOG_message(int priority, const char* format, ...) {
  auto& messages = lbctl::record().messages;
  if (messages.size() >= lbctl::kMostMessages) return;
  std::string text(lbctl::kLongestMessage, '\0');
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  text.resize(length < 0 ? 0 : std::min(static_cast<size_t>(length), text.size() - 1));
  messages.push_back({priority, std::move(text)});
}
