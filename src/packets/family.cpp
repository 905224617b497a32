#include "packets/family.h"

#include <arpa/inet.h>

std::string address_to_text(int address_family, const void* address) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(address_family, address, text, sizeof(text)) == nullptr ? std::string() : text;
}

int address_from_text(int address_family, const std::string& text, void* address) {
  return inet_pton(address_family, text.c_str(), address);
}
