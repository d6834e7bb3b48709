// SPDX-License-Identifier: MIT
// What rtnetlink says of qdiscs, classes and filters, as records.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <utility>

#include "live.h"
#include "netlink.h"

namespace tool {

// head, attributes: a message's. ticks_per_us: how many of its ticks the kernel counts in 1 us.
// A class of another qdisc than the root, or the root itself, which HFSC shows as a class: nullopt.
std::optional<live_class> parse_class(const tcmsg &head, std::span<const char> attributes,
                                      double ticks_per_us);
live_qdisc parse_qdisc(const tcmsg &head, std::span<const char> attributes, double ticks_per_us);

// A dump also has an entry for each priority's filter list as a whole, with handle 0: nullopt for
// those.
std::optional<live_filter> parse_filter(const tcmsg &head, std::span<const char> attributes);

// Ticks in 1 us, by the line of /proc/net/psched
double parse_psched(const char *line);

// Takes the kernel's answers to one request for a dump apart into the messages about an interface.
class dump_reader {
public:
    using receiver = std::function<void(const tcmsg &, std::span<const char> attributes)>;

    dump_reader(u32 sequence, int ifindex, receiver each)
        : sequence_(sequence), ifindex_(ifindex), each_(std::move(each))
    {}

    // bytes: what one recv gave. False, with errno, when the kernel broke the dump off.
    bool take(std::span<const char> bytes);
    bool ended() const { return ended_; }

private:
    bool message(unsigned type, std::span<const char> body);

    u32 sequence_;
    int ifindex_;
    receiver each_;
    bool ended_ = false;
};

}  // namespace tool
