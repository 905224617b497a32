// One write per check cycle and worker: the dumps first, the status report last. Everything is
// copied out of the model before it is formatted: no lock of the model is held over a file.
#include "output/lb_output.h"

#include <pthread.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <initializer_list>
#include <vector>

#include "config/log.h"
#include "output/status_report.h"
#include "platform/clock.h"
#include "platform/regular_file.h"

namespace {

[[noreturn]] void end_thread(int code) {
  // The thread's result is the code itself, not an address.
  pthread_exit(reinterpret_cast<void*>(  // NOLINT(performance-no-int-to-ptr)
      static_cast<intptr_t>(code)));
}

// The time zone may have been changed. The C library has a lock of its own, which thread sanitizers
// do not see.
void follow_time_zone() {
  static Mutex& mutex = *new Mutex;  // threads may run when the process exits
  const MutexLock lock(mutex);
  tzset();
}

}  // namespace

LBOutput::LBOutput(const std::string& output_directory)
    : output_directory_(output_directory), dump_directory_(output_directory + "/wlb_dump") {
  for (const Mutex* mutex :
       {&mutex_, &family_mutexes_.front(), &family_mutexes_.back(), &files_mutex_}) {
    if (mutex->init_result() == 0) continue;
    LB_ERROR("wan_lb: <%s> error mutex initialization", "LBOutput");
    end_thread(mutex->init_result());
  }
}

LBOutput::~LBOutput() noexcept(false) {
  for (Mutex* mutex : {&mutex_, &family_mutexes_.front(), &family_mutexes_.back(), &files_mutex_}) {
    const int result = mutex->destroy();
    if (result == 0) continue;
    LB_ERROR("wan_lb: <%s> error mutex destroy", "~LBOutput");
    end_thread(result);
  }
}

void LBOutput::write(const LBConfig& config, const LBWorkerContext& worker) {
  const bool ipv6 = worker.ipv6;
  const std::string path = status_path(ipv6);
  note_files({rules_path(), routes_path()}, false);
  if (!make_dump_directory()) return;
  note_files({outbounds_path(ipv6), path}, ipv6);

  write_outbounds(config.interfaces_of(ipv6), ipv6, std::nullopt);
  if (mutex_.try_lock()) {
    dump_rules_and_routes(config.rules, &config);
    const int result = mutex_.unlock();
    if (result != 0) {
      LB_ERROR("wan_lb: <%s> mutex unlock error. PThread return code: %d", "write", result);
      return;
    }
  }
  write_status(path, config, ipv6);
}

std::set<std::string> LBOutput::used_files(bool ipv6) const {
  MutexLock lock(files_mutex_);
  return files_[ipv6 ? 1 : 0];
}

bool LBOutput::make_dump_directory() {
  errno = 0;
  if (mkdir(dump_directory_.c_str(), 0777) == 0 || errno == EEXIST) return true;
  const int error = errno;
  LB_ERROR("wan_lb: error create directory: %s, errno = %d", dump_directory_.c_str(), error);
  return false;
}

void LBOutput::note_files(std::initializer_list<std::string> paths, bool ipv6) {
  MutexLock lock(files_mutex_);
  files_[ipv6 ? 1 : 0].insert(paths);
}

void LBOutput::write_status(const std::string& path, const LBConfig& config, bool ipv6) {
  MutexLock lock(family_mutexes_[ipv6 ? 1 : 0]);
  const std::vector<InterfaceSnapshot> snapshots = take_snapshots(config.interfaces_of(ipv6));
  const uint32_t now = static_cast<uint32_t>(wall_now().tv_sec);
  follow_time_zone();
  std::string text;
  for (const InterfaceSnapshot& interface : snapshots) text += interface_block(interface, now);

  FILE* file = open_to_rewrite(path);
  if (file == nullptr) {
    LB_ERROR("wan_lb: error ordering output file %s", path.c_str());
    return;
  }
  setvbuf(file, nullptr, _IONBF, 0);  // one write, whatever its size
  fputs(text.c_str(), file);
  fclose(file);
}

std::string LBOutput::status_path(bool ipv6) const {
  return output_directory_ + (ipv6 ? "/wlb_ipv6.out" : "/wlb_ipv4.out");
}

std::string LBOutput::outbounds_path(bool ipv6) const {
  return dump_directory_ + (ipv6 ? "/wlb_ipv6_outbounds.bin" : "/wlb_ipv4_outbounds.bin");
}
