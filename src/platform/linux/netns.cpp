#include "platform/netns.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>

#include <string>

#include "platform/file_descriptor.h"

namespace {

std::string netns_path(const char* name) { return std::string("/var/run/netns/") + name; }

// All zero when there is nothing.
struct stat status_of(const std::string& path) {
  struct stat status {};
  stat(path.c_str(), &status);
  return status;
}

}  // namespace

int lh_netns_set(const char* name) {
  const std::string path = netns_path(name);
  const FileDescriptor netns(open(path.c_str(), O_RDONLY | O_CLOEXEC, 0));
  if (!netns.valid()) return -1;
  return setns(netns.get(), CLONE_NEWNET);
}

bool netns_was_replaced(const char* name) {
  // Threads do not leave the namespace that they began to work in.
  thread_local const struct stat own = status_of("/proc/thread-self/ns/net");
  const struct stat named = status_of(netns_path(name));
  return named.st_ino != 0 && named.st_dev == own.st_dev && named.st_ino != own.st_ino;
}
