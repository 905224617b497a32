// System and library calls under the tests' control.
//
// The linker sends every call that wrapped_calls.def lists, made by the daemon's code or by a test,
// through an object of namespace `wrapped`. Left alone it counts the call and passes it on. A test
// may make calls fail or put a function of its own in their place:
//
//   Fault fault("socket", EMFILE);                      // every call, as long as `fault` lives
//   Fault fault("bind", EACCES, /*skip=*/1, /*times=*/1);  // the second call only
//   CallHook hook(wrapped::sendto, [&](int fd, ...) { ...; return wrapped::sendto.real(...); });
//   EXPECT_EQ(call_count("close"), 1);                     // since the test started
//
// A fault comes before a hook. Both apply to all threads. A hook inside another one's life takes
// its place until it goes. googletest itself goes through the wraps as well: while a fault of a
// pthread_mutex call lives, use no mock and expect a failing assertion to abort. Calls made inside
// shared libraries (libc's own, say) are not seen.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "support/spin_lock.h"

using WrappedThreadStart = void* (*)(void*);

// How a call tells its failure; see wrapped_calls.def.
enum class FailureForm { kMinusOne, kNothing, kCode };

// The part that has no types. Constant-initialised and never destroyed in effect: calls arrive
// before main and after it.
class WrappedCallBase {
 public:
  constexpr explicit WrappedCallBase(const char* name) : name_(name) {}

  const char* name() const { return name_; }
  int calls() const { return calls_.load(); }
  void reset_calls() { calls_.store(0); }

  void set_fault(int error, int skip, int times);
  void clear_fault();

 protected:
  // Notes a call; true when it has to fail, with the error in `*error`.
  bool take_fault(int* error);

  // Ends the program when they stay inside for 20 s: a thread waits there that nobody ends.
  void wait_for_callers(const std::atomic<int>& callers) const;

  std::atomic<bool> hooked_{false};
  SpinLock lock_;

 private:
  const char* name_;
  std::atomic<int> calls_{0};
  std::atomic<bool> faulty_{false};
  int error_ = 0;
  int skip_ = 0;
  int times_ = 0;
};

template <typename Signature>
class WrappedCall;

template <typename Result, typename... Arguments>
class WrappedCall<Result(Arguments...)> : public WrappedCallBase {
 public:
  using Pointer = Result (*)(Arguments...);
  using Function = std::function<Result(Arguments...)>;

  constexpr WrappedCall(const char* name, Pointer pointer, FailureForm form)
      : WrappedCallBase(name), real_(pointer), form_(form) {}

  // The call itself, past faults and hooks.
  Result real(Arguments... arguments) const { return real_(arguments...); }

  Result call(Arguments... arguments) {
    int error = 0;
    if (take_fault(&error)) return failure(error);
    if (!hooked_.load(std::memory_order_acquire)) return real_(arguments...);
    const Visit visit(*this);
    return visit.hook == nullptr ? real_(arguments...) : visit.hook->function(arguments...);
  }

  // A function in the call's place, and how many threads are inside it.
  struct Hook {
    Function function;
    std::atomic<int> callers{0};
    Hook* outer = nullptr;  // whose place it has taken
  };

  void add_hook(Hook& hook) {
    SpinLockHolder holder(lock_);
    hook.outer = std::exchange(innermost_, &hook);
    hooked_.store(true, std::memory_order_release);
  }

  // A hook for the rest of the process, which is about to end.
  void set_hook(Function function) { add_hook(*new Hook{std::move(function)}); }

  // The hook that was there before takes its place again. Waits until no thread is inside `hook`,
  // whose owner may then let go what it refers to.
  void remove_hook(Hook& hook) {
    {
      SpinLockHolder holder(lock_);
      Hook** place = &innermost_;
      while (*place != &hook) place = &(*place)->outer;
      *place = hook.outer;
      hooked_.store(innermost_ != nullptr, std::memory_order_release);
    }
    wait_for_callers(hook.callers);
  }

 private:
  Result failure(int error) const {
    if (form_ == FailureForm::kCode) {
      if constexpr (std::is_integral_v<Result>) return static_cast<Result>(error);
    }
    errno = error;
    if constexpr (std::is_integral_v<Result>) {
      if (form_ == FailureForm::kMinusOne) return static_cast<Result>(-1);
    }
    return Result();
  }

  // A thread's way through the innermost hook, if there is one still.
  struct Visit {
    explicit Visit(WrappedCall& call) {
      SpinLockHolder holder(call.lock_);
      hook = call.innermost_;
      if (hook != nullptr) ++hook->callers;
    }
    ~Visit() {
      if (hook != nullptr) --hook->callers;
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

    Hook* hook = nullptr;
  };

  Pointer real_;
  FailureForm form_;
  Hook* innermost_ = nullptr;
};

namespace wrapped {
#define LB_WRAP(name, result, parameters, arguments, form) \
  extern WrappedCall<result parameters> name;
#include "support/wrapped_calls.def"
#undef LB_WRAP
}  // namespace wrapped

// The call of that name; a name that is not in the list ends the test program.
WrappedCallBase& wrapped_call(std::string_view name);

// Calls of `name` since the running test started, faulty and hooked ones included.
int call_count(std::string_view name);

// Makes calls fail with `error` while it lives: after `skip` more calls, `times` calls.
class Fault {
 public:
  static constexpr int kAlways = INT_MAX;
  Fault(std::string_view name, int error, int skip = 0, int times = kAlways);
  ~Fault();
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;

 private:
  WrappedCallBase& call_;
};

// Puts a function in the place of a call while it lives, and its end waits for the threads that are
// inside the function: what it refers to must live longer than the hook, and no longer. A thread
// that waits inside without end has to be ended first.
template <typename Signature>
class CallHook {
 public:
  template <typename Function>
  CallHook(WrappedCall<Signature>& call, Function function)
      : call_(call), hook_{std::move(function)} {
    call_.add_hook(hook_);
  }
  ~CallHook() { call_.remove_hook(hook_); }
  CallHook(const CallHook&) = delete;
  CallHook& operator=(const CallHook&) = delete;

 private:
  WrappedCall<Signature>& call_;
  typename WrappedCall<Signature>::Hook hook_;
};
