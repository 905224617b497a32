// Interfaces have the names of the configuration: a tool may run where there are none of them.
#include <string>

#include "platform/interface_names.h"

const char* interfaces_linux_to_zel_name_static(const char* linux_name, int /*flags*/) {
  static thread_local std::string name;
  name = linux_name;
  return name.c_str();
}
