// SPDX-License-Identifier: MIT
// Takes messages of rtnetlink apart. Pure: a message is bytes. The kind that a message names tells
// how its options are read. Of a record that the message cuts short, the rest reads as zeros.
#include "tc_dump.h"

#include <arpa/inet.h>
#include <linux/gen_stats.h>
#include <linux/if_ether.h>
#include <linux/pkt_sched.h>

#include <cerrno>
#include <cstdlib>

#include "leaf.h"
#include "root.h"
#include "ticks.h"

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

std::optional<live_class> parse_class(const tcmsg &head, std::span<const char> attributes,
                                      double ticks_per_us)
{
    // A qdisc below may have classes too (an SFQ's are its flows). HFSC shows its root, 1:0, as
    // one.
    if (TC_H_MAJ(head.tcm_handle) != root_id || head.tcm_handle == root_id) return std::nullopt;
    live_class c;
    c.id = head.tcm_handle;
    c.parent = head.tcm_parent;
    attribute options{};
    each_attribute(attributes, [&](const attribute &a) {
        if (a.type == TCA_KIND) c.kind = a.text();
        if (a.type == TCA_OPTIONS) options = a;
        if (a.type == TCA_STATS2) c.stats = parse_stats(a.value);
    });
    // Options are read last: netlink promises no order, and the kind tells how to read them.
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
    // No kind is both a root and a leaf; a qdisc of neither keeps its name alone.
    if (const root_kind *kind = find_root_kind(q.kind)) kind->from_kernel(q, options);
    if (const leaf_kind *kind = find_leaf_kind(q.kind)) kind->from_kernel(q, options, ticks_per_us);
    return q;
}

std::optional<live_filter> parse_filter(const tcmsg &head, std::span<const char> attributes)
{
    // The scripts add each filter as "protocol ip prio 50 handle MARK fw classid CLASS". A filter
    // with anything else, a police or a mask, is not theirs (plain is false).
    constexpr u32 script_priority = 50;
    live_filter f{head.tcm_handle, 0, false};
    // tcm_info: the priority in the high half, the protocol in network byte order in the low.
    f.priority = head.tcm_info >> 16;
    f.protocol = ntohs(static_cast<u16>(head.tcm_info));
    f.kind = "";
    bool more = false;
    each_attribute(attributes, [&](const attribute &a) {
        if (a.type == TCA_KIND) f.kind = a.text();
        if (a.type == TCA_CHAIN) f.chain = a.as<u32>();
        if (a.type != TCA_OPTIONS) return;
        each_attribute(a.value, [&](const attribute &option) {
            if (option.type == fw_classid)
                f.id = option.as<u32>();
            else
                more = true;
        });
    });
    if (f.mark == 0) return std::nullopt;
    // No packet comes to a chain other than 0 unless another filter sends it there.
    f.plain = f.kind == "fw" && !more && f.chain == 0 && f.priority == script_priority &&
              f.protocol == ETH_P_IP;
    return f;
}

double parse_psched(const char *line)
{
    // In hexadecimal: ns in 1 us, ns in a tick, and the units of the kernel's time in 1 s. tc reads
    // this line too, and counts bursts with the result.
    unsigned long numbers[3] = {};
    char *at = nullptr;
    for (unsigned long &number : numbers) {
        number = std::strtoul(line, &at, 16);
        line = at;
    }
    if (numbers[1] == 0 || numbers[2] == 0) return usual_ticks_per_us;
    return static_cast<double>(numbers[0]) / static_cast<double>(numbers[1]) *
           static_cast<double>(numbers[2]) / 1e6;
}

bool dump_reader::take(std::span<const char> bytes)
{
    // Copied out, not cast: nothing says that the bytes are aligned for an nlmsghdr.
    while (bytes.size() >= sizeof(nlmsghdr)) {
        nlmsghdr head{};
        std::memcpy(&head, bytes.data(), sizeof head);
        if (head.nlmsg_len < sizeof head || head.nlmsg_len > bytes.size()) break;
        // Another number belongs to an earlier request, of which not every answer was read.
        if (head.nlmsg_seq == sequence_ &&
            !message(head.nlmsg_type, bytes.subspan(sizeof head, head.nlmsg_len - sizeof head)))
            return false;
        bytes = bytes.subspan(std::min<std::size_t>(NLMSG_ALIGN(head.nlmsg_len), bytes.size()));
    }
    return true;
}

bool dump_reader::message(unsigned type, std::span<const char> body)
{
    if (type == NLMSG_DONE) ended_ = true;
    // NLMSG_DONE carries an error too, when a dump broke off in its middle. A list cut short must
    // not pass for the whole: what is missing would be taken for gone.
    if (type == NLMSG_ERROR || type == NLMSG_DONE) {
        int error = 0;
        std::memcpy(&error, body.data(), std::min(sizeof error, body.size()));
        errno = -error;
        return error >= 0;
    }
    if (body.size() < sizeof(tcmsg)) return true;
    tcmsg head{};
    std::memcpy(&head, body.data(), sizeof head);
    // A dump of qdiscs has those of every interface, whichever the request named.
    if (head.tcm_ifindex == ifindex_) each_(head, body.subspan(sizeof head));
    return true;
}

const live_qdisc *live_tree::root() const
{
    for (const live_qdisc &q : qdiscs)
        // The default qdisc, which the kernel makes itself, has handle 0.
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
