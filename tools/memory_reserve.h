// SPDX-License-Identifier: MIT
// What happens when memory runs out.
#pragma once

namespace tool {

// From now on a program without memory ends with one message and status 1, whatever it was doing:
// an exception could meet a stream, which takes it for the end of its input, or a function that
// lets none out, which aborts.
void end_without_memory();

// While one lives, memory is kept back: when it runs out for the first time, the reserve is given
// free and the program goes on, to take back in order what it has begun. At most one lives.
class memory_reserve {
public:
    memory_reserve();
    memory_reserve(const memory_reserve &) = delete;
    memory_reserve &operator=(const memory_reserve &) = delete;
    ~memory_reserve();

    // Whether the reserve has been given free: the time to stop and take back
    static bool ran_out();
};

}  // namespace tool
