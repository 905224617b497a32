// Dumps of the kernel's tables through route netlink (rtnetlink(7)).
#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "packets/netlink_dump.h"

// Puts the request to the kernel of the calling thread's network namespace and hands over each
// message of the answer. 0, or an errno value: EINTR when the table changed meanwhile (what was
// handed over does not count), EAGAIN when no answer came for a second. Opens a socket and closes
// it again; any thread.
int run_dump(std::span<const uint8_t> request,
             const std::function<void(const NetlinkMessage&)>& take);

template <class Entry>
struct Dump {
  int error = 0;  // an errno value; else the entries are complete
  std::vector<Entry> entries;
};

// The entries that `append(message, entries)` makes of a dump; one that the kernel says was
// interrupted is read again, a few times.
template <class Entry, class Append>
Dump<Entry> dump_entries(std::span<const uint8_t> request, Append append) {
  constexpr int kAttempts = 5;
  Dump<Entry> dump{.error = EINTR, .entries = {}};
  for (int attempt = 0; attempt < kAttempts && dump.error == EINTR; ++attempt) {
    dump.entries.clear();
    dump.error =
        run_dump(request, [&](const NetlinkMessage& message) { append(message, dump.entries); });
  }
  return dump;
}
