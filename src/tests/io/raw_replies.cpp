#include <sys/socket.h>

#include <cerrno>

#include "tests/io/receive_queue.h"
#include "tests/io/reply_sharing.h"
#include "tests/io/reply_source.h"

namespace {

FileDescriptor open_raw_socket(const Family& family, const std::string& /*ifname*/) {
  FileDescriptor fd(socket(family.address_family, SOCK_RAW | SOCK_CLOEXEC, family.icmp_protocol));
  if (fd.valid()) refuse_foreign_messages(fd.get(), family);
  return fd;
}

// The replies are the namespace's, by whichever device they come; its receivers share them.
void share_by_device(int fd, const Family& family, const std::string& ifname) {
  reply_sharing(family).follow(fd, ifname);
}

void leave_sharing(int fd, const Family& family) { reply_sharing(family).leave(fd); }

ReceivedReply receive_message(int fd, const Family& /*family*/, std::span<uint8_t> buffer,
                              int flags, bool asks_sender) {
  ReceivedReply reply;
  ssize_t received = 0;
  if (asks_sender) {
    reply.sender.size = sizeof(reply.sender.ipv6);
    received =
        recvfrom(fd, buffer.data(), buffer.size(), flags, &reply.sender.any, &reply.sender.size);
  } else {
    received = recv(fd, buffer.data(), buffer.size(), flags);
  }
  if (received > 0) {
    reply.kind = ReceivedReply::Kind::kPacket;
    reply.packet = buffer.first(static_cast<size_t>(received));
  } else if (received == 0 || (flags & MSG_DONTWAIT) == 0 || errno != EAGAIN) {
    reply.kind = ReceivedReply::Kind::kFailed;
  }
  return reply;
}

// The key alone counts, by whichever interface and from whomever it came.
bool answers_any(const Family& /*family*/, const std::string& /*ifname*/,
                 const SocketAddress& /*sender*/, const PendingProbe& /*probe*/) {
  return true;
}

}  // namespace

constinit const ReplySource kRawReplies{.open = open_raw_socket,
                                        .follow = share_by_device,
                                        .leave = leave_sharing,
                                        .receive = receive_message,
                                        .answers = answers_any};
