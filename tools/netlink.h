// SPDX-License-Identifier: MIT
// The attributes of a netlink message: a type, a length and a value each, and values that are
// attributes again.
#pragma once

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <string>

namespace tool {

struct attribute {
    unsigned type;
    std::span<const char> value;

    // The first bytes of the value as a record; zeros for what is not there.
    template <typename Record>
    Record as() const
    {
        Record r{};
        // An attribute that a message lacks is null, which memcpy does not take.
        if (!value.empty()) std::memcpy(&r, value.data(), std::min(sizeof r, value.size()));
        return r;
    }
    std::string text() const { return {value.data(), ::strnlen(value.data(), value.size())}; }
};

// Ends at the first attribute whose length does not fit.
template <typename Body>
void each_attribute(std::span<const char> at, Body body)
{
    while (at.size() >= sizeof(rtattr)) {
        rtattr head{};
        std::memcpy(&head, at.data(), sizeof head);
        if (head.rta_len < sizeof head || head.rta_len > at.size()) return;
        body(attribute{static_cast<unsigned>(head.rta_type & NLA_TYPE_MASK),
                       at.subspan(sizeof head, head.rta_len - sizeof head)});
        at = at.subspan(std::min<std::size_t>(RTA_ALIGN(head.rta_len), at.size()));
    }
}

}  // namespace tool
