// SPDX-License-Identifier: MIT
// How tc and the kernel carry a burst: as the time that its bytes take at its rate, in ticks of
// usually 64 ns (15.625 in 1 us).
#pragma once

#include <algorithm>
#include <cmath>

#include "mordel.h"

namespace tool {

inline constexpr double usual_ticks_per_us = 15.625;  // every kernel's since 2009

constexpr u64 bytes_per_second(u64 kbit) { return kbit * 125; }

inline double bytes_of_ticks(u32 ticks, u64 bytes_per_s, double ticks_per_us)
{
    return static_cast<double>(bytes_per_s) * ticks / ticks_per_us / 1e6;
}

// The ticks that a number of bytes was computed from, by bytes_of_ticks()
inline u32 ticks_of_bytes(double bytes, u64 bytes_per_s, double ticks_per_us)
{
    if (bytes_per_s == 0) return 0;
    const double ticks = bytes / static_cast<double>(bytes_per_s) * ticks_per_us * 1e6;
    return static_cast<u32>(std::min(std::round(ticks), 4294967295.0));
}

// A burst comes back from the kernel shorter than it was given: tc cuts its time to whole
// microseconds and the kernel to whole ticks, which is less than 2 us at the rate together. The 1
// byte is for rounding.
inline bool near_burst(double seen, u32 wanted, u64 bytes_per_s)
{
    return std::abs(seen - wanted) <= 1 + static_cast<double>(bytes_per_s) * 2e-6;
}

// Ticks travel in 32 bits: 2^32 of 64 ns are 274.9 s, and a longer burst has no number.
inline bool takes_too_long(u32 bytes, u32 kbit)
{
    return kbit != 0 && bytes / (kbit * 125.0) * usual_ticks_per_us * 1e6 > 4294967295.0;
}
inline constexpr char burst_right[] =
    "tc cannot say a burst that takes more than 274 s at its rate; lower it";

}  // namespace tool
