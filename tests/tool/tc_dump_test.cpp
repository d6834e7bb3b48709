// SPDX-License-Identifier: MIT
// What messages of rtnetlink come to. The messages are made of the kernel's own records in the
// host's byte order, so a big-endian host reads them as a little-endian one does.
#include "tc_dump.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/gen_stats.h>
#include <linux/if_ether.h>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "text.h"
#include "ticks.h"

namespace {

using std::string;
using tool::live_class;
using tool::live_curve;
using tool::live_qdisc;
using tool::live_tree;

// ---- Messages -----------------------------------------------------------------------------------

template <typename Record>
string bytes(const Record &r)
{
    return {reinterpret_cast<const char *>(&r), sizeof r};
}

string padded(string value)
{
    value.resize(RTA_ALIGN(value.size()));
    return value;
}

// An attribute whose head says another length than its value has
string attribute_of(unsigned type, std::size_t length, const string &value)
{
    return bytes(rtattr{static_cast<unsigned short>(length), static_cast<unsigned short>(type)}) +
           value;
}

string attribute(unsigned type, const string &value)
{
    return padded(attribute_of(type, sizeof(rtattr) + value.size(), value));
}

template <typename Record>
string attribute(unsigned type, const Record &r)
{
    return attribute(type, bytes(r));
}

// With its NUL, as the kernel says it
string kind(const string &name) { return attribute(TCA_KIND, name + '\0'); }
string options(const string &value) { return attribute(TCA_OPTIONS, value); }

// On the heap, with nothing behind it: a sanitizer sees each byte that is read too far.
struct exact {
    explicit exact(const string &text) : size(text.size()), data(new char[text.size()])
    {
        text.copy(data.get(), size);
    }
    std::span<const char> span() const { return {data.get(), size}; }
    std::size_t size;
    std::unique_ptr<char[]> data;
};

tcmsg head_of(u32 handle, u32 parent, u32 info = 0)
{
    tcmsg head{};
    head.tcm_ifindex = 7;
    head.tcm_handle = handle;
    head.tcm_parent = parent;
    head.tcm_info = info;
    return head;
}

live_class class_of(const string &attributes, double ticks_per_us = tool::usual_ticks_per_us)
{
    const exact in(attributes);
    const auto c = tool::parse_class(head_of(0x10010, 0x10003), in.span(), ticks_per_us);
    EXPECT_TRUE(c.has_value());
    return c.value_or(live_class{});
}

live_qdisc qdisc_of(const string &attributes, double ticks_per_us = tool::usual_ticks_per_us)
{
    const exact in(attributes);
    return tool::parse_qdisc(head_of(0x1000000, 0x10010), in.span(), ticks_per_us);
}

string text(const std::optional<live_curve> &c)
{
    return c ? tool::format("%u %u %u", c->m1, c->d, c->m2) : "none";
}

// All numbers of a class besides its statistics and its quantum
string text(const live_class &c)
{
    return tool::format("%x on %x %s rate %llu ceil %llu burst %.3f cburst %.3f prio %u", c.id,
                        c.parent, c.kind.c_str(), static_cast<unsigned long long>(c.rate),
                        static_cast<unsigned long long>(c.ceil), c.burst, c.cburst, c.prio) +
           " rsc " + text(c.rsc) + " fsc " + text(c.fsc) + " usc " + text(c.usc) +
           (c.more ? ", and more" : "");
}

// Those that are set
string text(const live_qdisc &q)
{
    string out = tool::format("%x on %x %s", q.handle, q.parent, q.kind.c_str());
    const struct {
        const char *name;
        u64 value;
    } numbers[] = {{"default", q.default_class},
                   {"bands", q.bands},
                   {"limit", q.limit},
                   {"perturb", q.perturb},
                   {"min", q.min},
                   {"max", q.max},
                   {"wlog", q.wlog},
                   {"idle", q.idle_log},
                   {"quantum", q.quantum},
                   {"rate", q.rate}};
    for (const auto &[name, value] : numbers)
        if (value != 0)
            out += tool::format(" %s %llu", name, static_cast<unsigned long long>(value));
    if (q.burst != 0) out += tool::format(" burst %.3f", q.burst);
    if (!q.priomap.empty()) out += " map";
    for (const u8 band : q.priomap) out += tool::format(" %d", band);
    return out + (q.more ? ", and more" : "");
}

// ---- Classes ------------------------------------------------------------------------------------

tc_htb_opt htb(u32 rate, u32 ceil, u32 buffer, u32 cbuffer, u32 prio)
{
    tc_htb_opt o{};
    o.rate.rate = rate;
    o.ceil.rate = ceil;
    o.buffer = buffer;
    o.cbuffer = cbuffer;
    o.quantum = 60000;
    o.level = 2;
    o.prio = prio;
    return o;
}

string htb_class(const string &of_htb) { return kind("htb") + options(of_htb); }

// 6000 bytes at 2500000 bytes/s take 2400 us: 37500 ticks of 64 ns.
// 15000 bytes at 12500000 bytes/s take 1200 us: 18750 ticks.
TEST(TcDump, AnHtbClassHasItsRatesAndItsBurstsInBytes)
{
    const string of_htb = attribute(TCA_HTB_PARMS, htb(2500000, 12500000, 37500, 18750, 5));
    const char *const expected = "10010 on 10003 htb rate 2500000 ceil 12500000 burst 6000.000"
                                 " cburst 15000.000 prio 5 rsc none fsc none usc none";
    EXPECT_EQ(expected, text(class_of(htb_class(of_htb))));
    // As kernels say it that know 64 bits, and beside what nobody reads here
    const string zeros = attribute(TCA_HTB_RATE64, u64{0}) + attribute(TCA_HTB_CEIL64, u64{0});
    EXPECT_EQ(expected, text(class_of(htb_class(zeros + of_htb))));
    EXPECT_EQ(expected, text(class_of(htb_class(attribute(TCA_HTB_PAD, "") + of_htb +
                                                attribute(TCA_HTB_DIRECT_QLEN, u32{1000})))));
    EXPECT_EQ(expected, text(class_of(attribute(TCA_STATS2, "") + options(of_htb) + kind("htb"))));
}

// 40 Gbit/s are 5000000000 bytes/s, and 15625 ticks are 1 ms: 5000000 bytes of them. 32 bits hold
// 4294967295 bytes/s: 4294967.295 bytes in 1 ms.
TEST(TcDump, RatesOf64BitsStandForThoseOf32)
{
    const string most = attribute(TCA_HTB_PARMS, htb(4294967295, 4294967295, 15625, 2 * 15625, 0));
    const string rate = attribute(TCA_HTB_RATE64, u64{5000000000});
    const string ceil = attribute(TCA_HTB_CEIL64, u64{12500000000});
    EXPECT_EQ("10010 on 10003 htb rate 5000000000 ceil 12500000000 burst 5000000.000"
              " cburst 25000000.000 prio 0 rsc none fsc none usc none",
              text(class_of(htb_class(most + rate + ceil))));
    EXPECT_EQ("10010 on 10003 htb rate 4294967295 ceil 12500000000 burst 4294967.295"
              " cburst 25000000.000 prio 0 rsc none fsc none usc none",
              text(class_of(htb_class(ceil + most))));
    EXPECT_EQ("10010 on 10003 htb rate 5000000000 ceil 4294967295 burst 5000000.000"
              " cburst 8589934.590 prio 0 rsc none fsc none usc none",
              text(class_of(htb_class(rate + most))));
}

// 1000000 bytes/s are a byte in each us.
TEST(TcDump, BurstsAreInTheKernelsOwnTicks)
{
    const string in = htb_class(attribute(TCA_HTB_PARMS, htb(1000000, 2000000, 3000, 4000, 0)));
    EXPECT_EQ("10010 on 10003 htb rate 1000000 ceil 2000000 burst 3000.000 cburst 8000.000 prio 0"
              " rsc none fsc none usc none",
              text(class_of(in, 1)));
    EXPECT_EQ("10010 on 10003 htb rate 1000000 ceil 2000000 burst 192.000 cburst 512.000 prio 0"
              " rsc none fsc none usc none",
              text(class_of(in, 15.625)));
}

TEST(TcDump, AnHfscClassHasTheCurvesThatItIsGiven)
{
    const string rsc = attribute(TCA_HFSC_RSC, tc_service_curve{1, 2, 3});
    const string fsc = attribute(TCA_HFSC_FSC, tc_service_curve{4, 5, 6});
    const string usc = attribute(TCA_HFSC_USC, tc_service_curve{7, 8, 9});
    const string none = "10010 on 10003 hfsc rate 0 ceil 0 burst 0.000 cburst 0.000 prio 0";
    const auto hfsc = [](const string &of_hfsc) {
        return text(class_of(kind("hfsc") + options(of_hfsc)));
    };
    EXPECT_EQ(none + " rsc 1 2 3 fsc 4 5 6 usc 7 8 9", hfsc(rsc + fsc + usc));
    EXPECT_EQ(none + " rsc 1 2 3 fsc none usc none", hfsc(rsc));
    EXPECT_EQ(none + " rsc none fsc 4 5 6 usc none", hfsc(fsc));
    EXPECT_EQ(none + " rsc none fsc none usc 7 8 9", hfsc(usc));
    EXPECT_EQ(none + " rsc none fsc none usc none", hfsc(""));
}

// Of kinds without options of their own the numbers are those of another kind, and not read.
TEST(TcDump, AClassOfAnotherKindHasItsKindAlone)
{
    const string as_htb = options(attribute(TCA_HTB_PARMS, htb(1, 2, 3, 4, 5)));
    for (const char *name : {"prio", "pfifo_fast", "cbq", "ht", "htbx", "HTB", ""})
        EXPECT_EQ(tool::format("10010 on 10003 %s rate 0 ceil 0 burst 0.000 cburst 0.000 prio 0"
                               " rsc none fsc none usc none",
                               name),
                  text(class_of(kind(name) + as_htb)));
    EXPECT_EQ("", class_of("").kind);
    EXPECT_EQ("", class_of(as_htb).kind);
    EXPECT_EQ(0U, class_of(kind("htb")).rate);
}

TEST(TcDump, OnlyClassesOfTheRootQdiscAreTaken)
{
    const auto taken = [](u32 handle) {
        return tool::parse_class(head_of(handle, 0x10000), {}, 1).has_value();
    };
    EXPECT_TRUE(taken(0x10001));
    EXPECT_TRUE(taken(0x1ffff));
    EXPECT_FALSE(taken(0x10000));  // HFSC's root
    EXPECT_FALSE(taken(0x20001));
    EXPECT_FALSE(taken(0x110001));
    EXPECT_FALSE(taken(0x00001));
    EXPECT_FALSE(taken(0));
}

// ---- Statistics ---------------------------------------------------------------------------------

string text(const tool::live_stats &s)
{
    return tool::format("%llu bytes %llu packets %u drops %u backlog %u waiting",
                        static_cast<unsigned long long>(s.bytes),
                        static_cast<unsigned long long>(s.packets), s.drops, s.backlog, s.waiting);
}

TEST(TcDump, StatisticsOfClassesAndQdiscsAreRead)
{
    gnet_stats_basic basic{};
    basic.bytes = (u64{1} << 33) + 7;  // 8589934599
    basic.packets = 4294967295;
    gnet_stats_queue queue{};
    queue.qlen = 3;
    queue.backlog = 4500;
    queue.drops = 2;
    queue.requeues = 11;
    queue.overlimits = 12;
    const string noise = attribute(TCA_STATS_RATE_EST, gnet_stats_rate_est{21, 22}) +
                         attribute(TCA_STATS_APP, u64{23});
    const string in = attribute(TCA_STATS2, noise + attribute(TCA_STATS_BASIC, basic) + noise +
                                                attribute(TCA_STATS_QUEUE, queue) + noise);
    const char *const expected =
        "8589934599 bytes 4294967295 packets 2 drops 4500 backlog 3 waiting";
    EXPECT_EQ(expected, text(class_of(in).stats));
    EXPECT_EQ(expected, text(class_of(kind("htb") + in + options("")).stats));
    EXPECT_EQ(expected, text(qdisc_of(in).stats));
    EXPECT_EQ("0 bytes 0 packets 2 drops 4500 backlog 3 waiting",
              text(qdisc_of(attribute(TCA_STATS2, attribute(TCA_STATS_QUEUE, queue))).stats));
    // The older record of the same is not taken for them.
    EXPECT_EQ("0 bytes 0 packets 0 drops 0 backlog 0 waiting",
              text(qdisc_of(attribute(TCA_STATS, attribute(TCA_STATS_QUEUE, queue))).stats));
}

// ---- Qdiscs -------------------------------------------------------------------------------------

TEST(TcDump, RootQdiscsHaveTheirOptions)
{
    tc_htb_glob glob{};
    glob.version = 3;
    glob.rate2quantum = 10;
    glob.defcls = 0x30;
    const string init = attribute(TCA_HTB_INIT, glob);
    EXPECT_EQ("1000000 on 10010 htb default 48", text(qdisc_of(kind("htb") + options(init))));
    EXPECT_EQ("1000000 on 10010 htb default 48",
              text(qdisc_of(kind("htb") + options(attribute(TCA_HTB_DIRECT_QLEN, u32{1000}) + init +
                                                  attribute(TCA_HTB_DIRECT_QLEN, u32{1000})))));
    tc_hfsc_qopt hfsc{};
    hfsc.defcls = 0xfff;
    EXPECT_EQ("1000000 on 10010 hfsc default 4095",
              text(qdisc_of(kind("hfsc") + options(bytes(hfsc)))));
    const tc_prio_qopt prio{4, {3, 2, 1, 0, 3, 2, 1, 0, 1, 1, 1, 1, 1, 1, 1, 2}};
    EXPECT_EQ("1000000 on 10010 prio bands 4 map 3 2 1 0 3 2 1 0 1 1 1 1 1 1 1 2",
              text(qdisc_of(kind("prio") + options(bytes(prio)))));
    EXPECT_EQ("1000000 on 10010 pfifo_fast",
              text(qdisc_of(kind("pfifo_fast") + options(bytes(prio)))));
}

tc_red_qopt red()
{
    tc_red_qopt o{};
    o.limit = 60000;
    o.qth_min = 5000;
    o.qth_max = 15000;
    o.Wlog = 9;
    o.Plog = 19;
    return o;
}

// 3000 bytes at 125000 bytes/s take 24 ms: 375000 ticks of 64 ns.
tc_tbf_qopt tbf()
{
    tc_tbf_qopt o{};
    o.rate.rate = 125000;
    o.limit = 5500;
    o.buffer = 375000;
    o.mtu = 6;
    return o;
}

TEST(TcDump, LeafQdiscsHaveTheirOptions)
{
    EXPECT_EQ("1000000 on 10010 pfifo limit 50",
              text(qdisc_of(kind("pfifo") + options(bytes(tc_fifo_qopt{50})))));
    tc_sfq_qopt sfq{};
    sfq.quantum = 1514;
    sfq.perturb_period = 10;
    sfq.limit = 127;
    EXPECT_EQ("1000000 on 10010 sfq limit 127 perturb 10 quantum 1514",
              text(qdisc_of(kind("sfq") + options(bytes(sfq)))));
    const string parms = attribute(TCA_RED_PARMS, red());
    const string max_p = attribute(TCA_RED_MAX_P, u32{85899345});
    const char *const as_red = "1000000 on 10010 red limit 60000 min 5000 max 15000 wlog 9";
    EXPECT_EQ(as_red, text(qdisc_of(kind("red") + options(parms))));
    EXPECT_EQ(as_red, text(qdisc_of(kind("red") + options(max_p + parms + max_p))));
    const char *const as_tbf = "1000000 on 10010 tbf limit 5500 rate 125000 burst 3000.000";
    const string of_tbf = attribute(TCA_TBF_PARMS, tbf());
    EXPECT_EQ(as_tbf, text(qdisc_of(kind("tbf") + options(of_tbf))));
    EXPECT_EQ(as_tbf,
              text(qdisc_of(kind("tbf") + options(attribute(TCA_TBF_BURST, u32{9}) + of_tbf +
                                                  attribute(TCA_TBF_PBURST, u32{9})))));
    // 375000 us at 125000 bytes/s
    EXPECT_EQ("1000000 on 10010 tbf limit 5500 rate 125000 burst 46875.000",
              text(qdisc_of(kind("tbf") + options(of_tbf), 1)));
}

// 5000000000 bytes/s in 24 ms: 120000000 bytes
TEST(TcDump, ATbfsRateOf64BitsStandsForThatOf32)
{
    const string rate = attribute(TCA_TBF_RATE64, u64{5000000000});
    for (const string &of_tbf :
         {rate + attribute(TCA_TBF_PARMS, tbf()), attribute(TCA_TBF_PARMS, tbf()) + rate})
        EXPECT_EQ("1000000 on 10010 tbf limit 5500 rate 5000000000 burst 120000000.000",
                  text(qdisc_of(kind("tbf") + options(of_tbf))));
}

// What no command of ours would set again is told of.
TEST(TcDump, AQdiscWithOtherOptionsHasMore)
{
    tc_htb_glob glob{};
    glob.rate2quantum = 11;
    EXPECT_EQ("1000000 on 10010 htb, and more",
              text(qdisc_of(kind("htb") + options(attribute(TCA_HTB_INIT, glob)))));
    tc_tbf_qopt peak = tbf();
    peak.peakrate.rate = 5;
    tc_tbf_qopt overhead = tbf();
    overhead.rate.overhead = 4;
    tc_tbf_qopt atm = tbf();
    atm.rate.linklayer = TC_LINKLAYER_ATM;
    for (const tc_tbf_qopt &o : {peak, overhead, atm})
        EXPECT_EQ("1000000 on 10010 tbf limit 5500 rate 125000 burst 3000.000, and more",
                  text(qdisc_of(kind("tbf") + options(attribute(TCA_TBF_PARMS, o)))));
    // 0.02 doubled 18 times is 0.52 of 10000, and 19 times 1.05: 19 is tc's own. 2^32 times 0.02
    // is 85899345.9; given 19 alone the kernel fills in 2^13 - 1 times 10000.
    tc_red_qopt steeper = red();
    steeper.Plog = 18;
    tc_red_qopt ecn = red();
    ecn.flags = TC_RED_ECN;
    const char *const other =
        "1000000 on 10010 red limit 60000 min 5000 max 15000 wlog 9, and more";
    for (const tc_red_qopt &o : {steeper, ecn})
        EXPECT_EQ(other, text(qdisc_of(kind("red") + options(attribute(TCA_RED_PARMS, o)))));
    const string parms = attribute(TCA_RED_PARMS, red());
    const auto with = [&](u32 p) {
        return text(qdisc_of(kind("red") + options(parms + attribute(TCA_RED_MAX_P, p))));
    };
    EXPECT_EQ(other, with(99999999));
    EXPECT_EQ("1000000 on 10010 red limit 60000 min 5000 max 15000 wlog 9", with(81910000));
    tc_red_qopt idle = red();
    idle.Scell_log = 14;
    EXPECT_EQ("1000000 on 10010 red limit 60000 min 5000 max 15000 wlog 9 idle 14",
              text(qdisc_of(kind("red") + options(attribute(TCA_RED_PARMS, idle)))));
}

TEST(TcDump, AnHtbClassHasItsQuantumAndTellsOfMore)
{
    const auto told = [](const tc_htb_opt &o) {
        const string in = kind("htb") + options(attribute(TCA_HTB_PARMS, o));
        const exact bytes_of(in);
        const auto c = tool::parse_class(head_of(0x10010, 0x10001, 0), bytes_of.span(), 15.625);
        return tool::format("quantum %u%s", c->quantum, c->more ? ", and more" : "");
    };
    tc_htb_opt o = htb(125000, 125000, 1, 1, 0);
    o.quantum = 1500;
    EXPECT_EQ("quantum 1500", told(o));
    o.rate.linklayer = TC_LINKLAYER_ETHERNET;
    EXPECT_EQ("quantum 1500", told(o));
    o.ceil.overhead = 4;
    EXPECT_EQ("quantum 1500, and more", told(o));
    o.ceil = o.rate;
    o.rate.linklayer = TC_LINKLAYER_ATM;
    EXPECT_EQ("quantum 1500, and more", told(o));
}

TEST(TcDump, AQdiscOfAnotherKindHasItsKindAlone)
{
    const string values = attribute(TCA_RED_PARMS, red()) + bytes(tc_fifo_qopt{50});
    for (const char *name : {"noqueue", "fq_codel", "bfifo", "pfif", "pfifo_", ""})
        EXPECT_EQ(string("1000000 on 10010 ") + name, text(qdisc_of(kind(name) + options(values))));
    EXPECT_EQ("1000000 on 10010 ", text(qdisc_of("")));
    EXPECT_EQ("1000000 on 10010 red", text(qdisc_of(kind("red"))));
    EXPECT_EQ("1000000 on 10010 prio map 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0",
              text(qdisc_of(kind("prio"))));
}

// ---- Filters ------------------------------------------------------------------------------------

u32 info_of(u32 priority, u16 protocol) { return priority << 16 | htons(protocol); }

const u32 as_scripted = info_of(50, ETH_P_IP);

string filter(u32 mark, u32 info, const string &attributes)
{
    const exact in(attributes);
    const auto f = tool::parse_filter(head_of(mark, 0x10000, info), in.span());
    if (!f) return "none";
    return tool::format("mark %x to %x%s", f->mark, f->id, f->plain ? "" : ", not plain");
}

TEST(TcDump, AFilterAsTheScriptsMakeItIsPlain)
{
    const string to_10 = options(attribute(TCA_FW_CLASSID, u32{0x10010}));
    EXPECT_EQ("mark 10 to 10010", filter(0x10, as_scripted, kind("fw") + to_10));
    EXPECT_EQ("mark 10 to 10010", filter(0x10, as_scripted, to_10 + kind("fw")));
    EXPECT_EQ("mark 10 to 10010",
              filter(0x10, as_scripted, kind("fw") + attribute(TCA_CHAIN, u32{0}) + to_10));
    // What holds attributes of other meanings
    EXPECT_EQ("mark 10 to 10010",
              filter(0x10, as_scripted,
                     kind("fw") + to_10 +
                         attribute(TCA_STATS2, attribute(TCA_STATS_BASIC, u32{9}) +
                                                   attribute(TCA_STATS_QUEUE, u32{9}))));
    EXPECT_EQ("mark ffffffff to 10010", filter(0xffffffff, as_scripted, kind("fw") + to_10));
    EXPECT_EQ("mark 10 to 0", filter(0x10, as_scripted, kind("fw") + options("")));
    EXPECT_EQ("none", filter(0, as_scripted, kind("fw") + to_10));
}

// Where it stands, for who deletes it
TEST(TcDump, AFilterHasItsPlace)
{
    const string in = kind("flower") + attribute(TCA_CHAIN, u32{3});
    const exact bytes_of(in);
    const auto f = tool::parse_filter(head_of(1, 0x10000, info_of(7, ETH_P_IPV6)), bytes_of.span());
    ASSERT_TRUE(f);
    EXPECT_EQ("flower", f->kind);
    EXPECT_EQ(7U, f->priority);
    EXPECT_EQ(0x86ddU, f->protocol);
    EXPECT_EQ(3U, f->chain);
    EXPECT_FALSE(f->plain);
}

TEST(TcDump, AnyOtherFilterIsNotPlain)
{
    const string fw = kind("fw");
    const string to_10 = attribute(TCA_FW_CLASSID, u32{0x10010});
    const char *const other = "mark 10 to 10010, not plain";
    const u32 infos[] = {info_of(49, ETH_P_IP),   info_of(51, ETH_P_IP),  info_of(0, ETH_P_IP),
                         info_of(50, ETH_P_IPV6), info_of(50, ETH_P_ALL), info_of(50, 0)};
    for (const u32 info : infos) EXPECT_EQ(other, filter(0x10, info, fw + options(to_10)));
    const unsigned more[] = {TCA_FW_POLICE, TCA_FW_INDEV, TCA_FW_ACT, TCA_FW_MASK};
    for (const unsigned type : more) {
        EXPECT_EQ(other, filter(0x10, as_scripted, fw + options(to_10 + attribute(type, u32{1}))));
        EXPECT_EQ(other, filter(0x10, as_scripted, fw + options(attribute(type, u32{1}) + to_10)));
    }
    for (const char *name : {"u32", "f", "fwx", "flow", ""})
        EXPECT_EQ(other, filter(0x10, as_scripted, kind(name) + options(to_10)));
    EXPECT_EQ(other, filter(0x10, as_scripted, options(to_10)));
    // In another chain than 0 no packet comes to it.
    EXPECT_EQ(other, filter(0x10, as_scripted, fw + attribute(TCA_CHAIN, u32{3}) + options(to_10)));
}

// ---- Attributes that are not whole --------------------------------------------------------------

// 8 bytes of kind, and then options of 4 + 4 + 44: the rate is there with the last byte alone.
TEST(TcDump, AnAttributeIsReadWhenItsLastByteIsThere)
{
    ASSERT_EQ(44U, sizeof(tc_htb_opt));
    const string whole =
        htb_class(attribute(TCA_HTB_PARMS, htb(2500000, 12500000, 37500, 18750, 5)));
    ASSERT_EQ(60U, whole.size());
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        const live_class c = class_of(whole.substr(0, size));
        EXPECT_EQ(size >= 8 ? "htb" : "", c.kind);
        EXPECT_EQ(size == 60 ? 2500000U : 0U, c.rate);
        EXPECT_EQ(size >= 8 ? "htb" : "", qdisc_of(whole.substr(0, size)).kind);
    }
    // 4 + 3 of kind and a byte of padding, and options of 4 + 4 + 4
    const string fw = kind("fw") + options(attribute(TCA_FW_CLASSID, u32{0x10010}));
    ASSERT_EQ(20U, fw.size());
    for (std::size_t size = 0; size <= fw.size(); ++size)
        EXPECT_EQ(size == 20  ? "mark 10 to 10010"
                  : size >= 7 ? "mark 10 to 0"
                              : "mark 10 to 0, not plain",
                  filter(0x10, as_scripted, fw.substr(0, size)))
            << size;
}

