#include "tests/io/device_index.h"

#include <net/if.h>
#include <sys/ioctl.h>

#include <cerrno>

int device_index(int fd, const std::string& ifname) {
  ifreq request{};
  if (ifname.size() >= IFNAMSIZ) {
    errno = ENODEV;
    return 0;
  }
  ifname.copy(request.ifr_name, IFNAMSIZ - 1);
  return ioctl(fd, SIOCGIFINDEX, &request) == 0 ? request.ifr_ifindex : 0;
}
