// Asks the kernel for what it holds on an interface, by rtnetlink, and for its queue's length, by
// ioctl. What the answers mean is tc_dump.cpp's.
#include "kernel.h"

#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <span>

#include "guards.h"
#include "tc_dump.h"
#include "text.h"
#include "ticks.h"

namespace tool {
namespace {

constexpr u32 root_major = 0x10000;  // 1:0

// How many of the kernel's ticks a microsecond has
double ticks_per_us()
{
    const mordel::stream_guard in{std::fopen("/proc/net/psched", "re")};
    char text[64] = "";
    unsigned long numbers[3] = {};  // ns a tick as a fraction, and the clock's resolution
    char *at = text;
    if (!in || std::fgets(text, sizeof text, in.get()) == nullptr) return usual_ticks_per_us;
    for (unsigned long &number : numbers) number = std::strtoul(at, &at, 16);
    if (numbers[1] == 0 || numbers[2] == 0) return usual_ticks_per_us;
    return static_cast<double>(numbers[0]) / static_cast<double>(numbers[1]) *
           static_cast<double>(numbers[2]) / 1e6;
}

// ---- Dumps --------------------------------------------------------------------------------------

using receiver = std::function<void(const tcmsg &, std::span<const char>)>;

class rtnetlink {
public:
    explicit rtnetlink(int index)
        : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)), index_(index)
    {}

    // Everything of a kind on the interface. False, with errno, when the kernel does not answer.
    bool dump(u16 type, u32 parent, const receiver &each)
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
        ended_ = false;
        while (!ended_) {
            if (!receive(each)) return false;
        }
        return true;
    }

private:
    bool receive(const receiver &each)
    {
        const ssize_t size = ::recv(fd_.get(), buffer_, sizeof buffer_, 0);
        if (size < 0) return errno == EINTR;
        std::span<const char> at(buffer_, static_cast<std::size_t>(size));
        while (at.size() >= sizeof(nlmsghdr)) {
            nlmsghdr head{};
            std::memcpy(&head, at.data(), sizeof head);
            if (head.nlmsg_len < sizeof head || head.nlmsg_len > at.size()) break;
            if (head.nlmsg_seq == sequence_ &&
                !message(head, at.subspan(sizeof head, head.nlmsg_len - sizeof head), each))
                return false;
            at = at.subspan(std::min<std::size_t>(NLMSG_ALIGN(head.nlmsg_len), at.size()));
        }
        return true;
    }

    bool message(const nlmsghdr &head, std::span<const char> body, const receiver &each)
    {
        if (head.nlmsg_type == NLMSG_DONE) ended_ = true;
        // The end of a dump that broke off carries an error too.
        if (head.nlmsg_type == NLMSG_ERROR || head.nlmsg_type == NLMSG_DONE) {
            int error = 0;
            std::memcpy(&error, body.data(), std::min(sizeof error, body.size()));
            errno = -error;
            if (error < 0) return false;
        }
        if (head.nlmsg_type == NLMSG_DONE || body.size() < sizeof(tcmsg)) return true;
        tcmsg tc{};
        std::memcpy(&tc, body.data(), sizeof tc);
        const std::size_t skip = NLMSG_ALIGN(sizeof tc);
        if (tc.tcm_ifindex == index_ && body.size() >= skip) each(tc, body.subspan(skip));
        return true;
    }

    mordel::fd_guard fd_;
    int index_;
    u32 sequence_ = 0;
    bool ended_ = false;
    char buffer_[1 << 16] = {};
};

// A request about an interface's queue length
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
    ifreq request{};
    if (queue_request(SIOCGIFTXQLEN, ifname, request))
        tree.queue_len = static_cast<u32>(request.ifr_qlen);
    rtnetlink kernel(static_cast<int>(index));
    const bool ok = kernel.dump(RTM_GETQDISC, 0,
                                [&](const tcmsg &head, auto rest) {
                                    tree.qdiscs.push_back(parse_qdisc(head, rest, per_us));
                                }) &&
                    (tree.root() == nullptr ||
                     (kernel.dump(RTM_GETTCLASS, 0,
                                  [&](const tcmsg &head, auto rest) {
                                      if ((head.tcm_handle & 0xffff0000) == root_major &&
                                          head.tcm_handle != root_major)
                                          tree.classes.push_back(parse_class(head, rest, per_us));
                                  }) &&
                      kernel.dump(RTM_GETTFILTER, root_major, [&](const tcmsg &head, auto rest) {
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