// What stands behind an attribute with a wrong length cannot be found.
TEST(TcDump, AnAttributeOfAWrongLengthEndsThem)
{
    for (const std::size_t length : {0U, 1U, 3U, 60000U}) {
        SCOPED_TRACE(length);
        const string wrong = attribute_of(TCA_KIND, length, "prio");  // 8 bytes
        EXPECT_EQ("htb", class_of(kind("htb") + wrong).kind);
        EXPECT_EQ("", class_of(wrong).kind);
        EXPECT_EQ("", class_of(wrong + kind("htb")).kind);
    }
    EXPECT_EQ("prio", class_of(attribute_of(TCA_KIND, 8, "prio")).kind);
    EXPECT_EQ("", class_of(attribute_of(TCA_KIND, 9, "prio")).kind);
    // No value at all: it is there, and empty.
    EXPECT_EQ("", class_of(kind("htb") + attribute_of(TCA_KIND, 4, "")).kind);
    EXPECT_EQ("htb", class_of(attribute_of(TCA_CHAIN, 4, "") + kind("htb")).kind);
}

// The last attribute may come without its padding, and the padding is no attribute.
TEST(TcDump, TheEndNeedsNoPadding)
{
    const string name = attribute_of(TCA_KIND, 7, "htb");
    EXPECT_EQ("htb", class_of(name).kind);
    EXPECT_EQ("htb", class_of(name + '\0').kind);
    EXPECT_EQ("htb", class_of(name + '\0' + attribute_of(TCA_KIND, 8, "pri")).kind);
    EXPECT_EQ("prio", class_of(name + '\0' + attribute_of(TCA_KIND, 8, "prio")).kind);
    for (std::size_t more = 1; more < 4; ++more)
        EXPECT_EQ("htb", class_of(kind("htb") + string(more, '\1')).kind);
}

