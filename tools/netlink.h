// SPDX-License-Identifier: MIT
// The attributes of a netlink message. Each has a type, a length and a value; a value may be a list
// of attributes again.
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

    // The value as a record. An older or newer kernel may send a shorter or longer one: missing
    // bytes are 0, further ones are dropped.
    template <typename Record>
    Record as() const
    {
        Record r{};
        // The value of an absent attribute has a null address, which memcpy must not be given.
        if (!value.empty()) std::memcpy(&r, value.data(), std::min(sizeof r, value.size()));
        return r;
    }
    std::string text() const { return {value.data(), ::strnlen(value.data(), value.size())}; }
};

// Calls body for each attribute. Ends at the first whose length does not fit: a length of 0 would
// loop for ever, one beyond the message would make body read foreign memory.
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
