// SPDX-License-Identifier: MIT
// Nothing in a caller's record counts but its named fields: the bytes between and behind them, and
// those of a union that the field in use does not reach, may hold anything.
#include <algorithm>
#include <initializer_list>
#include <new>
#include <string>

#include "tree_text.h"

namespace {

// A record whose storage was filled before its fields are assigned, one by one: an assignment of
// whole records would bring bytes of its own.
template <typename Record>
class filled {
public:
    explicit filled(unsigned char byte)
    {
        record_ = ::new (static_cast<void *>(storage_)) Record;
        std::memset(storage_, byte, sizeof storage_);
    }
    filled(const filled &) = delete;
    filled &operator=(const filled &) = delete;
    Record *operator->() { return record_; }
    Record *get() { return record_; }

private:
    alignas(Record) unsigned char storage_[sizeof(Record)];
    Record *record_;
};

void set_automark(automark_value &value)
{
    value.enable = 1;
    for (u16 i = 0; i < 8; ++i) value.mark[i] = static_cast<u16>(2 + i % 2);
}

void add_interfaces(unsigned char byte)
{
    filled<class_root_param> tree(byte);
    tree->default_class = 3;
    set_automark(tree->automark);
    ASSERT_EQ(0, add_root_qdisc(test::speeds, "lan0", R_HTB, tree.get()));
    ASSERT_EQ(0, add_root_qdisc(test::speeds, "wan0", R_HFSC, tree.get()));
    filled<prio_root_param> bands(byte);
    bands->bands = 3;
    for (u8 i = 0; i < 16; ++i) bands->priomap[i] = i % 3;
    set_automark(bands->automark);
    ASSERT_EQ(0, add_root_qdisc(test::speeds, "wifi0", R_PRIO, bands.get()));
    filled<pfifo_fast_root_param> queue(byte);
    queue->queue_len = 250;
    ASSERT_EQ(0, add_root_qdisc(test::speeds, "usb0", R_pfifo_fast, queue.get()));
}

void add_classes(unsigned char byte)
{
    filled<htb_class_param> rates(byte);
    rates->rate = 5000;
    rates->ceil = 9000;
    rates->burst = 1600;
    rates->cburst = 0;
    rates->prio = 2;
    for (const u32 handle : {0x10U, 0x11U, 0x12U, 0x13U})
        ASSERT_EQ(0, add_class("lan0", 1, handle, rates.get(), ""));
    filled<hfsc_class_param> curves(byte);
    for (hfsc_curve *curve : {&curves->ul, &curves->sc, &curves->ls, &curves->rt}) {
        curve->umax = 1500;
        curve->dmax = 20;
        curve->rate = 4000;
    }
    ASSERT_EQ(0, add_class("wan0", 1, 0x10, curves.get(), ""));
}

void set_leaves(unsigned char byte)
{
    filled<leaf_qdisc> fifo(byte);
    fifo->type = L_pfifo;
    fifo->param.pfifo.limit = 50;
    ASSERT_EQ(0, add_leaf_qdisc("lan0", 0x10, fifo.get()));
    filled<leaf_qdisc> fair(byte);
    fair->type = L_SFQ;
    fair->param.sfq.perturb = 10;
    ASSERT_EQ(0, add_leaf_qdisc("lan0", 0x11, fair.get()));
    filled<leaf_qdisc> early(byte);
    early->type = L_RED;
    early->param.red.min = 30000;
    early->param.red.max = 90000;
    early->param.red.burst = 55;
    early->param.red.limit = 120000;
    early->param.red.avpkt = 1000;
    ASSERT_EQ(0, add_leaf_qdisc("lan0", 0x12, early.get()));
    filled<leaf_qdisc> bucket(byte);
    bucket->type = L_TBF;
    bucket->param.tbf.latency = 50;
    bucket->param.tbf.rate = 3000;
    bucket->param.tbf.burst = 16000;
    ASSERT_EQ(0, add_leaf_qdisc("lan0", 0x13, bucket.get()));
}

void add_schedules(unsigned char byte)
{
    filled<qos_sched> times(byte);
    times->index = 3;
    times->days = 0x41;
    times->all_day = 0;
    times->start_hour = 8;
    times->stop_hour = 17;
    times->start_min = 30;
    times->stop_min = 45;
    ASSERT_EQ(1, add_sched(times.get()));
}

// Every field but the unions'
void set_match(qos_match &m)
{
    m.flags = 0x7ff;
    m.dot1p_prio = 5;
    m.vlan_id = 100;
    test::put(m.src_mac, "00:11:22:33:44:55");
    m.src_ip_start = 0x0a000001;
    m.src_ip_end = 0x0a000063;
    m.dst_ip_start = 0xc0a80102;
    m.dst_ip_end = 0xc0a8fffe;
    m.tos = 16;
    m.precedence = 7;
    m.protocol = 0;
    m.sport_start = 1024;
    m.sport_end = 65535;
    m.dport_start = 80;
    m.dport_end = 443;
    m.tcp_flag_mask = 0x3f;
    m.tcp_flag_comp = 0x02;
    m.pkt_len = 0x00400578;
    m.alg = 2;
    test::put(m.url, "example.org/a");
    test::put(m.domain, "example.org");
    m.sched_index = 3;
}

void set_target(qos_target &t)
{
    t.flags = 0x1f;
    t.mark = 2;
    t.vlan_prio = 6;
    t.vlan_id = 200;
    t.vlan_double = 1;
    t.log = 1;
}

// Each union once by its one byte, once by its whole number
void add_rules(unsigned char byte)
{
    filled<qos_match> match(byte);
    filled<qos_target> target(byte);
    set_match(*match.get());
    set_target(*target.get());
    match->dscp_mode = 0;
    match->dscp_value.raw = 46;
    target->kind = 0;
    target->value.raw = 12;
    for (const char *ifname : {"lan0", "wan0", "wifi0"})
        for (const u8 index : {u8{7}, u8{42}})
            ASSERT_EQ(1, add_qos_rule(ifname, index, match.get(), target.get()));
    match->dscp_mode = 1;
    match->dscp_value.class_id = 21;
    target->kind = 1;
    target->value.class_id = 9;
    for (const char *ifname : {"lan0", "wan0", "wifi0"})
        ASSERT_EQ(1, modify_qos_rule(ifname, 42, match.get(), target.get()));
}

std::string numbers(std::initializer_list<int> all)
{
    std::string text;
    for (const int n : all) text += " " + std::to_string(n);
    return text + "\n";
}

// All that the library makes of them
std::string told()
{
    std::string text;
    for (const char *ifname : {"lan0", "wan0", "wifi0", "usb0"}) {
        text += numbers({start_qos(ifname), stop_qos(ifname)});
        text += test::read_file("/var/tmp/qos_start") + test::read_file("/var/tmp/qos_stop");
        text += test::written(
            [&](FILE *out) { (void)renew_qos_rule(out, ifname, find_rule_list_by_name(ifname)); });
        show_ifqos(ifname);
        show_rule(ifname);
        for (const test::traced &line : test::console())
            text += line.source + line.function + line.message + "\n";
        // A mark and an index are found by comparing.
        text += numbers({check_Key(ifname, 2), check_Key(ifname, 0x10), check_Key(ifname, 0x1010),
                         del_qos_rule(ifname, 43), del_leaf_qdisc(ifname, 0x14)});
        automark_value marks{};
        text += numbers(
            {get_automark_value(ifname, &marks), marks.enable, marks.mark[0], marks.mark[7]});
    }
    char times[96];
    text += numbers({get_sched_str(3, times, sizeof times - 1)}) + times;
    const qos_sched &kept = search_sched(3)->sched;
    text += numbers({kept.index, kept.days, kept.all_day, kept.start_hour, kept.stop_hour});
    return text;
}

class Padding : public test::mordel_test {
protected:
    static std::string told_of(unsigned char byte)
    {
        add_interfaces(byte);
        add_classes(byte);
        set_leaves(byte);
        add_schedules(byte);
        add_rules(byte);
        std::string text = told();
        for (const char *ifname : {"lan0", "wan0", "wifi0", "usb0"})
            EXPECT_EQ(0, del_root_qdisc(ifname));
        EXPECT_EQ(1, del_sched(3));
        return text;
    }
};

TEST_F(Padding, IsNeverRead)
{
    const std::string with_zeros = told_of(0x00);
    const std::string with_ones = told_of(0xff);
    EXPECT_LT(10000U, with_zeros.size());
    EXPECT_NE(std::string::npos, with_zeros.find("iptables"));
    // Compared before it is shown: such texts are long.
    const auto [zeros, ones] =
        std::mismatch(with_zeros.begin(), with_zeros.end(), with_ones.begin(), with_ones.end());
    EXPECT_TRUE(with_zeros == with_ones)
        << std::string(zeros, with_zeros.end()).substr(0, 200) << "\n---- and not\n"
        << std::string(ones, with_ones.end()).substr(0, 200);
}

}  // namespace
