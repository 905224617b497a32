// The administrator's name of an interface is its alias (`ip link set DEV alias NAME`), asked of
// the kernel by route netlink (rtnetlink(7), RTM_GETLINK).
#include "platform/interface_names.h"

#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <string>

#include "platform/file_descriptor.h"

namespace {

// A link's answer without statistics is one to two kilobytes.
constexpr size_t kAnswerSize = 16384;

int find_alias(const nlattr* attribute, void* alias) {
  if (mnl_attr_get_type(attribute) != IFLA_IFALIAS) return MNL_CB_OK;
  const auto* text = static_cast<const char*>(mnl_attr_get_payload(attribute));
  static_cast<std::string*>(alias)->assign(text,
                                           strnlen(text, mnl_attr_get_payload_len(attribute)));
  return MNL_CB_STOP;
}

// Sends the question about the link `name`. A socket of its own for each question: it belongs to
// the namespace that the thread is in now.
bool ask(int fd, const std::string& name) {
  alignas(nlmsghdr) char buffer[256];
  nlmsghdr* const request = mnl_nlmsg_put_header(buffer);
  request->nlmsg_type = RTM_GETLINK;
  request->nlmsg_flags = NLM_F_REQUEST;
  auto* const link =
      static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
  link->ifi_family = AF_UNSPEC;
  mnl_attr_put_strz(request, IFLA_IFNAME, name.c_str());
  mnl_attr_put_u32(request, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
  return send(fd, request, request->nlmsg_len, 0) == static_cast<ssize_t>(request->nlmsg_len);
}

// The alias of the link, empty when it has none or cannot be asked for one.
std::string interface_alias(const std::string& name) {
  const FileDescriptor fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!fd.valid() || !ask(fd.get(), name)) return {};

  // The kernel has answered by the time that send returns, so there is nothing to wait for.
  const auto answer = std::make_unique<char[]>(kAnswerSize);
  const ssize_t size = recv(fd.get(), answer.get(), kAnswerSize, MSG_DONTWAIT);
  if (size < 0) return {};
  const auto* const message = reinterpret_cast<const nlmsghdr*>(answer.get());
  if (!mnl_nlmsg_ok(message, static_cast<int>(size)) || message->nlmsg_type != RTM_NEWLINK ||
      mnl_nlmsg_get_payload_len(message) < sizeof(ifinfomsg)) {
    return {};
  }
  std::string alias;
  mnl_attr_parse(message, sizeof(ifinfomsg), find_alias, &alias);
  return alias;
}

thread_local std::string result;

}  // namespace

const char* interfaces_linux_to_zel_name_static(const char* linux_name, int /*flags*/) {
  // The argument may be the thread's last result.
  const std::string name = linux_name == nullptr ? "" : linux_name;
  // A name that the kernel would cut is no interface's.
  result = !name.empty() && name.size() < IFNAMSIZ ? interface_alias(name) : "";
  if (result.empty()) result = name;
  return result.c_str();
}