TEST(TcDump, ATextEndsWithItsNulOrItsAttribute)
{
    EXPECT_EQ("htb", class_of(attribute_of(TCA_KIND, 7, "htb")).kind);
    EXPECT_EQ("htb", class_of(attribute(TCA_KIND, string("htb\0x", 5))).kind);
    EXPECT_EQ("a name of more than sixteen characters",
              class_of(kind("a name of more than sixteen characters")).kind);
}

// Newer kernels mark what holds attributes (bit 15) or is in network byte order (bit 14).
TEST(TcDump, FlagsInATypeAreNoPartOfIt)
{
    const string of_htb = attribute(TCA_HTB_PARMS, htb(1000000, 2000000, 0, 0, 3));
    EXPECT_EQ(1000000U, class_of(kind("htb") + attribute(TCA_OPTIONS | NLA_F_NESTED, of_htb)).rate);
    EXPECT_EQ("htb", class_of(attribute(TCA_KIND | NLA_F_NET_BYTEORDER, string("htb"))).kind);
}

// Zeros stand for what an older kernel's shorter record does not have.
TEST(TcDump, AShortRecordIsFilledWithZeros)
{
    const string whole = bytes(htb(2500000, 12500000, 37500, 18750, 5));
    // Up to the ceil's rate: 12 + 12 bytes
    EXPECT_EQ("10010 on 10003 htb rate 2500000 ceil 12500000 burst 0.000 cburst 0.000 prio 0"
              " rsc none fsc none usc none",
              text(class_of(htb_class(attribute(TCA_HTB_PARMS, whole.substr(0, 24))))));
    // A longer one than ours is cut.
    EXPECT_EQ(5U, class_of(htb_class(attribute(TCA_HTB_PARMS, whole + "more"))).prio);
    EXPECT_EQ("1000000 on 10010 pfifo", text(qdisc_of(kind("pfifo") + options(""))));
    EXPECT_EQ("mark 10 to 0",
              filter(0x10, as_scripted, kind("fw") + options(attribute_of(TCA_FW_CLASSID, 4, ""))));
}

