#include "core/start_up.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <vector>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "config/log.h"
#include "core/command_line.h"
#include "core/lb_daemon.h"
#include "core/pid_file.h"
#include "core/vrf_thread.h"
#include "platform/clock.h"
#include "platform/crash_report.h"
#include "platform/descriptor_limit.h"

namespace {

// Gives the null device to those of the descriptors 0, 1 and 2 that are closed. Otherwise a file or
// socket would get the number, and with it an error text that is meant for the terminal.
void fill_standard_descriptors() {
  for (const int fd : {0, 1, 2}) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
  }
}

// The parent is done at once; the child goes on without a terminal.
void detach_from_terminal() {
  const pid_t child = fork();
  if (child < 0) {
    LB_ERROR("Can't fork to run as daemon, continuing in the foreground");
    return;
  }
  if (child > 0) {
    send_signal_live(child, 1);
    exit(0);
  }
  for (const int fd : {0, 1, 2}) close(fd);
  fill_standard_descriptors();
}

// A reader of standard error, or of a pipe in a file's place, may go away: the write fails, and
// that is all. A handler, since shell commands would inherit an ignored signal.
void survive_broken_pipes() {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  sigaction(SIGPIPE, &action, nullptr);
}

// Left to itself the allocator learns to keep large blocks once one was freed, in each thread's
// arena: one huge lease file would cost its memory for good.
void return_large_blocks() {
#ifdef __GLIBC__
  mallopt(M_MMAP_THRESHOLD, 256 * 1024);
#endif
}

// Starts the VRF threads and waits for them, for the life of the process.
void run_vrfs(LBDaemon& daemon) {
  std::vector<pthread_t> threads;
  for (const std::string& vrf : daemon.namespaces()) {
    const VrfPresence ipv4 = daemon.presence(vrf, false);
    const VrfPresence ipv6 = daemon.presence(vrf, true);
    if (!ipv4.has_interfaces && !ipv4.has_rules && !ipv6.has_interfaces && !ipv6.has_rules) {
      continue;
    }
    pthread_t thread;
    if (start_vrf_thread(daemon, vrf, thread) != 0) {
      LB_WARNING("Can't create new thread for VRF %s", vrf.c_str());
      exit(-1);
    }
    threads.push_back(thread);
  }
  for (const pthread_t thread : threads) pthread_join(thread, nullptr);
}

}  // namespace

int run_daemon(int argc, char** argv) {
  fill_standard_descriptors();
  survive_broken_pipes();
  backtrace_set_program_name(argv[0]);
  backtrace_open_console();
  backtrace_install_signal_handlers();

  const CommandLine line = parse_command_line(argc, argv);
  if (line.show_usage) {
    fputs(kUsage, stdout);
    return 0;
  }
  if (line.config_path.empty()) {
    puts("Configuration file is empty");
    return 0;
  }
  if (line.daemonise) detach_from_terminal();
  if (!line.pid_path.empty()) write_pid_file(line.pid_path);
  raise_descriptor_limit();
  return_large_blocks();

  // A plain pointer: an output mutex that cannot be destroyed ends the thread, and the unwinding of
  // that must not meet a smart pointer's noexcept. Static, so that it is no leak where it stays.
  static LBDaemon* const daemon = new LBDaemon(line.output_directory);
  if (!daemon->load_configuration(line.config_path)) {
    LB_ERROR("wan_lb: error loading configuration file: %s", line.config_path.c_str());
    return 0;
  }
  if (line.load_only) return 0;

  daemon->register_with_watchdog();
  run_vrfs(*daemon);
  // Nothing left to do, yet the process stays: its watchdog would take an exit for a crash.
  delete daemon;
  while (true) sleep_for({.tv_sec = 4, .tv_nsec = 0});
}
