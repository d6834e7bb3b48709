// SPDX-License-Identifier: MIT
// Preloaded into a program: its NO_MEMORY_AT-th allocation fails. With 0 none fails, and the number
// of allocations is written to standard error at the end.
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *block, std::size_t size);
}

namespace {

long failing = -1;  // not yet read from the environment
long allocations = 0;

bool fails()
{
    if (failing < 0) {
        const char *text = std::getenv("NO_MEMORY_AT");
        failing = text == nullptr ? 0 : std::strtol(text, nullptr, 10);
    }
    if (++allocations != failing) return false;
    errno = ENOMEM;
    return true;
}

__attribute__((destructor)) void tell()
{
    if (failing == 0) (void)std::fprintf(stderr, "%ld\n", allocations);
}

}  // namespace

extern "C" {
void *malloc(std::size_t size) { return fails() ? nullptr : __libc_malloc(size); }
void *calloc(std::size_t count, std::size_t size)
{
    return fails() ? nullptr : __libc_calloc(count, size);
}
void *realloc(void *block, std::size_t size)
{
    return fails() ? nullptr : __libc_realloc(block, size);
}
}