// ---- Dumps --------------------------------------------------------------------------------------

constexpr u32 sequence = 9;

string message_of(std::size_t length, unsigned type, u32 number, const string &body)
{
    nlmsghdr head{};
    head.nlmsg_len = static_cast<u32>(length);
    head.nlmsg_type = static_cast<u16>(type);
    head.nlmsg_flags = NLM_F_MULTI;
    head.nlmsg_seq = number;
    return bytes(head) + body;
}

string message(unsigned type, const string &body, u32 number = sequence)
{
    string out = message_of(sizeof(nlmsghdr) + body.size(), type, number, body);
    out.resize(NLMSG_ALIGN(out.size()));
    return out;
}

string qdisc_message(u32 handle, int ifindex = 7, const string &attributes = "",
                     u32 number = sequence)
{
    tcmsg head = head_of(handle, 0);
    head.tcm_ifindex = ifindex;
    return message(RTM_NEWQDISC, bytes(head) + attributes, number);
}

string done(int error = 0) { return message(NLMSG_DONE, bytes(error)); }

// What a reader gives of some answers: the handles and the kinds, and how it ended
struct heard {
    string seen;
    tool::dump_reader reader{
        sequence, 7, [this](const tcmsg &head, std::span<const char> rest) {
            seen += tool::format("%x ", head.tcm_handle);
            tool::each_attribute(rest, [&](const tool::attribute &a) { seen += a.text() + " "; });
        }};

