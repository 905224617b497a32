#include "tests/path_messages.h"

#include <cerrno>

#include "config/log.h"
#include "packets/error_text.h"
#include "routing/interface_health.h"

void log_path_failure(const PathResult& result, const PathWords& words) {
  if (result.ready()) return;
  const std::string error = error_text(result.error);
  const char* const subject = result.subject.c_str();
  switch (result.step) {
    case PathStep::kReady:
    case PathStep::kNotMeant:
    case PathStep::kNoOwnAddress:
    case PathStep::kNoNeighbor:
    case PathStep::kNoAddress:
      break;
    case PathStep::kUnresolved:
      if (words.unresolved_is_error) {
        LB_ERROR("%s: %s", words.unresolved, subject);
      } else {
        LB_WARNING("%s: %s", words.unresolved, subject);
      }
      break;
    case PathStep::kNotBound:
      LB_ERROR("%s: %s", words.not_bound, device_name(result.subject).c_str());
      break;
    case PathStep::kNotDotted:
      LB_ERROR("inet_aton() failed: %s", error.c_str());
      break;
    case PathStep::kNoSocket:
      LB_ERROR("socket() failed to get socket descriptor for using ioctl() %s", error.c_str());
      break;
    case PathStep::kNoHardwareAddress:
      // An interface that is not there is no error: tunnels and modems come and go.
      if (result.error != ENODEV) LB_ERROR("%s %s", words.no_hardware_address, error.c_str());
      break;
    case PathStep::kNoIndex:
      LB_ERROR("if_nametoindex() failed to obtain interface index %s", error.c_str());
      break;
    case PathStep::kSourceAbsent:
      LB_ERROR("%s '%s' not present on any interface", words.source_absent, subject);
      break;
  }
}

void log_send_error(const Family& family, int error) {
  if (error == 0 || error == ENETUNREACH) return;
  LB_DEBUG("wan_lb: error on sending %s packet: %d", family.packet_name, error);
}
