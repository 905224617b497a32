// The messages that differ between the echo tests.
#pragma once

#include "config/log.h"

// "ping" on IPv4.
struct EchoWords {
  static void unresolved(const char* host) {
    LB_ERROR("wan_lb: error in resolving configured hostname: %s", host);
  }
  static void not_bound(const char* device) {
    LB_ERROR("wan_lb: failure to bind to interface: %s", device);
  }
  static void no_hardware_address(const char* error) {
    LB_ERROR("ioctl() failed to get source MAC address %s", error);
  }
  static void address_absent(const char* address) {
    LB_ERROR("address '%s' not present on any interface", address);
  }
};

// "ping" on IPv6.
struct EchoWords6 {
  static void unresolved(const char* host) {
    LB_WARNING("Error in resolving configured hostname: %s", host);
  }
  static void not_bound(const char* device) {
    LB_ERROR("wan_lb: failure to bind to interface (ipv6): %s", device);
  }
  static void no_hardware_address(const char* error) {
    LB_ERROR("ioctl() failed to get source MAC adds %s", error);
  }
};

// "ping_ext".
struct BurstWords {
  static void unresolved(const char* host) { EchoWords6::unresolved(host); }
  static void not_bound(const char* device) {
    LB_ERROR("Failure to bind to interface: %s", device);
  }
  static void no_hardware_address(const char* error) { EchoWords::no_hardware_address(error); }
  static void address_absent(const char* address) {
    LB_ERROR("Address '%s' not present on any interface", address);
  }
};
