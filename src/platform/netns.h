// Network namespaces, which serve as VRFs.
#pragma once

extern "C" {

// Moves the calling thread (no other) into the network namespace `name`. 0, or -1 with errno set
// when there is no such namespace or it may not be entered; the thread then stays where it is.
int lh_netns_set(const char* name);

}  // extern "C"

// True when the name `name` stands for another network namespace than the one the calling thread is
// in: it was deleted and made anew. False also when nothing has the name, or it cannot be told.
bool netns_was_replaced(const char* name);
