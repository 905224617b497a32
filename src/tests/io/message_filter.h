// Which ICMP messages a raw socket takes, told to the kernel before it makes a copy for the socket:
// ICMP_FILTER (raw(7)) and ICMP6_FILTER (RFC 3542 section 3.2). A socket filter (packet_socket.h)
// looks at the copy. Where the kernel refuses, more comes in than is wanted, which costs time only.
#pragma once

#include "packets/family.h"

// For a socket that is only sent through.
void refuse_all_messages(int fd, const Family& family);

void take_echo_replies_only(int fd, const Family& family);
