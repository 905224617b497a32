// The device's own names of network interfaces, as administrators know them.
#pragma once

extern "C" {

// The device's name of the Linux interface `linux_name` in the calling thread's network namespace,
// or the Linux name itself where the device has none. Empty for an empty name. The result is in
// thread-local storage and holds until the thread's next call. `flags` is 0.
const char* interfaces_linux_to_zel_name_static(const char* linux_name, int flags);

}  // extern "C"
