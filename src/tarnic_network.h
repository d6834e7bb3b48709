// SPDX-License-Identifier: MIT
// The internal functions of tarnic_network.cpp that the tests call directly.
#pragma once

#include "mordel.h"

namespace mordel {

// Stores the address of a socket (which 0) or of its peer (which 1) in *out, unless out is null.
// Returns 0; 1 on failure, or for any other which.
int get_socket_addr(int fd, ipport *out, int which);

// Samples every registered interface. seconds: since the sample before, 1..255. The caller holds
// the registry's lock.
void bm_scan(bm_list *registry, u32 seconds);

// The body of the sampling thread. arg: the bm_list to sample.
void *bmThread(void *arg);

}  // namespace mordel