    bool take(const string &in)
    {
        const exact all(in);
        return reader.take(all.span());
    }
};

string dump(std::initializer_list<string> answers)
{
    heard h;
    for (const string &in : answers) {
        errno = 0;
        if (!h.take(in)) return h.seen + tool::format("error %d", errno);
    }
    return h.seen + (h.reader.ended() ? "ended" : "more");
}

TEST(TcDump, ADumpEndsWithItsEnd)
{
    EXPECT_EQ("more", dump({}));
    EXPECT_EQ("more", dump({""}));
    EXPECT_EQ("ended", dump({done()}));
    EXPECT_EQ("1 htb 2 ended",
              dump({qdisc_message(1, 7, kind("htb")) + qdisc_message(2) + done()}));
    EXPECT_EQ("1 2 ended", dump({qdisc_message(1), qdisc_message(2), done()}));
    EXPECT_EQ("1 2 more", dump({qdisc_message(1), qdisc_message(2)}));
    EXPECT_EQ("1 ended", dump({qdisc_message(1) + message(NLMSG_DONE, "")}));
}

TEST(TcDump, AnErrorBreaksADumpOff)
{
    EXPECT_EQ(tool::format("error %d", EPERM), dump({message(NLMSG_ERROR, bytes(-EPERM))}));
    EXPECT_EQ(tool::format("1 error %d", ENODEV),
              dump({qdisc_message(1) + message(NLMSG_ERROR, bytes(-ENODEV)) + qdisc_message(2)}));
    // The end carries one too: a filter dump that the kernel could not finish.
    EXPECT_EQ(tool::format("1 error %d", EMSGSIZE), dump({qdisc_message(1), done(-EMSGSIZE)}));
}

