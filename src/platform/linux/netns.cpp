#include "platform/netns.h"

#include <fcntl.h>
#include <sched.h>

#include <string>

#include "platform/file_descriptor.h"

int lh_netns_set(const char* name) {
  const std::string path = std::string("/var/run/netns/") + name;
  const FileDescriptor netns(open(path.c_str(), O_RDONLY | O_CLOEXEC, 0));
  if (!netns.valid()) return -1;
  return setns(netns.get(), CLONE_NEWNET);
}
