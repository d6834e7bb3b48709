// What rtnetlink says of qdiscs, classes and filters, as records.
#pragma once

#include <optional>
#include <span>

#include "live.h"
#include "netlink.h"

namespace tool {

// head, attributes: a message's. ticks_per_us: how many of its ticks the kernel counts in 1 us.
live_class parse_class(const tcmsg &head, std::span<const char> attributes, double ticks_per_us);
live_qdisc parse_qdisc(const tcmsg &head, std::span<const char> attributes, double ticks_per_us);

// A dump also has an entry for each priority's filter list as a whole, with handle 0: nullopt for
// those.
std::optional<live_filter> parse_filter(const tcmsg &head, std::span<const char> attributes);

}  // namespace tool