// An error of 0 is an acknowledgement. What it holds behind the number is a request, which is as
// long as a tcmsg: its length, here 7, stands where the index of an interface would.
TEST(TcDump, AnAcknowledgementIsNoRecord)
{
    nlmsghdr request{};
    request.nlmsg_len = 7;
    EXPECT_EQ("1 more", dump({message(NLMSG_ERROR, bytes(0) + bytes(request)) + qdisc_message(1)}));
}

TEST(TcDump, OnlyAnswersToTheRequestAreTaken)
{
    const string late = message(NLMSG_DONE, bytes(0), sequence - 1);
    const string error = message(NLMSG_ERROR, bytes(-EPERM), sequence + 1);
    EXPECT_EQ("1 ended", dump({late + qdisc_message(2, 7, "", sequence - 1) + qdisc_message(1) +
                               error + done()}));
    EXPECT_EQ("more", dump({late}));
}

TEST(TcDump, OnlyMessagesAboutTheInterfaceAreTaken)
{
    EXPECT_EQ("2 4 ended", dump({qdisc_message(1, 6) + qdisc_message(2) + qdisc_message(3, 8) +
                                 qdisc_message(4) + qdisc_message(5, 0) + done()}));
}

TEST(TcDump, AMessageThatIsNotWholeEndsItsDatagram)
{
    // Of any length that leaves out a byte of the second message; the third is another datagram.
    const string one = qdisc_message(1);
    const string two = one + qdisc_message(2);
    ASSERT_EQ(36U, one.size());
    for (std::size_t size = 36; size < 72; ++size)
        EXPECT_EQ("1 ended", dump({two.substr(0, size), done()})) << size;
    for (std::size_t size = 0; size < 36; ++size)
        EXPECT_EQ("more", dump({two.substr(0, size)})) << size;
    for (const std::size_t length : {0U, 1U, 15U, 37U, 60000U})
        EXPECT_EQ("more", dump({message_of(length, RTM_NEWQDISC, sequence, bytes(head_of(1, 0)))}))
            << length;
}

