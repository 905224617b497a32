// Fills one gap of user-mode emulation, so that IPv4 link-level probes can be run in it: qemu-user
// hands the record of SIOCGARP to the kernel without what the program wrote into it, so the kernel
// never learns what is asked for. Preloaded into an emulated program, this answers the question
// from the same table in its text form. Every other request goes on to the C library.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

int fail(int error) {
  errno = error;
  return -1;
}

// As the kernel answers: ENODEV without the interface, ENXIO without an entry for the address on
// it.
int answer(arpreq* question) {
  const auto* wanted = reinterpret_cast<const sockaddr_in*>(&question->arp_pa);
  if (wanted->sin_family != AF_INET) return fail(EPFNOSUPPORT);
  if (if_nametoindex(question->arp_dev) == 0) return fail(ENODEV);
  // Of the calling thread's network namespace, which is not always the process's.
  FILE* table = std::fopen("/proc/thread-self/net/arp", "re");
  if (table == nullptr) return -1;
  int result = fail(ENXIO);
  char line[256];
  while (std::fgets(line, sizeof(line), table) != nullptr) {
    char address[64], device[64];
    unsigned int type, flags, mac[6];
    if (std::sscanf(line, "%63s 0x%x 0x%x %x:%x:%x:%x:%x:%x %*s %63s", address, &type, &flags,
                    &mac[0], &mac[1], &mac[2], &mac[3], &mac[4], &mac[5], device) != 10 ||
        inet_addr(address) != wanted->sin_addr.s_addr ||
        std::strcmp(device, question->arp_dev) != 0) {
      continue;
    }
    question->arp_flags = static_cast<int>(flags);
    question->arp_ha.sa_family = static_cast<sa_family_t>(type);
    for (int at = 0; at < 6; ++at) question->arp_ha.sa_data[at] = static_cast<char>(mac[at]);
    result = 0;
  }
  std::fclose(table);
  if (result != 0) errno = ENXIO;
  return result;
}

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (request == SIOCGARP) return answer(static_cast<arpreq*>(argument));
  static const auto next =
      reinterpret_cast<int (*)(int, unsigned long, ...)>(dlsym(RTLD_NEXT, "ioctl"));
  return next(fd, request, argument);
}
