#include "config/family.h"

#include "config/error_text.h"
#include "config/log.h"

std::string address_to_text(int family, const void* address) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(family, address, text, sizeof(text)) == nullptr ? std::string() : text;
}

int address_from_text(int family, const std::string& text, void* address) {
  return inet_pton(family, text.c_str(), address);
}

bool parse_address(int family, const std::string& text, void* address) {
  const int status = address_from_text(family, text, address);
  if (status == 1) return true;
  LOG_ERROR("inet_pton() failed.\nError message: %s", error_text(status).c_str());
  return false;
}
