// What the network area offers the tests.
#pragma once

#include "mordel.h"

namespace mordel {

// The address of a socket (which 0) or of its peer (which 1) into out, unless out is null.
// Returns 0; 1 on failure, or for any other which.
int get_socket_addr(int fd, ipport *out, int which);

// One sample of every registered interface, `seconds` after the last. The caller holds the lock.
void bm_scan(bm_list *registry, u32 seconds);

// The body of the sampling thread; arg: its bm_list.
void *bmThread(void *arg);

}  // namespace mordel
