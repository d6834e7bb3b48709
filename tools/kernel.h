// SPDX-License-Identifier: MIT
// The kernel's side of an interface, asked by rtnetlink and ioctl.
#pragma once

#include <optional>
#include <string>

#include "live.h"

namespace tool {

// None when the kernel does not answer; `why` says so.
std::optional<live_tree> read_kernel(const std::string &ifname, std::string &why);

// Sets an interface's queue length; false when the kernel refuses.
bool set_queue_len(const std::string &ifname, u32 packets);

}  // namespace tool
