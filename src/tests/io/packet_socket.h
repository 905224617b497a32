// Packet sockets (packet(7)): whole Ethernet frames in and out.
#pragma once

#include <linux/filter.h>
#include <sys/types.h>

#include <cstdint>
#include <span>

#include "packets/ethernet.h"
#include "platform/file_descriptor.h"

// A raw packet socket of the calling thread's network namespace that receives the frames of
// `ether_type` (host byte order; ETH_P_ALL for every frame) on all interfaces. Not valid on
// failure, with errno set.
FileDescriptor open_packet_socket(uint16_t ether_type);

// What a filter loads instead of bytes of the packet: the index of the device by which it came.
inline constexpr uint32_t kByInterface = static_cast<uint32_t>(SKF_AD_OFF) + SKF_AD_IFINDEX;

// What a filter returns to let all of a packet pass.
inline constexpr uint32_t kWholePacket = 0xffffffff;

// Lets the kernel keep from the socket what `program` (socket(7), SO_ATTACH_FILTER) refuses. A
// filter that is refused itself (false) costs time and room only: what comes is looked at all the
// same. The one of before stays then.
bool attach_filter(int fd, std::span<const sock_filter> program);

// A packet socket that is only sent through. It is of no protocol: one of a protocol is looked at
// for every such packet that the host receives or forwards, even if a filter then refuses it.
FileDescriptor open_send_only_packet_socket();

// Sends one whole frame by the interface with index `ifindex`. `destination` is the link-layer
// address handed to the kernel; what goes on the wire stands in the frame. The bytes sent, or -1
// with errno set. Never waits: a full queue is EAGAIN or ENOBUFS.
ssize_t send_link_frame(int fd, int ifindex, const MacAddress& destination,
                        std::span<const uint8_t> frame);
