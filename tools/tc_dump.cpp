// Takes messages of rtnetlink apart. Pure: a message is bytes, and what its options mean is known
// by the kind that it names. Bytes that end too early read as zeros.
#include "tc_dump.h"

#include <arpa/inet.h>
#include <linux/gen_stats.h>
#include <linux/if_ether.h>
#include <linux/pkt_sched.h>

#include "leaf.h"
#include "root.h"

namespace tool {
namespace {

constexpr unsigned fw_classid = 1;  // the fw filter's attribute

live_stats parse_stats(std::span<const char> value)
{
    live_stats s;
    each_attribute(value, [&](const attribute &a) {
        if (a.type == TCA_STATS_BASIC) {
            s.bytes = a.as<gnet_stats_basic>().bytes;
            s.packets = a.as<gnet_stats_basic>().packets;
        } else if (a.type == TCA_STATS_QUEUE) {
            const auto q = a.as<gnet_stats_queue>();
            s.drops = q.drops;
            s.backlog = q.backlog;
            s.waiting = q.qlen;
        }
    });
    return s;
}

}  // namespace

live_class parse_class(const tcmsg &head, std::span<const char> attributes, double ticks_per_us)
{
    live_class c;
    c.id = head.tcm_handle;
    c.parent = head.tcm_parent;
    attribute options{};
    each_attribute(attributes, [&](const attribute &a) {
        if (a.type == TCA_KIND) c.kind = a.text();
        if (a.type == TCA_OPTIONS) options = a;
        if (a.type == TCA_STATS2) c.stats = parse_stats(a.value);
    });
    const root_kind *kind = find_root_kind(c.kind);
    if (kind != nullptr && kind->classes != nullptr)
        kind->classes->from_kernel(c, options, ticks_per_us);
    return c;
}

live_qdisc parse_qdisc(const tcmsg &head, std::span<const char> attributes, double ticks_per_us)
{
    live_qdisc q;
    q.handle = head.tcm_handle;
    q.parent = head.tcm_parent;
    attribute options{};
    each_attribute(attributes, [&](const attribute &a) {
        if (a.type == TCA_KIND) q.kind = a.text();
        if (a.type == TCA_OPTIONS) options = a;
        if (a.type == TCA_STATS2) q.stats = parse_stats(a.value);
    });
    if (const root_kind *kind = find_root_kind(q.kind)) kind->from_kernel(q, options);
    if (const leaf_kind *kind = find_leaf_kind(q.kind)) kind->from_kernel(q, options, ticks_per_us);
    return q;
}

std::optional<live_filter> parse_filter(const tcmsg &head, std::span<const char> attributes)
{
    constexpr u32 script_priority = 50;
    live_filter f{head.tcm_handle, 0, false};
    bool fw = false;
    bool more = false;
    each_attribute(attributes, [&](const attribute &a) {
        if (a.type == TCA_KIND) fw = a.text() == "fw";
        if (a.type != TCA_OPTIONS) return;
        each_attribute(a.value, [&](const attribute &option) {
            if (option.type == fw_classid)
                f.id = option.as<u32>();
            else
                more = true;
        });
    });
    if (f.mark == 0) return std::nullopt;
    f.plain = fw && !more && head.tcm_info >> 16 == script_priority &&
              (head.tcm_info & 0xffff) == htons(ETH_P_IP);
    return f;
}

const live_qdisc *live_tree::root() const
{
    for (const live_qdisc &q : qdiscs)
        if (q.parent == TC_H_ROOT && q.handle != 0) return &q;
    return nullptr;
}

const live_qdisc *live_tree::leaf_of(u32 id) const
{
    for (const live_qdisc &q : qdiscs)
        if (q.parent == id) return &q;
    return nullptr;
}

const live_class *live_tree::find(u32 id) const
{
    for (const live_class &c : classes)
        if (c.id == id) return &c;
    return nullptr;
}

}  // namespace tool
