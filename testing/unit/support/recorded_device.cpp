#include "support/recorded_device.h"

#include <cerrno>
#include <map>
#include <utility>

#include "platform/crash_report.h"
#include "platform/interface_names.h"
#include "platform/netns.h"
#include "support/spin_lock.h"
#include "support/test_start.h"

namespace {

// Never destroyed: threads may call until the process ends.
struct Device {
  SpinLock lock;
  std::vector<std::string> calls;
  recorded_device::Words words;
  int netns_result = 0;
  bool netns_replaced = false;
  std::map<std::string, std::string> names;
};

Device& the_device() {
  static Device* const device = new Device;
  return *device;
}

void reset_device() {
  Device& device = the_device();
  SpinLockHolder holder(device.lock);
  device.calls.clear();
  device.words = {};
  device.netns_result = 0;
  device.netns_replaced = false;
  device.names.clear();
}

const AtTestStart reset_at_test_start(&reset_device);

void note(std::string call) {
  Device& device = the_device();
  SpinLockHolder holder(device.lock);
  device.calls.push_back(std::move(call));
}

}  // namespace

void backtrace_set_program_name(const char* name) {
  note(std::string("backtrace_set_program_name ") + name);
}

void backtrace_open_console() { note("backtrace_open_console"); }

void backtrace_install_signal_handlers() { note("backtrace_install_signal_handlers"); }

void send_signal_live(pid_t pid, int alive) {
  note("send_signal_live " + std::to_string(pid) + " " + std::to_string(alive));
}

void set_timeout(WatchdogWord* timeout) {
  note("set_timeout");
  Device& device = the_device();
  SpinLockHolder holder(device.lock);
  device.words.learned = timeout;
}

void send_and_shift_timeout(WatchdogWord* timeout, WatchdogWord* last, int alive) {
  note("send_and_shift_timeout " + std::to_string(alive));
  Device& device = the_device();
  SpinLockHolder holder(device.lock);
  device.words.timeout = timeout;
  device.words.last = last;
}

int lh_netns_set(const char* name) {
  note(std::string("lh_netns_set ") + name);
  Device& device = the_device();
  SpinLockHolder holder(device.lock);
  if (device.netns_result != 0) errno = ENOENT;
  return device.netns_result;
}

bool netns_was_replaced(const char* name) {
  note(std::string("netns_was_replaced ") + name);
  Device& device = the_device();
  SpinLockHolder holder(device.lock);
  return device.netns_replaced;
}

const char* interfaces_linux_to_zel_name_static(const char* linux_name, int) {
  thread_local std::string result;
  Device& device = the_device();
  SpinLockHolder holder(device.lock);
  const auto found = device.names.find(linux_name);
  result = found == device.names.end() ? linux_name : found->second;
  return result.c_str();
}

namespace recorded_device {

std::vector<std::string> calls() {
  Device& device = the_device();
  SpinLockHolder holder(device.lock);
  return device.calls;
}

Words words() {
  Device& device = the_device();
  SpinLockHolder holder(device.lock);
  return device.words;
}

void set_netns_result(int result) {
  Device& device = the_device();
  SpinLockHolder holder(device.lock);
  device.netns_result = result;
}

void set_netns_replaced(bool replaced) {
  Device& device = the_device();
  SpinLockHolder holder(device.lock);
  device.netns_replaced = replaced;
}

void name_interface(const std::string& linux_name, const std::string& device_name) {
  Device& device = the_device();
  SpinLockHolder holder(device.lock);
  device.names[linux_name] = device_name;
}

}  // namespace recorded_device
