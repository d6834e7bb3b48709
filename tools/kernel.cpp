#include "kernel.h"

#include <arpa/inet.h>
#include <linux/gen_stats.h>
#include <linux/if_ether.h>
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
#include "text.h"

namespace tool {
namespace {

constexpr u32 root_major = 0x10000;  // 1:0
constexpr unsigned fw_classid = 1;   // the fw filter's attribute

// ---- Attributes ---------------------------------------------------------------------------------

struct attribute {
    unsigned type;
    std::span<const char> value;

    // The first bytes of the value as a record; zeros for what is not there.
    template <typename Record>
    Record as() const
    {
        Record r{};
        std::memcpy(&r, value.data(), std::min(sizeof r, value.size()));
        return r;
    }
    std::string text() const { return {value.data(), ::strnlen(value.data(), value.size())}; }
};

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

constexpr double usual_ticks = 15.625;  // of 64 ns, which every kernel has had since 2009

// How many of the kernel's ticks a microsecond has
double ticks_per_us()
{
    const mordel::stream_guard in{std::fopen("/proc/net/psched", "re")};
    char text[64] = "";
    unsigned long numbers[3] = {};  // ns a tick as a fraction, and the clock's resolution
    char *at = text;
    if (!in || std::fgets(text, sizeof text, in.get()) == nullptr) return usual_ticks;
    for (unsigned long &number : numbers) number = std::strtoul(at, &at, 16);
    if (numbers[1] == 0 || numbers[2] == 0) return usual_ticks;
    return static_cast<double>(numbers[0]) / static_cast<double>(numbers[1]) *
           static_cast<double>(numbers[2]) / 1e6;
}

// A burst travels as the ticks that it takes at its rate.
double bytes_of(u32 ticks, u64 rate)
{
    static const double per_us = ticks_per_us();
    return static_cast<double>(rate) * ticks / per_us / 1e6;
}

// ---- Classes, qdiscs, filters -------------------------------------------------------------------

void parse_htb_class(live_class &c, std::span<const char> options)
{
    tc_htb_opt opt{};
    u64 rate64 = 0;
    u64 ceil64 = 0;
    each_attribute(options, [&](const attribute &a) {
        if (a.type == TCA_HTB_PARMS) opt = a.as<tc_htb_opt>();
        if (a.type == TCA_HTB_RATE64) rate64 = a.as<u64>();
        if (a.type == TCA_HTB_CEIL64) ceil64 = a.as<u64>();
    });
    c.rate = rate64 != 0 ? rate64 : opt.rate.rate;
    c.ceil = ceil64 != 0 ? ceil64 : opt.ceil.rate;
    c.burst = bytes_of(opt.buffer, c.rate);
    c.cburst = bytes_of(opt.cbuffer, c.ceil);
    c.prio = opt.prio;
}

void parse_hfsc_class(live_class &c, std::span<const char> options)
{
    each_attribute(options, [&](const attribute &a) {
        const auto curve = a.as<tc_service_curve>();
        const live_curve seen{curve.m1, curve.d, curve.m2};
        if (a.type == TCA_HFSC_RSC) c.rsc = seen;
        if (a.type == TCA_HFSC_FSC) c.fsc = seen;
        if (a.type == TCA_HFSC_USC) c.usc = seen;
    });
}

live_class parse_class(const tcmsg &head, std::span<const char> attributes)
{
    live_class c;
    c.id = head.tcm_handle;
    c.parent = head.tcm_parent;
    std::span<const char> options;
    each_attribute(attributes, [&](const attribute &a) {
        if (a.type == TCA_KIND) c.kind = a.text();
        if (a.type == TCA_OPTIONS) options = a.value;
        if (a.type == TCA_STATS2) c.stats = parse_stats(a.value);
    });
    if (c.kind == "htb") parse_htb_class(c, options);
    if (c.kind == "hfsc") parse_hfsc_class(c, options);
    return c;
}

void parse_tbf(live_qdisc &q, std::span<const char> options)
{
    tc_tbf_qopt opt{};
    u64 rate64 = 0;
    each_attribute(options, [&](const attribute &a) {
        if (a.type == TCA_TBF_PARMS) opt = a.as<tc_tbf_qopt>();
        if (a.type == TCA_TBF_RATE64) rate64 = a.as<u64>();
    });
    q.rate = rate64 != 0 ? rate64 : opt.rate.rate;
    q.limit = opt.limit;
    q.burst = bytes_of(opt.buffer, q.rate);
}

void parse_options(live_qdisc &q, const attribute &options)
{
    if (q.kind == "htb") {
        each_attribute(options.value, [&](const attribute &a) {
            if (a.type == TCA_HTB_INIT) q.default_class = a.as<tc_htb_glob>().defcls;
        });
    } else if (q.kind == "hfsc") {
        q.default_class = options.as<tc_hfsc_qopt>().defcls;
    } else if (q.kind == "prio") {
        const auto prio = options.as<tc_prio_qopt>();
        q.bands = static_cast<u32>(prio.bands);
        q.priomap.assign(prio.priomap, prio.priomap + sizeof prio.priomap);
    } else if (q.kind == "pfifo") {
        q.limit = options.as<tc_fifo_qopt>().limit;
    } else if (q.kind == "sfq") {
        q.perturb = static_cast<u32>(options.as<tc_sfq_qopt>().perturb_period);
    } else if (q.kind == "red") {
        each_attribute(options.value, [&](const attribute &a) {
            if (a.type != TCA_RED_PARMS) return;
            const auto red = a.as<tc_red_qopt>();
            q.limit = red.limit;
            q.min = red.qth_min;
            q.max = red.qth_max;
            q.wlog = red.Wlog;
        });
    } else if (q.kind == "tbf") {
        parse_tbf(q, options.value);
    }
}

live_qdisc parse_qdisc(const tcmsg &head, std::span<const char> attributes)
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
    parse_options(q, options);
    return q;
}

// None for what stands for a whole list of filters
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

std::optional<live_tree> read_kernel(const std::string &ifname, std::string &why)
{
    const unsigned index = ::if_nametoindex(ifname.c_str());
    if (index == 0) {
        why = "there is no interface " + quoted(ifname);
        return std::nullopt;
    }
    live_tree tree;
    ifreq request{};
    if (queue_request(SIOCGIFTXQLEN, ifname, request))
        tree.queue_len = static_cast<u32>(request.ifr_qlen);
    rtnetlink kernel(static_cast<int>(index));
    const bool ok = kernel.dump(RTM_GETQDISC, 0,
                                [&](const tcmsg &head, auto rest) {
                                    tree.qdiscs.push_back(parse_qdisc(head, rest));
                                }) &&
                    (tree.root() == nullptr ||
                     (kernel.dump(RTM_GETTCLASS, 0,
                                  [&](const tcmsg &head, auto rest) {
                                      if ((head.tcm_handle & 0xffff0000) == root_major &&
                                          head.tcm_handle != root_major)
                                          tree.classes.push_back(parse_class(head, rest));
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
