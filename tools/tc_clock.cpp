// SPDX-License-Identifier: MIT
// Owns the arithmetic of tc and of the kernel's rates, step by step with their rounding, and the
// search for the number of bytes before it. Pure.
#include "tc_clock.h"

namespace tool {
namespace {

constexpr double largest = 4294967295.0;  // bytes travel in 32 bits

// The ticks that tc gives the kernel for a burst, in tc's order of operations
double ticks_by_tc(const tc_clock &clock, u32 bytes, u64 bytes_per_s)
{
    const double us = 1e6 * (static_cast<double>(bytes) / static_cast<double>(bytes_per_s));
    return clock.whole_us ? std::floor(std::floor(us) * clock.ticks_per_us)
                          : std::ceil(us * clock.ticks_per_us);
}

// The kernel multiplies by a number of 31 or 32 digits and shifts, in place of a division.
u64 ns_by_kernel(u32 bytes, u64 bytes_per_s)
{
    u64 factor = 1000000000;
    u64 times = factor / bytes_per_s;
    unsigned shift = 0;
    while ((times & (u64{1} << 31)) == 0 && (factor & (u64{1} << 63)) == 0) {
        factor <<= 1;
        ++shift;
        times = factor / bytes_per_s;
    }
    return (u64{bytes} * static_cast<u32>(times)) >> shift;
}

}  // namespace

std::optional<u32> tc_clock::htb_burst(u32 ticks, u64 bytes_per_s) const
{
    const auto rate = static_cast<double>(bytes_per_s);
    // Of whole microseconds the first byte within the microsecond, else the last within the tick
    const double bytes = whole_us ? std::ceil(std::ceil(ticks / ticks_per_us) * rate / 1e6)
                                  : std::floor(ticks / ticks_per_us * rate / 1e6);
    for (const double near : {bytes, bytes - 1, bytes + 1}) {
        if (bytes_per_s == 0 || near < 0 || near > largest) continue;
        const auto candidate = static_cast<u32>(near);
        if (ticks_by_tc(*this, candidate, bytes_per_s) == ticks) return candidate;
    }
    return std::nullopt;
}

std::optional<u32> tc_clock::tbf_burst(u32 ticks, u64 bytes_per_s) const
{
    const double ns_per_tick = std::round(1e3 / ticks_per_us);
    const auto rate = static_cast<double>(bytes_per_s);
    // The first that is too many, and one more, since the kernel's product is a little smaller
    const double above = std::ceil((ticks + 1.0) * ns_per_tick * rate / 1e9);
    for (const double fewer : {-1.0, 0.0, 1.0, 2.0, 3.0}) {
        const double near = above - fewer;
        if (bytes_per_s == 0 || near < 0 || near > largest) continue;
        const auto candidate = static_cast<u32>(near);
        const auto ns = static_cast<double>(ns_by_kernel(candidate, bytes_per_s));
        if (std::floor(ns / ns_per_tick) == ticks) return candidate;
    }
    return std::nullopt;
}

}  // namespace tool
