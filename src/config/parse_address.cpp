#include "config/parse_address.h"

#include "config/log.h"
#include "packets/error_text.h"
#include "packets/family.h"

bool parse_address(int address_family, const std::string& text, void* address) {
  const int status = address_from_text(address_family, text, address);
  if (status != 1) log_no_address(status);
  return status == 1;
}

void log_no_address(int status) {
  LB_ERROR("inet_pton() failed.\nError message: %s", error_text(status).c_str());
}
