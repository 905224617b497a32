// What the kernel keeps for a receiving socket until a thread reads it.
//
// A raw ICMP socket gets every such message of its namespace, a packet socket every frame of its
// type: whoever is on the wire decides how full a queue gets. A reply that finds it full is lost,
// and with it a link would count as dead.
#pragma once

#include <cstdint>
#include <span>

#include "packets/family.h"

// Gives the socket room for some thousand small packets, unless it has as much. The system's limit
// is passed where the process may do that, and holds otherwise. For whoever reads the socket: a
// queue that nobody reads would only hold more of what a hostile sender puts into it.
void enlarge_receive_queue(int fd);

// Keeps messages away from a raw ICMP socket that carry no probe key where a reply has it: they
// could be no reply to any test; and those that came by `devices` (their indices), some thousand at
// most. Without the filter they cost time and room only, so a refusal is no failure; where only the
// devices are too many they are left out.
void refuse_foreign_messages(int fd, const Family& family, std::span<const uint32_t> devices = {});
