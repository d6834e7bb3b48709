// SPDX-License-Identifier: MIT
// What the kernel has written to its log since a moment.
#pragma once

#include <string>
#include <string_view>

#include "guards.h"

namespace tool {

inline constexpr char kernel_log_path[] = "/dev/kmsg";

// The text of one record of /dev/kmsg, "6,339,5140900,-;sfq: bad limit"; "" when it is not the
// kernel's own: programs may write there too.
std::string kernel_message(std::string_view record);

// Looks at the log from its end onwards. Where the log may not be read it is as good as empty.
class kernel_log {
public:
    explicit kernel_log(const char *path = kernel_log_path);

    // The last message since the beginning or the last call, printable and cut; "" when none came
    std::string last();

private:
    mordel::fd_guard fd_;
};

}  // namespace tool
