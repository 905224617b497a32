#include "lbctl/inside_vrf.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <system_error>
#include <thread>

#include <fmt/format.h>

#include "platform/netns.h"
#include "platform/places.h"

namespace lbctl {

std::string run_inside_vrf(const std::string& vrf, const std::function<void()>& ask) {
  if (vrf == kDefaultNamespace) {
    ask();
    return "";
  }
  // A name from a file must not lead to another directory.
  if (vrf.empty() || vrf.find('/') != std::string::npos) {
    return fmt::format("VRF '{}' cannot be entered: no name of a network namespace", vrf);
  }
  int error = 0;
  std::exception_ptr thrown;
  const auto enter_and_ask = [&] {
    if (lh_netns_set(vrf.c_str()) != 0) {
      error = errno;
      return;
    }
    try {
      ask();
    } catch (...) {
      thrown = std::current_exception();
    }
  };
  try {
    std::thread(enter_and_ask).join();
  } catch (const std::system_error& failure) {  // no thread could be started
    error = failure.code().value();
  }
  if (thrown) std::rethrow_exception(thrown);
  if (error == 0) return "";
  return fmt::format("VRF {} cannot be entered: {}", vrf, std::strerror(error));
}

}  // namespace lbctl
