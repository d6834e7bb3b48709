// SPDX-License-Identifier: MIT
// The lock that lets one apply or stop run at a time on the whole machine.
#pragma once

#include <string>

#include "guards.h"

namespace tool {

// Holds the lock until it is destroyed and the programs that were started under it have ended,
// unless error() says otherwise.
class file_lock {
public:
    // wait: seconds at most until another process lets go of the lock
    file_lock(const std::string &path, unsigned wait);
    const std::string &error() const { return error_; }  // "" when the lock is held

private:
    std::string error_;
    mordel::fd_guard fd_;
};

}  // namespace tool
