// SPDX-License-Identifier: MIT
// The tree rendered as tc commands, and the scripts that hold them.

#include <array>
#include <bit>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "faults.h"
#include "support.h"
#include "tarnic_iptables.h"
#include "tarnic_qos.h"

namespace fs = std::filesystem;

namespace {

using test::not_found;
using test::traced;
using test::traces;

constexpr char start_script[] = "/var/tmp/qos_start";
constexpr char stop_script[] = "/var/tmp/qos_stop";

const std::string head = "#!/bin/sh\n#Generate by tarnic\n#Author: Ora Vel\n";
const traced unknown_leaf = {"tarnic_qos", "do_leaf2cmd",
                             "An error occur at not define leaf qdisc type"};

traced started(const std::string &ifname)
{
    return {"tarnic_qos", "restart_qos_all", "Start " + ifname + "'s Qos!!"};
}

// PHY 100000 and LINK 20000 kbit/s.
void add_root(const char *ifname, u32 type, const void *param)
{
    const u32 speeds[4] = {20000, 1, 100000, 2};
    ASSERT_EQ(0, add_root_qdisc(speeds, ifname, type, param));
    ASSERT_EQ((traces{not_found(ifname)}), test::console());
}

void add_htb(const char *ifname)
{
    class_root_param param{};
    param.default_class = 3;
    add_root(ifname, R_HTB, &param);
}

void add_hfsc(const char *ifname)
{
    class_root_param param{};
    param.default_class = 3;
    add_root(ifname, R_HFSC, &param);
}

void add_prio(const char *ifname, int bands)
{
    prio_root_param param{};
    param.bands = static_cast<u8>(bands);
    const u8 priomap[16] = {1, 2, 0, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 255};
    std::memcpy(param.priomap, priomap, sizeof priomap);
    add_root(ifname, R_PRIO, &param);
}

void add_fifo(const char *ifname, u32 length)
{
    pfifo_fast_root_param param{};
    param.queue_len = length;
    add_root(ifname, R_pfifo_fast, &param);
}

qos_if *record(const char *ifname) { return mordel::root_qdisc_find_by_name(ifname); }

// A class of rate and ceil `handle`, without bursts.
void add_htb_class(const char *ifname, u32 parent, u32 handle)
{
    htb_class_param param{};
    param.rate = param.ceil = handle;
    ASSERT_EQ(0, add_class(ifname, parent, handle, &param, "")) << handle;
}

void set_leaf(const char *ifname, u32 handle, const leaf_qdisc &leaf)
{
    ASSERT_EQ(0, add_leaf_qdisc(ifname, handle, &leaf));
}

std::string root_text(qos_if *rec)
{
    return test::written([&](FILE *out) { mordel::root2cmd(out, rec); });
}

std::string class_text(const char *ifname, list_head *classes)
{
    return test::written([&](FILE *out) { mordel::class2cmd(out, ifname, classes); });
}

std::string curve_text(const hfsc_curve &curve, int id)
{
    return test::written([&](FILE *out) { mordel::curve2cmd(out, &curve, id); });
}

std::string leaf_text(const char *ifname, int handle, const leaf_qdisc &leaf)
{
    return test::written(
        [&](FILE *out) { mordel::do_leaf2cmd(out, ifname, static_cast<u16>(handle), &leaf); });
}

std::string hex(u32 number)
{
    std::ostringstream digits;
    digits << std::hex << number;
    return digits.str();
}

// Filled to three columns, and the blank that follows.
std::string hex3(u32 number)
{
    std::string text = hex(number);
    while (text.size() < 3) text += ' ';
    return text + ' ';
}

// The two lines of a class of eth0 that has the leaf it started with.
std::string fifo_lines(u32 handle)
{
    return "tc qdisc add dev eth0 parent 1:0x" + hex3(handle) + "handle 0x" + hex(handle * 16) +
           ": pfifo \ntc filter add dev eth0 parent 1:0 protocol ip prio 50 handle 0x" +
           hex(handle) + " fw classid 1:0x" + hex(handle) + "\n";
}

class TcText : public test::mordel_test {};

// ---- Leaves ------------------------------------------------------------------------------------

const std::string leaf_5 = "tc qdisc add dev eth0 parent 1:0x5   handle 0x50: ";
const std::string filter_5 =
    "tc filter add dev eth0 parent 1:0 protocol ip prio 50 handle 0x5 fw classid 1:0x5\n";

TEST_F(TcText, LeavesOfEachType)
{
    leaf_qdisc leaf{};
    EXPECT_EQ(leaf_5 + "pfifo \n" + filter_5, leaf_text("eth0", 5, leaf));
    leaf.param.pfifo.limit = 50;
    EXPECT_EQ(leaf_5 + "pfifo limit 50\n" + filter_5, leaf_text("eth0", 5, leaf));
    leaf.param.pfifo.limit = 0xffffffff;
    EXPECT_EQ(leaf_5 + "pfifo limit 4294967295\n" + filter_5, leaf_text("eth0", 5, leaf));

    leaf = {};
    leaf.type = L_SFQ;
    EXPECT_EQ(leaf_5 + "sfq \n" + filter_5, leaf_text("eth0", 5, leaf));
    leaf.param.sfq.perturb = 1;
    EXPECT_EQ(leaf_5 + "sfq perturb 1\n" + filter_5, leaf_text("eth0", 5, leaf));
    leaf.param.sfq.perturb = 255;
    EXPECT_EQ(leaf_5 + "sfq perturb 255\n" + filter_5, leaf_text("eth0", 5, leaf));

    leaf.type = L_RED;
    leaf.param.red = {1, 2, 3, 4, 5};
    EXPECT_EQ(leaf_5 + "red min 1b max 2b burst 3 limit 4b avpkt 5b\n" + filter_5,
              leaf_text("eth0", 5, leaf));
    leaf.param.red = {0, 0xffffffff, 0, 0x80000000, 0};
    EXPECT_EQ(leaf_5 + "red min 0b max 4294967295b burst 0 limit 2147483648b avpkt 0b\n" + filter_5,
              leaf_text("eth0", 5, leaf));

    leaf.type = L_TBF;
    leaf.param.tbf = {50, 1000, 1540};
    EXPECT_EQ(leaf_5 + "tbf latency 50ms rate 1000kbit burst 1540b\n" + filter_5,
              leaf_text("eth0", 5, leaf));
    leaf.param.tbf = {0xffffffff, 0, 0xffffffff};
    EXPECT_EQ(leaf_5 + "tbf latency 4294967295ms rate 0kbit burst 4294967295b\n" + filter_5,
              leaf_text("eth0", 5, leaf));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(TcText, ALeafOfUnknownTypeLeavesItsLineOpen)
{
    for (const u32 type : {mordel::leaf_types, mordel::leaf_types + 1, 256U, 0xffffffffU}) {
        leaf_qdisc leaf{};
        std::memset(&leaf, 0x55, sizeof leaf);
        leaf.type = type;
        EXPECT_EQ(leaf_5 + filter_5, leaf_text("eth0", 5, leaf));
        EXPECT_EQ((traces{unknown_leaf}), test::console());
    }
}

TEST_F(TcText, LeafHandlesArePaddedToThreeDigitsAndTimesSixteen)
{
    struct {
        int handle;
        const char *parent, *qdisc, *filter;
    } const cases[] = {
        {0, "1:0x0   ", "0x0: ", "0x0 fw classid 1:0x0\n"},
        {1, "1:0x1   ", "0x10: ", "0x1 fw classid 1:0x1\n"},
        {0xf, "1:0xf   ", "0xf0: ", "0xf fw classid 1:0xf\n"},
        {0x10, "1:0x10  ", "0x100: ", "0x10 fw classid 1:0x10\n"},
        {0x100, "1:0x100 ", "0x1000: ", "0x100 fw classid 1:0x100\n"},
        {0xfff, "1:0xfff ", "0xfff0: ", "0xfff fw classid 1:0xfff\n"},
        {0x1000, "1:0x1000 ", "0x10000: ", "0x1000 fw classid 1:0x1000\n"},
        {0xffff, "1:0xffff ", "0xffff0: ", "0xffff fw classid 1:0xffff\n"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(std::string("tc qdisc add dev ppp0 parent ") + c.parent + "handle " + c.qdisc +
                      "pfifo \ntc filter add dev ppp0 parent 1:0 protocol ip prio 50 handle " +
                      c.filter,
                  leaf_text("ppp0", c.handle, {}));
}

// ---- Curves ------------------------------------------------------------------------------------

TEST_F(TcText, Curves)
{
    struct {
        hfsc_curve curve;
        int id;
        const char *text;
    } const cases[] = {
        {{0, 0, 0}, mordel::curve_ul, "ul rate 0kbit "},
        {{0, 0, 500}, mordel::curve_sc, "sc rate 500kbit "},
        {{1500, 0, 500}, mordel::curve_ls, "ls umax 1500b rate 500kbit "},
        {{0, 20, 500}, mordel::curve_rt, "rt dmax 20ms rate 500kbit "},
        {{1500, 20, 0}, 3, "rt umax 1500b dmax 20ms rate 0kbit "},
        {{0xffffffff, 0xffffffff, 0xffffffff},
         0,
         "ul umax 4294967295b dmax 4294967295ms rate 4294967295kbit "},
        {{0, 0, 1}, 4, "Unknown rate 1kbit "},
        {{0, 0, 1}, -1, "Unknown rate 1kbit "},
    };
    for (const auto &c : cases) EXPECT_EQ(c.text, curve_text(c.curve, c.id));
}

// ---- Classes -----------------------------------------------------------------------------------

const std::string class_5 = "tc class add dev eth0 parent 1:0x0   classid 1:0x5   ";

TEST_F(TcText, HtbBurstsAreLeftOutWhereZero)
{
    add_htb("eth0");
    ASSERT_EQ(0, del_class("eth0", 1));
    add_htb_class("eth0", 0, 5);
    htb_class_param &param = mordel::class_find("eth0", 5)->param.htb;
    struct {
        htb_class_param param;
        const char *text;
    } const cases[] = {
        {{300, 400, 0, 0, 7}, "htb rate 300kbit ceil 400kbit prio 7 \n"},
        {{300, 400, 1500, 0, 7}, "htb rate 300kbit ceil 400kbit prio 7 burst 1500 \n"},
        {{300, 400, 0, 6000, 0}, "htb rate 300kbit ceil 400kbit prio 0 cburst 6000\n"},
        {{300, 400, 1, 2, 0}, "htb rate 300kbit ceil 400kbit prio 0 burst 1 cburst 2\n"},
        {{0xffffffff, 0xfffffffe, 0xfffffffd, 0xfffffffc, 0xfffffffb},
         "htb rate 4294967295kbit ceil 4294967294kbit prio 4294967291 "
         "burst 4294967293 cburst 4294967292\n"},
    };
    for (const auto &c : cases) {
        param = c.param;
        EXPECT_EQ(class_5 + c.text + fifo_lines(5), class_text("eth0", &record("eth0")->classes));
    }
}

TEST_F(TcText, HfscClassesShowTheUpperLimitAndTheFirstCurveWithARate)
{
    add_hfsc("eth0");
    ASSERT_EQ(0, del_class("eth0", 1));
    const hfsc_class_param none{};
    ASSERT_EQ(0, add_class("eth0", 0, 5, &none, ""));
    qos_class *cls = mordel::class_find("eth0", 5);
    list_head *classes = &record("eth0")->classes;
    const std::string ul = "hfsc ul umax 1b dmax 2ms rate 3kbit ";
    const auto curve = [](unsigned with_rate, u32 first) {
        return hfsc_curve{first, first + 1, with_rate != 0 ? first + 2 : 0};
    };
    for (const bool inner : {false, true}) {
        std::string behind = leaf_5 + "pfifo \n" + filter_5;
        if (inner) {
            ASSERT_EQ(0, add_class("eth0", 5, 6, &none, ""));
            behind = "tc class add dev eth0 parent 1:0x5   classid 1:0x6   hfsc ul rate 0kbit \n" +
                     fifo_lines(6);
        }
        for (unsigned rates = 0; rates < 8; ++rates) {
            SCOPED_TRACE(testing::Message() << inner << ' ' << rates);
            cls->param.hfsc = {
                {1, 2, 3}, curve(rates & 1, 10), curve(rates & 2, 20), curve(rates & 4, 30)};
            std::string second;
            if (rates % 2 == 1) {
                second = "sc umax 10b dmax 11ms rate 12kbit ";
            } else if (rates / 2 % 2 == 1) {
                second = "ls umax 20b dmax 21ms rate 22kbit ";
            } else if (rates == 4 && !inner) {
                second = "rt umax 30b dmax 31ms rate 32kbit ";
            }
            std::string text = class_5 + ul;
            text += second;
            text += "\n";
            text += behind;
            EXPECT_EQ(text, class_text("eth0", classes));
        }
    }
}

TEST_F(TcText, AnUpperLimitWithoutARateIsWritten)
{
    add_hfsc("eth0");
    mordel::class_find("eth0", 1)->param.hfsc = {};
    const std::string text = class_text("eth0", &record("eth0")->classes);
    EXPECT_EQ("tc class add dev eth0 parent 1:0x0   classid 1:0x1   hfsc ul rate 0kbit ",
              text.substr(0, text.find('\n')));
}

TEST_F(TcText, PrioAndUnknownClassTypesHaveNoClassLine)
{
    add_prio("eth0", 1);
    const std::string band = fifo_lines(1);
    list_head *classes = &record("eth0")->classes;
    EXPECT_EQ(band, class_text("eth0", classes));
    qos_class *cls = mordel::class_find("eth0", 1);
    for (const u32 type : {3U, 9U, 0xffffffffU}) {
        cls->type = type;
        EXPECT_EQ(band, class_text("eth0", classes));
    }
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(TcText, AnEmptyListHasNoText)
{
    add_htb("eth0");
    list_head none = {&none, &none};
    EXPECT_EQ("", class_text("eth0", &none));
    EXPECT_EQ("", class_text("eth0", &mordel::class_find("eth0", 2)->children));
}

// A class line of add_htb_class.
std::string htb_line(const std::string &ids, const std::string &rate)
{
    return "tc class add dev eth0 " + ids + "htb rate " + rate + "kbit ceil " + rate +
           "kbit prio 0 \n";
}

// Top-level classes 0x1000 and 5, and below the first handles of every width: the text in pieces.
const std::string at_ffff = htb_line("parent 1:0x1000 classid 1:0xffff ", "65535") +
                            htb_line("parent 1:0xffff classid 1:0x10  ", "16") +
                            htb_line("parent 1:0x10  classid 1:0x100 ", "256") + fifo_lines(0x100);
const std::string line_1 = htb_line("parent 1:0x0   classid 1:0x1   ", "1");  // always parent 0
const std::string at_5432 =
    htb_line("parent 1:0x1   classid 1:0x5432 ", "414770") + fifo_lines(0x5432);

void add_wide_tree()
{
    add_htb("eth0");
    ASSERT_EQ(0, del_class("eth0", 1));
    add_htb_class("eth0", 0, 0x1000);
    add_htb_class("eth0", 0x1000, 0xffff);
    add_htb_class("eth0", 0xffff, 0x10);
    add_htb_class("eth0", 0x10, 0x100);
    add_htb_class("eth0", 0x1000, 1);
    add_htb_class("eth0", 1, 0x65432);  // of which 16 bits count
    add_htb_class("eth0", 0, 5);
}

TEST_F(TcText, TheTreeIsWrittenInPreOrder)
{
    add_wide_tree();
    const std::string all = htb_line("parent 1:0x0   classid 1:0x1000 ", "4096") + at_ffff +
                            line_1 + at_5432 + htb_line("parent 1:0x0   classid 1:0x5   ", "5") +
                            leaf_5 + "pfifo \n" + filter_5;
    EXPECT_EQ(all, class_text("eth0", &record("eth0")->classes));
    EXPECT_EQ("tc qdisc add dev eth0 handle 1:0 root htb default 0x3\n" + all,
              root_text(record("eth0")));
}

TEST_F(TcText, ThePartOfAClassNamesThatClassAsParent)
{
    add_wide_tree();
    const auto below = [](u32 handle) {
        return class_text("eth0", &mordel::class_find("eth0", handle)->children);
    };
    EXPECT_EQ(at_ffff + line_1 + at_5432, below(0x1000));
    EXPECT_EQ(at_5432, below(1));
    EXPECT_EQ(htb_line("parent 1:0x10  classid 1:0x100 ", "256") + fifo_lines(0x100), below(0x10));
}

TEST_F(TcText, AnInnerClassKeepsItsLeafToItself)
{
    add_htb("eth0");
    ASSERT_EQ(0, del_class("eth0", 1));
    add_htb_class("eth0", 0, 5);
    leaf_qdisc leaf{};
    leaf.param.pfifo.limit = 77;
    set_leaf("eth0", 5, leaf);
    list_head *classes = &record("eth0")->classes;
    const std::string own = htb_line("parent 1:0x0   classid 1:0x5   ", "5");
    EXPECT_EQ(own + leaf_5 + "pfifo limit 77\n" + filter_5, class_text("eth0", classes));
    add_htb_class("eth0", 5, 4);
    EXPECT_EQ(own + htb_line("parent 1:0x5   classid 1:0x4   ", "4") + fifo_lines(4),
              class_text("eth0", classes));
    ASSERT_EQ(0, del_class("eth0", 4));
    EXPECT_EQ(own + leaf_5 + "pfifo limit 77\n" + filter_5, class_text("eth0", classes));
}

// ---- Roots -------------------------------------------------------------------------------------

TEST_F(TcText, RootsOfEachType)
{
    add_htb("eth0");
    add_hfsc("eth1");
    for (const char *ifname : {"eth0", "eth1"}) {
        ASSERT_EQ(0, del_class(ifname, 1));
        const std::string kind = ifname[3] == '0' ? "htb" : "hfsc";
        for (const auto &[handle, text] :
             {std::pair{0, "0x0"}, {0x1a, "0x1a"}, {0xffff, "0xffff"}}) {
            record(ifname)->param.classful.default_class = static_cast<u16>(handle);
            EXPECT_EQ(std::string("tc qdisc add dev ") + ifname + " handle 1:0 root " + kind +
                          " default " + text + "\n",
                      root_text(record(ifname)));
        }
    }
    add_prio("eth2", 0);
    EXPECT_EQ("tc qdisc add dev eth2 handle 1:0 root prio bands 0 "
              "priomap 1 2 0 3 4 5 6 7 8 9 10 11 12 13 14 255\n",
              root_text(record("eth2")));
    add_fifo("eth3", 0);
    EXPECT_EQ("ifconfig eth3 txqueuelen 0\n", root_text(record("eth3")));
    record("eth3")->param.pfifo_fast.queue_len = 0xffffffff;
    EXPECT_EQ("ifconfig eth3 txqueuelen 4294967295\n", root_text(record("eth3")));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(TcText, APfifoFastRootHasNoTreeWhateverHangsOnIt)
{
    add_htb("eth0");
    qos_if *eth0 = record("eth0");
    eth0->root_type = R_pfifo_fast;
    eth0->param.pfifo_fast.queue_len = 77;
    EXPECT_EQ("ifconfig eth0 txqueuelen 77\n", root_text(eth0));
    eth0->root_type = R_HTB;
}

TEST_F(TcText, EveryBandOfAPrioRootHasALeaf)
{
    add_prio("eth0", 255);
    std::string all = "tc qdisc add dev eth0 handle 1:0 root prio bands 255 "
                      "priomap 1 2 0 3 4 5 6 7 8 9 10 11 12 13 14 255\n";
    for (u32 band = 1; band <= 255; ++band) all += fifo_lines(band);
    EXPECT_EQ(all, root_text(record("eth0")));
}

TEST_F(TcText, UnknownRootTypesHaveNoText)
{
    add_htb("eth0");
    qos_if *eth0 = record("eth0");
    for (const u32 type : {4U, 0xffffffffU}) {
        eth0->root_type = type;
        EXPECT_EQ("", root_text(eth0));
        EXPECT_EQ(1, start_qos("eth0"));
        EXPECT_EQ(head + "tc qdisc del dev eth0 root 2>/dev/null\n" +
                      test::written([&](FILE *out) { mordel::emit_rule_start(out, eth0); }),
                  test::read_file(start_script));
    }
    eth0->root_type = R_HTB;
    EXPECT_EQ(traces{}, test::console());
}

// ---- Scripts -----------------------------------------------------------------------------------

void add_rule(const char *ifname, int index, int mark)
{
    qos_match match{};
    match.flags = 1U << mordel::QF_PROTOCOL;
    match.protocol = mordel::proto_icmp;
    qos_target target{};
    target.flags = 1U << mordel::target_mark;
    target.mark = static_cast<u16>(mark);
    ASSERT_EQ(1, add_qos_rule(ifname, static_cast<u8>(index), &match, &target));
}

const traced protocol_seen = {"tarnic_iptables", "draw_rule", "get QF_PROTOCOL match type"};

class TcScripts : public test::mordel_test {};

void expect_script(const char *path, const char *golden)
{
    test::expect_golden(golden, test::read_file(path));
    EXPECT_EQ(0700U, test::mode_of(path));
    EXPECT_EQ("", test::shell_syntax(path));
}

TEST_F(TcScripts, StartScriptsOfEachRootType)
{
    const std::pair<std::function<void()>, const char *> cases[] = {
        {[] { add_htb("eth0"); }, "qos_start_htb"},
        {[] { add_hfsc("eth0"); }, "qos_start_hfsc"},
        {[] { add_prio("eth0", 3); }, "qos_start_prio"},
        {[] { add_fifo("eth0", 1000); }, "qos_start_pfifo_fast"},
    };
    for (const auto &[add, golden] : cases) {
        SCOPED_TRACE(golden);
        add();
        EXPECT_EQ(1, start_qos("eth0"));
        expect_script(start_script, golden);
        EXPECT_FALSE(test::exists(stop_script));
        EXPECT_EQ(1, stop_qos("eth0"));
        expect_script(stop_script, "qos_stop");
        EXPECT_EQ(traces{}, test::console());
        ASSERT_EQ(0, del_root_qdisc("eth0"));
        fs::remove(stop_script);
    }
}

TEST_F(TcScripts, RulesFollowTheTree)
{
    add_htb("eth0");
    record("eth0")->param.classful.automark.enable = 1;
    add_rule("eth0", 2, 3);
    add_rule("eth0", 1, 2);
    EXPECT_EQ(1, start_qos("eth0"));
    EXPECT_EQ((traces{protocol_seen, protocol_seen}), test::console());
    const qos_if *eth0 = record("eth0");
    std::string rules;
    for (const char *mark : {"0x2", "0x3"})
        rules += std::string("iptables -t mangle -A QOS_eth0 -p icmp -j MARK --set-mark ") + mark +
                 " \n";
    for (int mark = 100; mark <= 800; mark += 100)
        rules += "iptables -t mangle -A QOS_eth0_AUTO -m connmark --mark " + std::to_string(mark) +
                 " -j MARK --set-mark 0x0 2>/dev/null\n";
    std::string text = test::read_file(start_script);
    EXPECT_EQ("", test::shell_syntax(start_script));
    ASSERT_LT(rules.size(), text.size());
    EXPECT_EQ(rules, text.substr(text.size() - rules.size()));
    test::expect_golden("qos_start_htb", text.substr(0, text.size() - rules.size()));
    EXPECT_EQ(1, stop_qos("eth0"));
    test::expect_golden("qos_stop", test::read_file(stop_script));
    EXPECT_EQ(traces{}, test::console());
    EXPECT_EQ(0U, list_empty(&eth0->rules));
}

TEST_F(TcScripts, TheRuleWritersAreThoseOfTheRules)
{
    add_htb("eth0");
    add_rule("eth0", 1, 3);
    qos_if *eth0 = record("eth0");
    EXPECT_EQ(test::written([&](FILE *out) { renew_qos_rule(out, "eth0", &eth0->rules); }),
              test::written([&](FILE *out) { mordel::emit_rule_start(out, eth0); }));
    EXPECT_EQ(test::written([&](FILE *out) { remove_qos_rule(out, "eth0"); }),
              test::written([&](FILE *out) { mordel::emit_rule_stop(out, eth0); }));
}

TEST_F(TcScripts, AnUnknownLeafTypeIsStillAScript)
{
    add_htb("eth0");
    leaf_qdisc leaf{};
    leaf.type = mordel::leaf_types;
    set_leaf("eth0", 3, leaf);
    EXPECT_EQ(1, start_qos("eth0"));
    EXPECT_EQ((traces{unknown_leaf}), test::console());
    EXPECT_EQ("", test::shell_syntax(start_script));
    const std::string text = test::read_file(start_script);
    const std::string open_line =
        "\ntc qdisc add dev eth0 parent 1:0x3   handle 0x30: "
        "tc filter add dev eth0 parent 1:0 protocol ip prio 50 handle 0x3 fw classid 1:0x3\n"
        "iptables -t mangle -F QOS_eth0 2>/dev/null\n";
    EXPECT_NE(std::string::npos, text.find(open_line)) << text;
}

TEST_F(TcScripts, AreNotRun)
{
    add_htb("eth0");
    const test::watch watch;
    EXPECT_EQ(1, start_qos("eth0"));
    EXPECT_EQ(1, stop_qos("eth0"));
    EXPECT_EQ(1, restart_qos("eth0"));
    restart_qos_all();
    EXPECT_EQ(0U, watch.calls("system").size() + watch.calls("popen").size());
}

TEST_F(TcScripts, TheLongestNameIsWrittenWhole)
{
    const std::string name(31, 'i');
    add_fifo(name.c_str(), 5);
    EXPECT_EQ(1, start_qos(name.c_str()));
    const std::string text = test::read_file(start_script);
    const std::string first = head + "tc qdisc del dev " + name + " root 2>/dev/null\nifconfig " +
                              name + " txqueuelen 5\niptables -t mangle -F QOS_" + name +
                              " 2>/dev/null\n";
    EXPECT_EQ(first, text.substr(0, first.size()));
    EXPECT_EQ(1, stop_qos(name.c_str()));
    EXPECT_EQ(head + "tc qdisc del dev " + name + " root 2>/dev/null\n" +
                  test::written([&](FILE *out) { remove_qos_rule(out, name.c_str()); }),
              test::read_file(stop_script));
    EXPECT_EQ(traces{}, test::console());
    EXPECT_EQ(0, start_qos((name + "i").c_str()));  // stored names are 31 characters at most
    EXPECT_EQ((traces{not_found(name + "i")}), test::console());
}

TEST_F(TcScripts, ReachTheCommandsWordByWord)
{
    fs::create_directory("/var/tmp/bin");
    for (const char *command : {"tc", "iptables", "ifconfig"}) {
        const std::string file = std::string("/var/tmp/bin/") + command;
        test::write_file(file, std::string("#!/bin/sh\n{ printf ") + command +
                                   "; printf '[%s]' \"$@\"; echo; } >>/var/tmp/calls\n");
        fs::permissions(file, fs::perms::owner_all);
    }
    add_htb("eth0");
    ASSERT_EQ(1, start_qos("eth0"));
    ASSERT_EQ(0, std::system("PATH=/var/tmp/bin:$PATH /var/tmp/qos_start"));
    std::istringstream in(test::read_file("/var/tmp/calls"));
    std::vector<std::string> calls;
    for (std::string line; std::getline(in, line) && line.starts_with("tc");)
        calls.push_back(line.substr(2));
    EXPECT_EQ((std::vector<std::string>{
                  "[qdisc][del][dev][eth0][root]",
                  "[qdisc][add][dev][eth0][handle][1:0][root][htb][default][0x3]",
                  ("[class][add][dev][eth0][parent][1:0x0][classid][1:0x1][htb][rate][100000kbit]"
                   "[ceil][100000kbit][prio][0][burst][1000000][cburst][1000000]"),
                  ("[class][add][dev][eth0][parent][1:0x1][classid][1:0x2][htb][rate][100000kbit]"
                   "[ceil][100000kbit][prio][0][burst][6000][cburst][6000]"),
                  "[qdisc][add][dev][eth0][parent][1:0x2][handle][0x20:][sfq][perturb][10]",
                  ("[filter][add][dev][eth0][parent][1:0][protocol][ip][prio][50][handle][0x2]"
                   "[fw][classid][1:0x2]"),
                  ("[class][add][dev][eth0][parent][1:0x1][classid][1:0x3][htb][rate][20000kbit]"
                   "[ceil][20000kbit][prio][0][burst][6000][cburst][6000]"),
                  "[qdisc][add][dev][eth0][parent][1:0x3][handle][0x30:][pfifo]",
                  ("[filter][add][dev][eth0][parent][1:0][protocol][ip][prio][50][handle][0x3]"
                   "[fw][classid][1:0x3]"),
              }),
              calls);
}

TEST_F(TcScripts, OfAnUnknownInterfaceLeaveTheOldOnesAlone)
{
    add_htb("eth0");
    test::write_file(start_script, "old start\n");
    test::write_file(stop_script, "old stop\n");
    for (int (*write)(const char *) : {start_qos, stop_qos, restart_qos}) {
        EXPECT_EQ(0, write("eth9"));
        EXPECT_EQ((traces{not_found("eth9")}), test::console());
    }
    EXPECT_EQ("old start\n", test::read_file(start_script));
    EXPECT_EQ("old stop\n", test::read_file(stop_script));
}

// ---- Both scripts ------------------------------------------------------------------------------

// The scripts opened meanwhile, in order.
std::vector<std::string> scripts_opened(const test::watch &watch)
{
    std::vector<std::string> all;
    for (const auto &call : watch.calls("open"))
        if (call.text != "/dev/console") all.push_back(call.text);
    return all;
}

TEST_F(TcScripts, RestartWritesStopThenStart)
{
    add_htb("eth0");
    const test::watch watch;
    EXPECT_EQ(1, restart_qos("eth0"));
    EXPECT_EQ((std::vector<std::string>{stop_script, start_script}), scripts_opened(watch));
    expect_script(start_script, "qos_start_htb");
    expect_script(stop_script, "qos_stop");
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(TcScripts, RestartEndsWhereStopFails)
{
    add_htb("eth0");
    test::write_file(start_script, "old\n");
    fs::create_directory(stop_script);
    EXPECT_EQ(0, restart_qos("eth0"));
    EXPECT_EQ("old\n", test::read_file(start_script));
    EXPECT_EQ(traces{}, test::console());
    fs::remove(stop_script);
    const test::watch watch("open", 1);
    EXPECT_EQ(0, restart_qos("eth0"));
    EXPECT_TRUE(watch.failed());
    EXPECT_EQ((std::vector<std::string>{stop_script}), scripts_opened(watch));
    EXPECT_EQ("old\n", test::read_file(start_script));
}

TEST_F(TcScripts, RestartIsWhatStartReturns)
{
    add_htb("eth0");
    fs::create_directory(start_script);
    EXPECT_EQ(0, restart_qos("eth0"));
    test::expect_golden("qos_stop", test::read_file(stop_script));
    EXPECT_TRUE(fs::is_directory(start_script));
    fs::remove(start_script);
    EXPECT_EQ(1, restart_qos("eth0"));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(TcScripts, RestartAllOfNoneSaysSo)
{
    const test::watch watch;
    restart_qos_all();
    EXPECT_EQ((traces{{"tarnic_qos", "restart_qos_all", "Qos list empty!!"}}), test::console());
    EXPECT_EQ(std::vector<std::string>{}, scripts_opened(watch));
    EXPECT_FALSE(test::exists(start_script));
    EXPECT_FALSE(test::exists(stop_script));
}

TEST_F(TcScripts, RestartAllLeavesTheLastInterfacesScripts)
{
    add_fifo("ppp0", 1000);
    add_prio("wlan0", 2);
    add_htb("eth0");
    add_rule("wlan0", 1, 2);
    const test::watch watch;
    restart_qos_all();
    EXPECT_EQ((traces{started("ppp0"), protocol_seen, started("wlan0"), started("eth0")}),
              test::console());
    EXPECT_EQ((std::vector<std::string>{stop_script, start_script, stop_script, start_script,
                                        stop_script, start_script}),
              scripts_opened(watch));
    expect_script(start_script, "qos_start_htb");
    expect_script(stop_script, "qos_stop");
}

TEST_F(TcScripts, RestartAllGoesOnWhereOneFails)
{
    add_htb("eth1");
    add_htb("eth0");
    {
        const test::watch watch("open", 1);  // the stop script of the first
        restart_qos_all();
        EXPECT_TRUE(watch.failed());
        EXPECT_EQ((std::vector<std::string>{stop_script, stop_script, start_script}),
                  scripts_opened(watch));
    }
    EXPECT_EQ((traces{started("eth1"), started("eth0")}), test::console());
    expect_script(start_script, "qos_start_htb");
    fs::remove(stop_script);
    fs::create_directory(stop_script);
    restart_qos_all();
    EXPECT_EQ((traces{started("eth1"), started("eth0")}), test::console());
}

TEST_F(TcScripts, WorkTheSameWithoutAConsole)
{
    add_htb("eth0");
    leaf_qdisc leaf{};
    leaf.type = 9;
    set_leaf("eth0", 3, leaf);
    add_rule("eth0", 1, 2);
    ASSERT_EQ(1, start_qos("eth0"));
    const std::string text = test::read_file(start_script);
    test::console();
    fs::remove(start_script);
    const test::watch watch("open", 2, 2 /* ENOENT */);  // behind the script's: the first trace's
    EXPECT_EQ(1, start_qos("eth0"));
    EXPECT_TRUE(watch.failed());
    EXPECT_EQ((traces{protocol_seen}), test::console());
    EXPECT_EQ(text, test::read_file(start_script));
}

// ---- Deep trees --------------------------------------------------------------------------------

constexpr u32 levels = 2000;
constexpr u32 beside = 10000;  // each inner class h has a leaf class 10000 + h behind its child

struct deep_run {
    std::array<int, 5> results{-1, -1, -1, -1, -1};
    int refused = 0;
};

// Builds, renders and frees the tree; what gtest says is said on the roomier stack.
void run_deep(deep_run *run)
{
    const u32 speeds[4] = {};
    const class_root_param root{};
    const htb_class_param param{};
    run->results[0] = add_root_qdisc(speeds, "eth0", R_HTB, &root);
    run->results[1] = del_class("eth0", 1);
    for (u32 h = 1; h <= levels; ++h)
        if (add_class("eth0", h - 1, h, &param, "") != 0) ++run->refused;
    for (u32 h = 1; h < levels; ++h)
        if (add_class("eth0", h, beside + h, &param, "") != 0) ++run->refused;
    run->results[2] = start_qos("eth0");
    run->results[3] = stop_qos("eth0");
    run->results[4] = del_root_qdisc("eth0");
}

std::string deep_class(u32 parent, u32 handle)
{
    return "tc class add dev eth0 parent 1:0x" + hex3(parent) + "classid 1:0x" + hex3(handle) +
           "htb rate 0kbit ceil 0kbit prio 0 \n";
}

std::string deep_text()
{
    std::string text = head + "tc qdisc del dev eth0 root 2>/dev/null\n"
                              "tc qdisc add dev eth0 handle 1:0 root htb default 0x0\n";
    for (u32 h = 1; h <= levels; ++h) text += deep_class(h - 1, h);
    text += fifo_lines(levels);
    for (u32 h = levels - 1; h > 0; --h) text += deep_class(h, beside + h) + fifo_lines(beside + h);
    return text;
}

TEST_F(TcScripts, ATreeOf2000LevelsNeedsASmallStack)
{
    deep_run run;
    test::on_a_small_stack([&run] { run_deep(&run); });
    EXPECT_EQ((std::array<int, 5>{0, 0, 1, 1, 0}), run.results);
    EXPECT_EQ(0, run.refused);
    std::string expected = deep_text();
    expected += test::written([](FILE *out) { mordel::renew_rule_chains(out, "QOS_", "eth0"); });
    // Compared before it is shown: to show where two such texts differ takes hours.
    const std::string text = test::read_file(start_script);
    const auto differ = std::mismatch(text.begin(), text.end(), expected.begin(), expected.end());
    EXPECT_TRUE(text == expected) << "from byte " << differ.first - text.begin();
    EXPECT_EQ("", test::shell_syntax(start_script));
}

// ---- Locale ------------------------------------------------------------------------------------

// A locale that writes thousands apart; "" when there is none and none can be made.
std::string grouping_locale()
{
    const std::string made = "en_US.UTF-8";
    for (const std::string &name : {made, std::string("de_DE.UTF-8"), std::string("fr_FR.UTF-8")})
        if (std::setlocale(LC_ALL, name.c_str()) != nullptr) return name;
    // In this program's byte order, which under emulation is not localedef's own
    const std::string order = std::endian::native == std::endian::big ? "big" : "little";
    const std::string make =
        "localedef --" + order + "-endian -i en_US -f UTF-8 /var/tmp/" + made + " >/dev/null 2>&1";
    if (std::system(make.c_str()) != 0) return "";
    ::setenv("LOCPATH", "/var/tmp", 1);
    return std::setlocale(LC_ALL, made.c_str()) != nullptr ? made : "";
}

TEST_F(TcScripts, NumbersAreTheSameInEveryLocale)
{
    const std::string locale = grouping_locale();
    const char *point = std::localeconv()->thousands_sep;
    const bool grouping = point != nullptr && *point != '\0';
    if (!locale.empty() && grouping) {
        add_htb("eth0");
        EXPECT_EQ(1, start_qos("eth0"));
    }
    std::setlocale(LC_ALL, "C");
    ::unsetenv("LOCPATH");
    if (locale.empty() || !grouping) GTEST_SKIP() << "no locale with thousands separators";
    expect_script(start_script, "qos_start_htb");
}

}  // namespace
