// SPDX-License-Identifier: MIT
// Memory that runs out, by a limit on the address space. Each case runs in a process of its own.
#include "memory_reserve.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <new>

namespace {

// No more than what is there already
void take_memory_away()
{
    unsigned long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const auto size = static_cast<rlim_t>(pages) * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE));
    const rlimit no_more{size, RLIM_INFINITY};
    if (pages == 0 || ::setrlimit(RLIMIT_AS, &no_more) != 0) std::_Exit(9);
}

// The heap may have some pieces left over.
void allocate_until(bool (*enough)())
{
    while (!enough()) *static_cast<volatile char *>(::operator new(64 << 10)) = 1;
}
bool never() { return false; }

TEST(MemoryReserveDeathTest, LackOfMemoryIsAMessageAndAStatus)
{
    EXPECT_EXIT(
        {
            tool::end_without_memory();
            take_memory_away();
            allocate_until(never);
            std::_Exit(0);
        },
        testing::ExitedWithCode(1), "^mordel: out of memory\n$");
}

// Where no exception may leave, one would end in abort().
TEST(MemoryReserveDeathTest, LackOfMemoryNeverAborts)
{
    EXPECT_EXIT(
        {
            tool::end_without_memory();
            take_memory_away();
            []() noexcept { allocate_until(never); }();
            std::_Exit(0);
        },
        testing::ExitedWithCode(1), "^mordel: out of memory\n$");
}

TEST(MemoryReserveDeathTest, GivesItsMemoryOnce)
{
    EXPECT_EXIT(
        {
            tool::end_without_memory();
            const tool::memory_reserve reserve;
            if (tool::memory_reserve::ran_out()) std::_Exit(2);
            take_memory_away();
            allocate_until(tool::memory_reserve::ran_out);
            std::_Exit(0);
        },
        testing::ExitedWithCode(0), "^$");
    EXPECT_EXIT(
        {
            tool::end_without_memory();
            const tool::memory_reserve reserve;
            take_memory_away();
            allocate_until(never);
            std::_Exit(0);
        },
        testing::ExitedWithCode(1), "^mordel: out of memory\n$");
}

}  // namespace
