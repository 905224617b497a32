// One thread: it waits for the keyboard, for signals and for files of the daemon that were written
// (inotify(7)), and looks by itself once a second, since ages grow and the kernel's routes change.
#include "lbctl/watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <ctime>
#include <map>
#include <stdexcept>
#include <utility>

#include "lbctl/command.h"
#include "lbctl/terminal_screen.h"
#include "lbctl/watch_view.h"
#include "platform/file_descriptor.h"

namespace lbctl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Several workers write several files: they are read together.
constexpr milliseconds kGathering{50};
constexpr milliseconds kTick{1000};

int64_t seconds_of(Clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

// Takes the signals that would end the program as events; they are as before when it goes.
class EndSignals {
 public:
  EndSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&set, signal);
    pthread_sigmask(SIG_BLOCK, &set, &before_);
    descriptor_ = FileDescriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    // Without it Ctrl-C would be lost.
    if (!descriptor_.valid()) {
      pthread_sigmask(SIG_SETMASK, &before_, nullptr);
      throw std::runtime_error("no file descriptor is left for signals");
    }
  }
  ~EndSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  EndSignals(const EndSignals&) = delete;
  EndSignals& operator=(const EndSignals&) = delete;

  int descriptor() const { return descriptor_.get(); }

  // The one that came; 0 for none.
  int take() const {
    signalfd_siginfo info{};
    if (read(descriptor_.get(), &info, sizeof(info)) != sizeof(info)) return 0;
    return static_cast<int>(info.ssi_signo);
  }

 private:
  sigset_t before_{};
  FileDescriptor descriptor_;
};

// Tells when a file of the directory was written. The directory may come and go.
class WrittenFiles {
 public:
  explicit WrittenFiles(std::string directory)
      : directory_(std::move(directory)), descriptor_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {}

  int descriptor() const { return descriptor_.get(); }

  // Asked once in a while, it begins to watch a directory that was made meanwhile.
  void watch() const {
    inotify_add_watch(descriptor_.get(), directory_.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO);
  }

  void forget_events() const {
    std::array<char, 4096> buffer;
    while (read(descriptor_.get(), buffer.data(), buffer.size()) > 0) {
    }
  }

 private:
  const std::string directory_;
  const FileDescriptor descriptor_;
};

// Reads a kernel's table anew once a second at most: it may be large.
class RecentTables {
 public:
  std::optional<std::vector<KernelRoute>> read(const std::string& vrf, bool ipv6) {
    auto& [time, table] = tables_[{vrf, ipv6}];
    const Clock::time_point now = Clock::now();
    if (time == Clock::time_point{} || now - time >= kTick) {
      table = read_kernel_routes(vrf, ipv6);
      time = now;
    }
    return table;
  }

 private:
  struct Recent {
    Clock::time_point time;
    std::optional<std::vector<KernelRoute>> table;
  };
  std::map<std::pair<std::string, bool>, Recent> tables_;
};

// The first line in view after a key.
size_t scrolled(Key key, size_t first, size_t page) {
  switch (key) {
    case Key::kUp:
      return first - (first == 0 ? 0 : 1);
    case Key::kDown:
      return first + 1;
    case Key::kPageUp:
      return first - std::min(first, page);
    case Key::kPageDown:
      return first + page;
    case Key::kHome:
      return 0;
    case Key::kEnd:
      return SIZE_MAX / 2;
    default:
      return first;
  }
}

class Watch {
 public:
  Watch(const std::string& directory, const Families& families)
      : directory_(directory),
        families_(families),
        files_(directory + "/wlb_dump"),
        view_("lbctl status -o " + plain(directory)) {}

  // The signal that ended it; 0 for a key.
  int run() {
    Clock::time_point due = Clock::now();
    while (true) {
      const Clock::time_point now = Clock::now();
      if (now >= due) {
        look();
        due = Clock::now() + kTick;
      }
      screen_.show(view_.head(), view_.body(seconds_of(Clock::now())), first_);
      std::array<pollfd, 3> events{{{STDIN_FILENO, POLLIN, 0},
                                    {signals_.descriptor(), POLLIN, 0},
                                    {files_.descriptor(), POLLIN, 0}}};
      const auto wait = std::chrono::ceil<milliseconds>(due - Clock::now()).count();
      poll(events.data(), events.size(), static_cast<int>(std::max<int64_t>(wait, 0)));
      if (const int signal = signals_.take(); signal != 0) return signal;
      if ((events[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) return 0;
      for (Key key = screen_.read_key(); key != Key::kNone; key = screen_.read_key()) {
        if (key == Key::kQuit) return 0;
        first_ = scrolled(key, first_, screen_.page());
      }
      if ((events[2].revents & POLLIN) != 0) {
        files_.forget_events();
        due = std::min(due, Clock::now() + kGathering);
      }
    }
  }

 private:
  void look() {
    files_.watch();
    try {
      const Dumps dumps = read_dumps(directory_, families_);
      view_.update(make_status(dumps, families_, std::time(nullptr),
                               [this](const std::string& vrf, bool ipv6) {
                                 return tables_.read(vrf, ipv6);
                               }),
                   seconds_of(Clock::now()));
    } catch (const Failure& failure) {
      view_.fail(failure.what(), seconds_of(Clock::now()));
    }
  }

  const std::string directory_;
  const Families families_;
  const EndSignals signals_;  // before the screen, whose library would take some of them
  const WrittenFiles files_;
  RecentTables tables_;
  WatchView view_;
  size_t first_ = 0;
  TerminalScreen screen_;
};

}  // namespace

int watch_status(const std::string& output_directory, const Families& families) {
  const int signal = Watch(output_directory, families).run();
  if (signal != 0 && signal != SIGINT) {
    std::signal(signal, SIG_DFL);
    std::raise(signal);
  }
  return kExitOk;
}

}  // namespace lbctl
