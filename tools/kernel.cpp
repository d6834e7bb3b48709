// SPDX-License-Identifier: MIT
// Asks the kernel for the qdiscs, classes and filters of an interface, by rtnetlink, and for the
// length of its queue, by ioctl. tc_dump.cpp knows what the answers mean and where a dump ends.
#include "kernel.h"

#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "guards.h"
#include "tc_dump.h"
#include "text.h"
#include "ticks.h"

namespace tool {
namespace {

// Where /proc is not mounted, the usual number: every kernel's since 2009.
double ticks_per_us()
{
    const mordel::stream_guard in{std::fopen("/proc/net/psched", "re")};
    char text[64] = "";
    if (!in || std::fgets(text, sizeof text, in.get()) == nullptr) return usual_ticks_per_us;
    return parse_psched(text);
}

// ---- Dumps --------------------------------------------------------------------------------------

// One socket for one look at an interface. It asks for one dump after another and needs no rights.
class rtnetlink {
public:
    explicit rtnetlink(int index)
        : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)), index_(index)
    {}

    // All messages of a type (RTM_GET…) about the interface, each handed to `each`. False, with
    // errno, when the kernel does not answer or breaks the dump off.
    bool dump(u16 type, u32 parent, const dump_reader::receiver &each)
    {
        if (!fd_) return false;
        struct {
            nlmsghdr head;
            tcmsg body;
        } request{};
        request.head.nlmsg_len = sizeof request;
        request.head.nlmsg_type = type;
        request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
        request.head.nlmsg_seq = ++sequence_;
        request.body.tcm_family = AF_UNSPEC;
        request.body.tcm_ifindex = index_;
        request.body.tcm_parent = parent;
        if (::send(fd_.get(), &request, sizeof request, 0) != ssize_t(sizeof request)) return false;
        dump_reader reader(sequence_, index_, each);
        while (!reader.ended()) {
            const ssize_t size = ::recv(fd_.get(), buffer_, sizeof buffer_, 0);
            if (size < 0 && errno == EINTR) continue;
            if (size < 0 || !reader.take({buffer_, static_cast<std::size_t>(size)})) return false;
        }
        return true;
    }

private:
    mordel::fd_guard fd_;
    int index_;
    u32 sequence_ = 0;
    // The kernel sends a dump in parts of at most 32 KiB. recv would cut a longer part without an
    // error.
    char buffer_[1 << 16] = {};
};

// Reads (SIOCGIFTXQLEN) or sets (SIOCSIFTXQLEN) the length of an interface's queue. Any socket
// serves for the ioctl. r.ifr_name keeps a NUL: r comes zeroed and the last byte is not written.
bool queue_request(unsigned long request, const std::string &ifname, ifreq &r)
{
    const mordel::fd_guard fd{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    std::memcpy(r.ifr_name, ifname.c_str(), std::min(ifname.size(), sizeof r.ifr_name - 1));
    return fd && ::ioctl(fd.get(), request, &r) == 0;
}

}  // namespace

std::optional<live_tree> read_kernel(const std::string &ifname, std::string &why)
{
    const unsigned index = ::if_nametoindex(ifname.c_str());
    if (index == 0) {
        why = "there is no interface " + quoted(ifname);
        return std::nullopt;
    }
    const double per_us = ticks_per_us();
    live_tree tree;
    tree.ticks_per_us = per_us;
    ifreq request{};
    if (queue_request(SIOCGIFTXQLEN, ifname, request))
        tree.queue_len = static_cast<u32>(request.ifr_qlen);
    rtnetlink kernel(static_cast<int>(index));
    // Below the kernel's default qdisc nothing can be the policy's: without another root, classes
    // and filters are not asked for.
    const bool ok = kernel.dump(RTM_GETQDISC, 0,
                                [&](const tcmsg &head, auto rest) {
                                    tree.qdiscs.push_back(parse_qdisc(head, rest, per_us));
                                }) &&
                    (tree.root() == nullptr ||
                     (kernel.dump(RTM_GETTCLASS, 0,
                                  [&](const tcmsg &head, auto rest) {
                                      if (const auto c = parse_class(head, rest, per_us))
                                          tree.classes.push_back(*c);
                                  }) &&
                      kernel.dump(RTM_GETTFILTER, root_id, [&](const tcmsg &head, auto rest) {
                          if (const auto f = parse_filter(head, rest)) tree.filters.push_back(*f);
                      })));
    if (ok) return tree;
    why = "cannot read what the kernel holds: " + std::string(std::strerror(errno));
    return std::nullopt;
}

bool set_queue_len(const std::string &ifname, u32 packets)
{
    ifreq request{};
    request.ifr_qlen = static_cast<int>(packets);
    return queue_request(SIOCSIFTXQLEN, ifname, request);
}

}  // namespace tool
