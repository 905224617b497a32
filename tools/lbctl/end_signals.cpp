#include "lbctl/end_signals.h"

#include <initializer_list>

namespace lbctl {

namespace {

volatile std::sig_atomic_t end_wanted = 0;

void note_end(int /*number*/) { end_wanted = 1; }

void note_nothing(int /*number*/) {}

}  // namespace

sigset_t take_end_signals() {
  struct sigaction action {};
  sigset_t held;
  sigset_t while_waiting;
  sigemptyset(&held);
  for (const int number : {SIGINT, SIGTERM, SIGCHLD}) {
    action.sa_handler = number == SIGCHLD ? note_nothing : note_end;
    sigaction(number, &action, nullptr);
    sigaddset(&held, number);
  }
  sigprocmask(SIG_BLOCK, &held, &while_waiting);
  for (const int number : {SIGINT, SIGTERM, SIGCHLD}) sigdelset(&while_waiting, number);
  return while_waiting;
}

bool end_is_wanted() { return end_wanted != 0; }

}  // namespace lbctl