TEST(TcDump, AMessageWithoutAWholeRecordIsLeftOut)
{
    const string record = bytes(head_of(1, 0));
    ASSERT_EQ(20U, record.size());
    for (std::size_t size = 0; size < 20; ++size)
        EXPECT_EQ("2 ended",
                  dump({message(RTM_NEWQDISC, record.substr(0, size)) + qdisc_message(2) + done()}))
            << size;
}

// A message of 37 bytes is followed by 3 of padding, but at the end of a datagram.
TEST(TcDump, MessagesAreAlignedToFourBytes)
{
    const string odd = message(RTM_NEWQDISC, bytes(head_of(1, 0)) + "x");
    ASSERT_EQ(40U, odd.size());
    EXPECT_EQ("1 2 ended", dump({odd + qdisc_message(2) + done()}));
    EXPECT_EQ("1 ended", dump({odd.substr(0, 37), done()}));
}

// ---- What a kernel said -------------------------------------------------------------------------

// Linux 6.1 on a little-endian machine, interface 2, after these commands of tc 6.1:
//     tc qdisc add dev d0 root handle 1: htb default 0x10
//     tc class add dev d0 parent 1: classid 1:10 htb rate 2mbit ceil 40gbit burst 6000b
//         cburst 8000b prio 5
//     tc qdisc add dev d0 parent 1:10 handle 100: tbf rate 1mbit burst 5000b latency 20ms
//     tc filter add dev d0 parent 1: protocol ip prio 50 handle 0x10 fw classid 1:10
// One text is one datagram; a word is four bytes in the order in which they came.

const char *const qdisc_answer[] = {
    // htb 1:
    "c0000000 24000200 01000000 b9020000 00000000 02000000 00000100 ffffffff "
    "02000000 08000100 68746200 24000200 18000200 11000300 0a000000 10000000 "
    "00000000 00000000 08000500 e8030000 05000c00 00000000 04000900 38000700 "
    "04000600 14000100 00000000 00000000 00000000 00000000 04000600 18000300 "
    "00000000 00000000 00000000 00000000 00000000 2c000300 00000000 00000000 "
    "00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 "
    // tbf 100:
    "c8000000 24000200 01000000 b9020000 00000000 02000000 00000001 10000100 "
    "01000000 08000100 74626600 2c000200 28000100 00010000 00000000 48e80100 "
    "00000000 00000000 00000000 4c1d0000 68890900 00000000 05000c00 00000000 "
    "04000900 38000700 04000600 14000100 00000000 00000000 00000000 00000000 "
    "04000600 18000300 00000000 00000000 00000000 00000000 00000000 2c000300 "
    "00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 "
    "00000000 00000000 ",
    // the end
    "14000000 03000200 01000000 b9020000 00000000 ",
};

const char *const class_answer[] = {
    // 1:10
    "0c010000 28000200 02000000 b9020000 00000000 02000000 10000100 ffffffff "
    "00000001 08000100 68746200 44000200 30000100 00010000 00000000 90d00300 "
    "00010000 00000000 ffffffff d8b80500 0f000000 a8610000 00000000 05000000 "
    "04000800 0c000700 00f2052a 01000000 04000900 50000700 04000600 14000100 "
    "00000000 00000000 00000000 00000000 04000600 18000300 00000000 00000000 "
    "00000000 00000000 00000000 18000400 00000000 00000000 00000000 d8b80500 "
    "0f000000 2c000300 00000000 00000000 00000000 00000000 00000000 00000000 "
    "00000000 00000000 00000000 00000000 04000900 18000400 00000000 00000000 "
    "00000000 d8b80500 0f000000 "
    // 100:1, which a tbf shows as its class
    "64000000 28000200 02000000 b9020000 00000000 02000000 01000001 00000001 "
    "00000000 08000100 74626600 04000900 04000700 04000900 2c000300 00000000 "
    "00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 "
    "00000000 ",
    // the end
    "14000000 03000200 02000000 b9020000 00000000 ",
};

