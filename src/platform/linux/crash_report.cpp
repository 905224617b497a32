// Crash reports by backward-cpp: the stack with function names and lines, on standard error and in
// the log; then the signal's default action, so that a core file and the exit status stay what they
// would have been.
//
// Collecting a stack is not safe in a signal handler in all states of a process (it allocates). An
// alarm ends a report that gets stuck.
#include "platform/crash_report.h"

#define BACKWARD_HAS_DW 1
#include <signal.h>
#include <unistd.h>

#include <backward.hpp>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "platform/syslog.h"

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
constexpr int kPriority = 2;  // critical
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

void write_line(const std::string& line) {
  write_console((line + '\n').c_str(), line.size() + 1);
  SYSLOG_message(kPriority, "%s", line.c_str());
}

void report(int signal) {
  // The first word needs no memory: it comes out in every state of the process.
  write_console(program_name, strlen(program_name));
  write_console(": crash report\n", strlen(": crash report\n"));

  write_line(std::string(program_name) + ": fatal signal " + std::to_string(signal) + " (" +
             strsignal(signal) + ")");
  backward::StackTrace stack;
  stack.load_here(kDepth);
  backward::Printer printer;
  printer.snippet = false;
  printer.color_mode = backward::ColorMode::never;
  std::ostringstream text;
  printer.print(stack, text);
  std::istringstream lines(text.str());
  for (std::string line; std::getline(lines, line);) write_line(line);
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
