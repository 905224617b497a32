#include "packets/family.h"

std::string address_to_text(int family, const void* address) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(family, address, text, sizeof(text)) == nullptr ? std::string() : text;
}

int address_from_text(int family, const std::string& text, void* address) {
  return inet_pton(family, text.c_str(), address);
}
