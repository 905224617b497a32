// Crash reports by backward-cpp: the stack with function names and lines, on standard error and in
// the log; then the signal's default action, so that a core file and the exit status stay what they
// would have been.
//
// Collecting a stack is not safe in a signal handler in all states of a process (it allocates). An
// alarm ends a report that gets stuck.
#include "platform/crash_report.h"

#define BACKWARD_HAS_DW 1
#include <paths.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <backward.hpp>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "platform/file_descriptor.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define LB_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define LB_SANITIZED 1
#endif
#endif

namespace {

constexpr int kFatalSignals[] = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP};
constexpr size_t kDepth = 64;
constexpr size_t kHandlerStack = size_t{1024} * 1024;
constexpr unsigned kReportSeconds = 30;

char program_name[64] = "wan_lb";
bool console_open = false;

void write_console(const char* text, size_t size) {
  if (!console_open) return;
  while (size > 0) {
    const ssize_t written = write(STDERR_FILENO, text, size);
    if (written <= 0) return;
    text += written;
    size -= static_cast<size_t>(written);
  }
}

// A way to the log that does not lead over the thread that serves it, which may wait for the log
// itself. What the log has no room for is lost: nothing here may wait.
class CrashLog {
 public:
  CrashLog() {
    if (!reach(SOCK_DGRAM)) is_stream_ = reach(SOCK_STREAM);
  }

  // As syslog(3) writes it, less the time, which the log notes itself.
  void write(const std::string& line) const {
    std::string message = "<" + std::to_string(LOG_DAEMON | LOG_CRIT) + ">wan_lb[" +
                          std::to_string(getpid()) + "]: " + line;
    if (is_stream_) message += '\0';  // where the message ends
    send(socket_.get(), message.data(), message.size(), MSG_NOSIGNAL);
  }

 private:
  bool reach(int type) {
    socket_ = FileDescriptor(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un log{};
    log.sun_family = AF_UNIX;
    strcpy(log.sun_path, _PATH_LOG);
    return connect(socket_.get(), reinterpret_cast<const sockaddr*>(&log), sizeof(log)) == 0;
  }

  FileDescriptor socket_;
  bool is_stream_ = false;
};

void write_line(const CrashLog& log, const std::string& line) {
  write_console((line + '\n').c_str(), line.size() + 1);
  log.write(line);
}

void report(int signal) {
  // The first word needs no memory: it comes out in every state of the process.
  write_console(program_name, strlen(program_name));
  write_console(": crash report\n", strlen(": crash report\n"));

  const CrashLog log;
  write_line(log, std::string(program_name) + ": fatal signal " + std::to_string(signal) + " (" +
                      strsignal(signal) + ")");
  backward::StackTrace stack;
  stack.load_here(kDepth);
  backward::Printer printer;
  printer.snippet = false;
  printer.color_mode = backward::ColorMode::never;
  std::ostringstream text;
  printer.print(stack, text);
  std::istringstream lines(text.str());
  for (std::string line; std::getline(lines, line);) write_line(log, line);
}

volatile sig_atomic_t reported_signal = 0;

void on_alarm(int) { raise(reported_signal); }

void end_after(unsigned seconds) {
  struct sigaction action {};
  action.sa_handler = on_alarm;
  sigaction(SIGALRM, &action, nullptr);
  sigset_t alarm_only;
  sigemptyset(&alarm_only);
  sigaddset(&alarm_only, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &alarm_only, nullptr);
  alarm(seconds);
}

// Installed with SA_RESETHAND and SA_NODEFER: the signal's default action is back by now, for a
// second crash in here as for the raise at the end (or by the alarm).
void on_fatal_signal(int signal) {
  reported_signal = signal;
  end_after(kReportSeconds);
  report(signal);
  raise(signal);
}

}  // namespace

void backtrace_set_program_name(const char* name) {
  const char* const slash = strrchr(name, '/');
  const char* const base = slash == nullptr ? name : slash + 1;
  const size_t size = strnlen(base, sizeof(program_name) - 1);
  memcpy(program_name, base, size);
  program_name[size] = '\0';
}

void backtrace_open_console() { console_open = true; }

void backtrace_install_signal_handlers() {
#if !defined(LB_SANITIZED)  // a sanitizer's own report says more
  // A stack of its own lets the main thread report that its stack is used up.
  stack_t stack{};
  stack.ss_size = kHandlerStack;
  static void* const memory = malloc(kHandlerStack);
  stack.ss_sp = memory;
  if (memory != nullptr) sigaltstack(&stack, nullptr);

  struct sigaction action {};
  action.sa_handler = on_fatal_signal;
  action.sa_flags = static_cast<int>(SA_ONSTACK | SA_NODEFER | SA_RESETHAND);
  sigfillset(&action.sa_mask);
  for (const int signal : kFatalSignals) sigdelset(&action.sa_mask, signal);
  sigdelset(&action.sa_mask, SIGALRM);
  for (const int signal : kFatalSignals) sigaction(signal, &action, nullptr);
#else
  (void)on_fatal_signal;
  (void)kFatalSignals;
  (void)kHandlerStack;
#endif
}
