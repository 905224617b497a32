// The log contract of a tool: messages are kept for who asks, none goes to the system's log.
#pragma once

#include <string>
#include <vector>

namespace lbctl {

struct LogMessage {
  int priority = 0;  // of syslog(3)
  std::string text;  // "%WAN-W-ERR: ..."
};

// The messages since the last call; the calling thread's own.
std::vector<LogMessage> take_log_messages();

// Until it is called again messages are dropped unread, which costs next to nothing.
void keep_log_messages(bool keep);

}  // namespace lbctl
