#include "tests/io/message_filter.h"

#include <linux/icmp.h>
#include <netinet/icmp6.h>
#include <sys/socket.h>

#include "tests/io/packet_socket.h"

namespace {

// A bit for each type up to 31 that is refused; types above always pass.
void refuse_types4(int fd, uint32_t types) {
  const icmp_filter filter{types};
  setsockopt(fd, SOL_RAW, ICMP_FILTER, &filter, sizeof(filter));
}

void set_filter6(int fd, const icmp6_filter& filter) {
  setsockopt(fd, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof(filter));
}

icmp6_filter no_types() {
  icmp6_filter filter;
  ICMP6_FILTER_SETBLOCKALL(&filter);
  return filter;
}

}  // namespace

void refuse_all_messages(int fd, const Family& family) {
  if (family.ipv6) {
    set_filter6(fd, no_types());
    return;
  }
  refuse_types4(fd, ~uint32_t{0});
  sock_filter refuse_all[] = {BPF_STMT(BPF_RET | BPF_K, 0)};  // types above 31
  attach_filter(fd, refuse_all);
}

void take_echo_replies_only(int fd, const Family& family) {
  if (family.ipv6) {
    icmp6_filter filter = no_types();
    ICMP6_FILTER_SETPASS(kIcmp6EchoReply, &filter);
    set_filter6(fd, filter);
  } else {
    refuse_types4(fd, ~(uint32_t{1} << kIcmpEchoReply));
  }
}
