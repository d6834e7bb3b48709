// SPDX-License-Identifier: MIT
// What the kernel holds of an interface, as the commands that would make it. Two equal images mean
// that the kernel holds the same; of unequal ones, the commands bring back what was there.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include "live.h"

namespace tool {

struct image {
    // The root, classes parents first, leaves, filters; empty: the kernel's default qdisc
    std::vector<command> tree;
    std::string unwritable;          // the first object that no command of ours makes: "root qdisc
                                     // fq_codel 8001:"; "" when all is in `tree`
    std::vector<std::string> rules;  // own_lines() of its chains; filled in by who lists these
    u32 queue_len = 0;

    // One search through the whole tree; who makes many takes an image_index.
    const command *find(object::kind what, u32 number) const;

    bool operator==(const image &) const = default;
};

image image_of(const std::string &ifname, const live_tree &live);

// Finds commands by their objects. The image must outlive it.
class image_index {
public:
    explicit image_index(const image &of);
    const command *find(object::kind what, u32 number) const;

private:
    std::map<std::pair<object::kind, u32>, const command *> places_;
};

}  // namespace tool
