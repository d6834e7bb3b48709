// SPDX-License-Identifier: MIT
// Owns the new-handler, which operator new calls when it finds no memory, and the reserve that the
// handler gives free. A handler can be handed nothing, so the reserve is a global.

#include "memory_reserve.h"

#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

namespace tool {
namespace {

constexpr std::size_t reserve_size = 1 << 20;

constinit void *reserve = nullptr;
constinit bool given = false;

void on_lack()
{
    if (reserve != nullptr) {
        std::free(reserve);
        reserve = nullptr;
        given = true;
        return;  // operator new tries again
    }
    constexpr std::string_view text = "mordel: out of memory\n";
    (void)!::write(STDERR_FILENO, text.data(), text.size());
    // _exit: the end of the program's streams could ask for memory again, or print half a report.
    ::_exit(1);
}

}  // namespace

void end_without_memory() { (void)std::set_new_handler(on_lack); }

memory_reserve::memory_reserve()
{
    given = false;
    reserve = std::malloc(reserve_size);
    // Written to, or the kernel, which promises more than it has, would have kept nothing back.
    if (reserve == nullptr) on_lack();
    std::memset(reserve, 1, reserve_size);
}

memory_reserve::~memory_reserve()
{
    std::free(reserve);
    reserve = nullptr;
}

bool memory_reserve::ran_out() { return given; }

}  // namespace tool
