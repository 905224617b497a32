#include "routing/route_dump.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <memory>

#include "platform/file_descriptor.h"

namespace {

// The kernel makes no larger message of a dump than 32 KiB.
constexpr size_t kReceiveSize = 65536;

constexpr timeval kPatience{.tv_sec = 1, .tv_usec = 0};

// The length of the next read, or -1 with errno.
ssize_t read_some(int fd, std::span<uint8_t> buffer) {
  while (true) {
    const ssize_t length = recv(fd, buffer.data(), buffer.size(), MSG_TRUNC);
    if (length < 0 && errno == EINTR) continue;
    if (length >= 0 && static_cast<size_t>(length) > buffer.size()) {
      errno = EMSGSIZE;
      return -1;
    }
    if (length == 0) errno = EPIPE;
    return length == 0 ? -1 : length;
  }
}

FileDescriptor open_dump_socket() {
  FileDescriptor fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!fd.valid()) return fd;
  // A worker must not wait for ever for an answer that was lost.
  if (setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof(kPatience)) != 0) fd.reset();
  // Where the kernel knows it, it sends no more than the request asks for. Otherwise all comes.
  const int on = 1;
  if (fd.valid()) setsockopt(fd.get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof(on));
  return fd;
}

}  // namespace

int run_dump(std::span<const uint8_t> request,
             const std::function<void(const NetlinkMessage&)>& take) {
  const FileDescriptor fd = open_dump_socket();
  if (!fd.valid() || send(fd.get(), request.data(), request.size(), 0) < 0) return errno;
  const auto buffer = std::make_unique_for_overwrite<uint8_t[]>(kReceiveSize);
  bool interrupted = false;
  while (true) {
    const ssize_t length = read_some(fd.get(), {buffer.get(), kReceiveSize});
    if (length < 0) return errno;
    std::span<const uint8_t> bytes(buffer.get(), static_cast<size_t>(length));
    while (const auto message = take_message(bytes)) {
      const DumpProgress progress = read_progress(*message);
      interrupted = interrupted || progress.interrupted;
      if (progress.kind == DumpProgress::Kind::kRefused) return progress.error;
      if (progress.kind == DumpProgress::Kind::kDone) return interrupted ? EINTR : 0;
      take(*message);
    }
  }
}
