// SPDX-License-Identifier: MIT
// From the ticks that the kernel holds back to a number of bytes that tc turns into these ticks.
#pragma once

#include <optional>

#include "mordel.h"
#include "ticks.h"

namespace tool {

struct tc_clock {
    double ticks_per_us = usual_ticks_per_us;
    // Whether tc cuts a burst's time to whole microseconds and then to whole ticks, as it did until
    // 2025; else it rounds up to whole ticks.
    bool whole_us = true;

    // For the burst or cburst of an HTB class; none where no number of bytes comes to these ticks
    std::optional<u32> htb_burst(u32 ticks, u64 bytes_per_s) const;
    // For the burst of a TBF, which the kernel counts itself: in ns, cut to whole ticks. The
    // largest number of bytes, so that no packet is too long that passed before.
    std::optional<u32> tbf_burst(u32 ticks, u64 bytes_per_s) const;
};

}  // namespace tool
