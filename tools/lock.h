// SPDX-License-Identifier: MIT
// One apply or stop at a time, on the whole machine.
#pragma once

#include <string>

#include "guards.h"

namespace tool {

// Held, by this process, for as long as it lives
class file_lock {
public:
    // Waits so many seconds at most.
    file_lock(const std::string &path, unsigned wait);
    const std::string &error() const { return error_; }  // "" when it is held

private:
    std::string error_;
    mordel::fd_guard fd_;
};

}  // namespace tool