const char *const filter_answer[] = {
    // priority 50 as a whole
    "34000000 2c000200 03000000 b9020000 00000000 02000000 00000000 00000100 "
    "08003200 07000100 66770000 08000b00 00000000 "
    // mark 0x10
    "40000000 2c000200 03000000 b9020000 00000000 02000000 10000000 00000100 "
    "08003200 07000100 66770000 08000b00 00000000 0c000200 08000100 10000100 ",
    // the end
    "14000000 03000200 03000000 b9020000 00000000 ",
};

string unhex(const string &words)
{
    string out;
    for (std::size_t at = 0; at + 1 < words.size(); at += words[at] == ' ' ? 1 : 2)
        if (words[at] != ' ') out += static_cast<char>(std::stoi(words.substr(at, 2), nullptr, 16));
    return out;
}

template <std::size_t Datagrams>
string replayed(const char *const (&answer)[Datagrams], u32 number,
                const tool::dump_reader::receiver &each)
{
    tool::dump_reader reader(number, 2, each);
    for (const char *datagram : answer) {
        const exact in(unhex(datagram));
        if (reader.ended() || !reader.take(in.span())) return "broken off";
    }
    return reader.ended() ? "ended" : "more";
}

TEST(TcDump, WhatAKernelSaidIsRead)
{
    if (htons(1) == 1) GTEST_SKIP() << "recorded on a little-endian machine";
    string seen;
    EXPECT_EQ("ended", replayed(qdisc_answer, 1, [&](const tcmsg &head, auto rest) {
                  seen += text(tool::parse_qdisc(head, rest, 15.625)) + "\n";
              }));
    // 125000 bytes/s for 20 ms and 5000 besides are 7500.
    EXPECT_EQ("10000 on ffffffff htb default 16\n"
              "1000000 on 10010 tbf limit 7500 rate 125000 burst 5000.000\n",
              seen);
    // 8000 bytes at 5000000000 bytes/s take 1.6 us, of which tc says 1: 15 whole ticks, 4800 bytes.
    seen.clear();
    EXPECT_EQ("ended", replayed(class_answer, 2, [&](const tcmsg &head, auto rest) {
                  const auto c = tool::parse_class(head, rest, 15.625);
                  seen += c ? text(*c) + "\n" : "none\n";
              }));
    EXPECT_EQ("10010 on ffffffff htb rate 250000 ceil 5000000000 burst 6000.000 cburst 4800.000"
              " prio 5 rsc none fsc none usc none\nnone\n",
              seen);
    seen.clear();
    EXPECT_EQ("ended", replayed(filter_answer, 3, [&](const tcmsg &head, auto rest) {
                  const auto f = tool::parse_filter(head, rest);
                  seen += f ? tool::format("%x to %x %d\n", f->mark, f->id, f->plain) : "none\n";
              }));
    EXPECT_EQ("none\n10 to 10010 1\n", seen);
}

// ---- The tree and its clock ---------------------------------------------------------------------

live_qdisc at(u32 handle, u32 parent)
{
    live_qdisc q;
    q.handle = handle;
    q.parent = parent;
    return q;
}

TEST(TcDump, TheRootIsTheOneThatSomebodyPutThere)
{
    live_tree tree;
    EXPECT_EQ(nullptr, tree.root());
    // The kernel's default has no handle; ingress and leaves do not hang on the root.
    tree.qdiscs = {at(0, TC_H_ROOT), at(0xffff0000, TC_H_INGRESS), at(0x1000000, 0x10010)};
    EXPECT_EQ(nullptr, tree.root());
    tree.qdiscs.push_back(at(0x80010000, TC_H_ROOT));
    ASSERT_EQ(&tree.qdiscs[3], tree.root());
}

TEST(TcDump, LeavesAndClassesAreFound)
{
    live_tree tree;
    tree.qdiscs = {at(0x10000, TC_H_ROOT), at(0x1000000, 0x10010), at(0x1100000, 0x10011)};
    EXPECT_EQ(&tree.qdiscs[2], tree.leaf_of(0x10011));
    EXPECT_EQ(nullptr, tree.leaf_of(0x10000));
    EXPECT_EQ(nullptr, tree.leaf_of(0x1100000));
    EXPECT_EQ(nullptr, tree.find(0x10010));
    tree.classes.resize(2);
    tree.classes[0].id = 0x10010;
    tree.classes[1].id = 0x10011;
    tree.classes[1].parent = 0x10012;
    EXPECT_EQ(&tree.classes[0], tree.find(0x10010));
    EXPECT_EQ(&tree.classes[1], tree.find(0x10011));
    EXPECT_EQ(nullptr, tree.find(0x10012));
}

TEST(TcDump, TheClocksLineTellsItsTicks)
{
    // 1000 ns / 64 ns, of a clock of 1000000 us in a second
    EXPECT_EQ(15.625, tool::parse_psched("000003e8 00000040 000f4240 3b9aca00\n"));
    // 1000 / 1024 * 1: before 2009
    EXPECT_EQ(0.9765625, tool::parse_psched("000003e8 00000400 000f4240 000000fa\n"));
    // 1 / 2 * 3
    EXPECT_EQ(1.5, tool::parse_psched("1 2 2dc6c0 0"));
    for (const char *line : {"", "\n", "none", "3e8", "3e8 40", "3e8 40 0", "3e8 0 f4240"})
        EXPECT_EQ(15.625, tool::parse_psched(line)) << line;
}

}  // namespace
