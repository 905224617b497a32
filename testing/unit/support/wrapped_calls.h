// System and library calls under the tests' control.
//
// The linker sends every call that wrapped_calls.def lists, made by the daemon's code or by a test,
// through an object of namespace `wrapped`. Left alone it counts the call and passes it on. A test
// may make calls fail or put a function of its own in their place:
//
//   Fault fault("socket", EMFILE);                      // every call, as long as `fault` lives
//   Fault fault("bind", EACCES, /*skip=*/1, /*times=*/1);  // the second call only
//   CallHook hook(wrapped::sendto, [&](int fd, const void* data, ...) { ...; return
//   wrapped::sendto.real(...); }); EXPECT_EQ(call_count("close"), 1);                  // since the
//   test started
//
// A fault comes before a hook. Both apply to all threads. googletest itself goes through the wraps
// as well: while a fault of a pthread_mutex call lives, use no mock and expect a failing assertion
// to abort. Calls made inside shared libraries (libc's own, say) are not seen.
#pragma once

#include <arpa/inet.h>
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

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <memory>
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
    std::shared_ptr<const Function> hook;
    {
      SpinLockHolder holder(lock_);
      hook = hook_;
    }
    return hook == nullptr ? real_(arguments...) : (*hook)(arguments...);
  }

  void set_hook(Function function) {
    auto hook = function ? std::make_shared<const Function>(std::move(function)) : nullptr;
    SpinLockHolder holder(lock_);
    hooked_.store(hook != nullptr, std::memory_order_release);
    hook_.swap(hook);
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

  Pointer real_;
  FailureForm form_;
  std::shared_ptr<const Function> hook_;
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

// Puts a function in the place of a call while it lives. A call that is under way in another thread
// when the hook goes still finishes in the hook: join such threads first.
template <typename Signature>
class CallHook {
 public:
  template <typename Function>
  CallHook(WrappedCall<Signature>& call, Function function) : call_(call) {
    call_.set_hook(std::move(function));
  }
  ~CallHook() { call_.set_hook(nullptr); }
  CallHook(const CallHook&) = delete;
  CallHook& operator=(const CallHook&) = delete;

 private:
  WrappedCall<Signature>& call_;
};
