#include "support/wrapped_calls.h"

#include <chrono>
#include <cstdlib>

#include "support/test_start.h"

#define LB_WRAP(name, result, parameters, arguments, form)                                 \
  extern "C" result __real_##name parameters;                                              \
  extern "C" result __wrap_##name parameters;                                              \
  namespace wrapped {                                                                      \
  constinit WrappedCall<result parameters> name(#name, &__real_##name, FailureForm::form); \
  }                                                                                        \
  result __wrap_##name parameters { return wrapped::name.call arguments; }
#include "support/wrapped_calls.def"
#undef LB_WRAP

// The forms that the same calls take under _FORTIFY_SOURCE and with 64-bit file offsets.
extern "C" {
ssize_t __wrap___recv_chk(int fd, void* data, size_t size, size_t, int flags) {
  return wrapped::recv.call(fd, data, size, flags);
}
ssize_t __wrap___recvfrom_chk(int fd, void* data, size_t size, size_t, int flags, sockaddr* address,
                              socklen_t* address_size) {
  return wrapped::recvfrom.call(fd, data, size, flags, address, address_size);
}
int __wrap___poll_chk(pollfd* fds, nfds_t count, int timeout, size_t) {
  return wrapped::poll.call(fds, count, timeout);
}
int __wrap___ppoll_chk(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask,
                       size_t) {
  return wrapped::ppoll.call(fds, count, timeout, mask);
}
void __wrap___syslog_chk(int priority, int, const char* format, const char* text) {
  wrapped::syslog.call(priority, format, text);
}
int __wrap_stat64(const char* path, struct stat* result) {
  return wrapped::stat.call(path, result);
}
int __wrap_open64(const char* path, int flags, mode_t mode) {
  return wrapped::open.call(path, flags, mode);
}
FILE* __wrap_fopen64(const char* path, const char* mode) { return wrapped::fopen.call(path, mode); }
int __wrap_snprintf(char* text, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int __wrap_snprintf(char* text, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = wrapped::vsnprintf.call(text, size, format, arguments);
  va_end(arguments);
  return result;
}
}

namespace {

WrappedCallBase* const kCalls[] = {
#define LB_WRAP(name, result, parameters, arguments, form) &wrapped::name,
#include "support/wrapped_calls.def"
#undef LB_WRAP
};

void reset_all_calls() {
  for (WrappedCallBase* call : kCalls) call->reset_calls();
}

const AtTestStart reset_at_test_start(&reset_all_calls);

}  // namespace

bool WrappedCallBase::take_fault(int* error) {
  calls_.fetch_add(1, std::memory_order_relaxed);
  if (!faulty_.load(std::memory_order_acquire)) return false;
  SpinLockHolder holder(lock_);
  if (skip_ > 0) {
    --skip_;
    return false;
  }
  if (times_ <= 0) return false;
  if (times_ != Fault::kAlways) --times_;
  *error = error_;
  return true;
}

void WrappedCallBase::set_fault(int error, int skip, int times) {
  SpinLockHolder holder(lock_);
  error_ = error;
  skip_ = skip;
  times_ = times;
  faulty_.store(true, std::memory_order_release);
}

void WrappedCallBase::clear_fault() {
  SpinLockHolder holder(lock_);
  faulty_.store(false, std::memory_order_release);
}

void WrappedCallBase::wait_for_callers(const std::atomic<int>& callers) const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (callers.load() > 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      std::fprintf(stderr, "a thread stays inside the hook of %s\n", name_);
      std::abort();
    }
    sched_yield();
  }
}

WrappedCallBase& wrapped_call(std::string_view name) {
  for (WrappedCallBase* call : kCalls) {
    if (name == call->name()) return *call;
  }
  std::fprintf(stderr, "no wrapped call is named %s\n", std::string(name).c_str());
  std::abort();
}

int call_count(std::string_view name) { return wrapped_call(name).calls(); }

Fault::Fault(std::string_view name, int error, int skip, int times) : call_(wrapped_call(name)) {
  call_.set_fault(error, skip, times);
}

Fault::~Fault() { call_.clear_fault(); }
