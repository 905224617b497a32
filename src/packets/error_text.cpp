#include "packets/error_text.h"

#include <cstring>

std::string error_text(int error) {
  char buffer[128];
  return strerror_r(error, buffer, sizeof(buffer));
}
