// SPDX-License-Identifier: MIT
// What the kernel holds on an interface, as records. The numbers are exact, unlike those in the
// output of tc, which rounds. tc_dump.cpp fills the records.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "mordel.h"
#include "ticks.h"

namespace tool {

inline constexpr u32 root_id = 0x10000;  // 1:0; class 1:10 is root_id | 0x10

struct live_stats {
    u64 bytes = 0;
    u64 packets = 0;
    u32 drops = 0;
    u32 backlog = 0;  // bytes that wait
    u32 waiting = 0;  // packets that wait
};

// A slope m1 for d us, then the slope m2
struct live_curve {
    u32 m1 = 0;  // bytes/s
    u32 d = 0;   // us
    u32 m2 = 0;  // bytes/s
};

struct live_class {
    u32 id = 0;  // major in the high half, 0x10010 is 1:10
    u32 parent = 0;
    std::string kind;
    u64 rate = 0;  // HTB: bytes/s
    u64 ceil = 0;
    double burst = 0;  // HTB: bytes, as near as the kernel's ticks allow
    double cburst = 0;
    u32 prio = 0;
    u32 quantum = 0;                          // HTB: bytes
    std::optional<live_curve> rsc, fsc, usc;  // HFSC
    bool more = false;                        // has options that no command of ours sets
    live_stats stats;
};

struct live_qdisc {
    u32 handle = 0;
    u32 parent = 0;
    std::string kind;
    u32 default_class = 0;  // HTB, HFSC
    u32 bands = 0;          // PRIO
    std::vector<u8> priomap;
    u32 limit = 0;  // pfifo, SFQ: packets; RED, TBF: bytes
    u32 perturb = 0;
    u32 quantum = 0;  // SFQ: bytes
    u32 min = 0;
    u32 max = 0;
    u32 wlog = 0;       // RED: the weight of its average is 1/2^wlog
    u64 rate = 0;       // TBF: bytes/s
    double burst = 0;   // TBF: bytes
    u32 idle_log = 0;   // RED: how coarsely it counts the time without packets (Scell_log)
    bool more = false;  // has options that no command of ours sets: a peak rate, ECN
    live_stats stats;
};

// A filter on the root qdisc: packets with the mark go to the class.
struct live_filter {
    u32 mark = 0;
    u32 id = 0;          // of the class
    bool plain = false;  // as the scripts add filters, with nothing besides (parse_filter)
    // Where it stands, and its kind; a command that deletes a filter of somebody else names these.
    u32 priority = 50;
    u32 protocol = 0x0800;  // as an Ethernet frame has it, host byte order: IPv4
    u32 chain = 0;
    std::string kind = "fw";
};

struct live_tree {
    std::vector<live_qdisc> qdiscs;
    std::vector<live_class> classes;  // those of the root qdisc
    std::vector<live_filter> filters;
    u32 queue_len = 0;  // of the interface, packets
    double ticks_per_us = usual_ticks_per_us;

    // The root qdisc that somebody has added; null while the kernel's default one is there.
    const live_qdisc *root() const;
    // The qdisc that hangs on a class, and the class; null when there is none. id: live_class.id.
    const live_qdisc *leaf_of(u32 id) const;
    const live_class *find(u32 id) const;
};

// Finds the objects of a tree. live_tree::find() would search 2,001 classes for each of them. The
// tree must outlive it.
class live_index {
public:
    explicit live_index(const live_tree &of)
    {
        for (const live_class &c : of.classes) classes_.emplace(c.id, &c);
        for (const live_qdisc &q : of.qdiscs) leaves_.emplace(q.parent, &q);
    }
    const live_class *find(u32 id) const { return found(classes_, id); }
    const live_qdisc *leaf_of(u32 id) const { return found(leaves_, id); }

private:
    template <typename Object>
    static const Object *found(const std::map<u32, const Object *> &all, u32 id)
    {
        const auto one = all.find(id);
        return one == all.end() ? nullptr : one->second;
    }
    std::map<u32, const live_class *> classes_;
    std::map<u32, const live_qdisc *> leaves_;
};

}  // namespace tool
