#include "packets/netlink_dump.h"

#include <algorithm>

#include "packets/packet_reader.h"

namespace {

// The data behind a head of type Head, whose field `length` counts both. Takes the padding too.
template <class Head, class Length>
std::optional<std::span<const uint8_t>> take_part(std::span<const uint8_t>& bytes,
                                                  const std::optional<Head>& head, Length length) {
  if (!head || length < sizeof(Head) || length > bytes.size()) return std::nullopt;
  const auto data = bytes.subspan(sizeof(Head), length - sizeof(Head));
  bytes = bytes.subspan(std::min(bytes.size(), (size_t{length} + 3) & ~size_t{3}));
  return data;
}

}  // namespace

std::optional<NetlinkMessage> take_message(std::span<const uint8_t>& bytes) {
  const auto head = PacketReader(bytes).at<nlmsghdr>(0);
  const auto data = take_part(bytes, head, head ? head->nlmsg_len : 0U);
  if (!data) return std::nullopt;
  return NetlinkMessage{*head, *data};
}

std::optional<NetlinkAttribute> take_attribute(std::span<const uint8_t>& bytes) {
  const auto head = PacketReader(bytes).at<nlattr>(0);
  const auto data = take_part(bytes, head, head ? head->nla_len : uint16_t{0});
  if (!data) return std::nullopt;
  return NetlinkAttribute{static_cast<uint16_t>(head->nla_type & NLA_TYPE_MASK), *data};
}

DumpProgress read_progress(const NetlinkMessage& message) {
  using Kind = DumpProgress::Kind;
  DumpProgress progress;
  progress.interrupted = (message.header.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
  const uint16_t type = message.header.nlmsg_type;
  if (type != NLMSG_DONE && type != NLMSG_ERROR) return progress;
  // Both carry a negative errno value, or 0; the end of an old kernel's dump carries nothing.
  const auto code = PacketReader(message.payload).at<int32_t>(0);
  progress.error = code ? static_cast<int>(0U - static_cast<uint32_t>(*code)) : 0;
  progress.kind = progress.error == 0 ? Kind::kDone : Kind::kRefused;
  return progress;
}
