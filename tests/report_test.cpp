// SPDX-License-Identifier: MIT
// The reports on the console: an interface's tree, and its rules. Every line is a trace.
#include <fcntl.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "faults.h"
#include "fence.h"
#include "support.h"
#include "tarnic_iptables.h"
#include "tarnic_qos.h"
#include "tree_text.h"

namespace {

using test::add_htb;
using test::fenced;
using test::htb;
using test::put;
using test::traced;
using test::traces;

// A report as its golden file has it.
std::string text_of(const traces &lines)
{
    std::ostringstream text;
    for (const auto &line : lines) text << line << '\n';
    return text.str();
}

// What a report prints; nothing of it goes into the log.
traces printed(const std::function<void()> &report)
{
    test::console();
    report();
    EXPECT_EQ("", test::log_raw());
    return test::console();
}

// Each line of a report is opened, written and closed by itself.
void expect_one_trace_a_line(const std::function<void()> &report)
{
    test::console();
    std::vector<test::call> calls;
    {
        const test::watch watch;
        report();
        calls = watch.calls();
    }
    std::string written;
    ASSERT_EQ(0U, calls.size() % 3);
    for (size_t i = 0; i < calls.size(); i += 3) {
        SCOPED_TRACE(i);
        EXPECT_EQ("open", calls[i].function);
        EXPECT_EQ("/dev/console", calls[i].text);
        EXPECT_EQ(O_WRONLY | O_APPEND | O_CLOEXEC,
                  calls[i].flags & (O_ACCMODE | O_APPEND | O_CLOEXEC | O_CREAT | O_TRUNC));
        EXPECT_EQ("write", calls[i + 1].function);
        EXPECT_EQ(calls[i + 1].text.size() - 1, calls[i + 1].text.find('\n'));
        EXPECT_EQ("close", calls[i + 2].function);
        EXPECT_EQ(calls[i].fd, calls[i + 1].fd);
        EXPECT_EQ(calls[i].fd, calls[i + 2].fd);
        written += calls[i + 1].text;
    }
    EXPECT_FALSE(written.empty());
    EXPECT_EQ(written, test::console_raw());
}

// A console that cannot be opened for a line, or written to, costs this line alone.
void expect_lines_lost_one_by_one(const std::function<void()> &report)
{
    const traces whole = printed(report);
    for (const char *function : {"open", "write"}) {
        for (size_t n = 0; n < whole.size(); ++n) {
            SCOPED_TRACE(std::string(function) + " " + std::to_string(n + 1));
            traces rest = whole;
            rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(n));
            {
                const test::watch watch(function, static_cast<int>(n) + 1, EIO);
                report();
                EXPECT_TRUE(watch.failed());
            }
            EXPECT_EQ(rest, test::console());
        }
        {
            const test::watch watch(function, -1, EIO);
            report();
            EXPECT_EQ(whole.size(), watch.calls("open").size());
        }
        EXPECT_EQ(traces{}, test::console());
    }
}

// ---- The tree ----------------------------------------------------------------------------------

traced qos_line(const char *function, const std::string &message)
{
    return {"tarnic_qos", function, message};
}
traced if_line(const std::string &message) { return qos_line("show_ifqos", message); }
traced class_line(const std::string &message) { return qos_line("draw_class", message); }
traced leaf_line(const std::string &message) { return qos_line("show_leaf", message); }

const traced no_limit = leaf_line("leaf qdisc:      L_pfifo limit = 0");
const traced unset_in_ifqos = if_line("didn't found qos setting in this interface!");
const traced unset_in_class = qos_line("show_class", "didn't found qos setting in this interface!");
const traced no_such_root = if_line("An error occur at not define root qdisc type");
const traced no_such_leaf = leaf_line("An error occur at not define leaf qdisc type");

// The class line of an HTB class whose parameters are all zero.
traced zero_class(const std::string &handles)
{
    return class_line("class:           C_HTB handle " + handles +
                      "          0 kbps          0 kbps          0 byte          0 byte prio: 0");
}

traces report_of(const std::string &ifname)
{
    return printed([&] { show_ifqos(ifname.c_str()); });
}

qos_if &record(const char *ifname) { return *mordel::root_qdisc_find_by_name(ifname); }
qos_class &cls(u32 handle) { return *mordel::class_find("eth0", handle); }

void add(u32 parent, u32 handle, const htb_class_param &param = {})
{
    ASSERT_EQ(0, add_class("eth0", parent, handle, &param, "not stored"));
}

leaf_qdisc sfq(int perturb)
{
    leaf_qdisc leaf{};
    leaf.type = L_SFQ;
    leaf.param.sfq.perturb = static_cast<u8>(perturb);
    return leaf;
}

leaf_qdisc tbf(u32 latency, u32 rate, u32 burst)
{
    leaf_qdisc leaf{};
    leaf.type = L_TBF;
    leaf.param.tbf.latency = latency;
    leaf.param.tbf.rate = rate;
    leaf.param.tbf.burst = burst;
    return leaf;
}

// Numbers that an L_pfifo line would show, under a type of no leaf.
leaf_qdisc unknown_leaf(u32 type)
{
    leaf_qdisc leaf = test::pfifo(7);
    leaf.type = type;
    return leaf;
}

void set_leaf(u32 handle, const leaf_qdisc &leaf)
{
    ASSERT_EQ(0, add_leaf_qdisc("eth0", handle, &leaf));
}

constexpr u32 most = 0xffffffff;

class TreeReport : public test::mordel_test {};

TEST_F(TreeReport, DefaultHtbTree)
{
    ASSERT_EQ(0, add_htb("eth0"));
    EXPECT_EQ(
        (traces{
            if_line("Interface:       eth0"),
            if_line("Speed:           PHY=    100000/1024       kbit/s, LINK=     20000/512        "
                    "kbit/s"),
            if_line("Root QDisc Type: R_HTB"),
            if_line("Default Class ID:3"),
            class_line("class:           C_HTB handle   1:1       100000 kbps     100000 kbps    "
                       "1000000 byte    1000000 byte prio: 0"),
            class_line("class:           C_HTB handle   1:2       100000 kbps     100000 kbps    "
                       "   6000 byte       6000 byte prio: 0"),
            leaf_line("leaf qdisc:      L_SFQ perturb = 10 sec"),
            class_line("class:           C_HTB handle   1:3        20000 kbps      20000 kbps    "
                       "   6000 byte       6000 byte prio: 0"),
            no_limit,
        }),
        report_of("eth0"));
}

// Every leaf type, inner classes whose leaf is not shown, numbers as wide as they get.
TEST_F(TreeReport, HtbInterface)
{
    ASSERT_EQ(0, add_htb("eth0"));
    record("eth0").param.classful.default_class = 65535;
    add(1, 10, htb(most, most - 1, most - 2, most - 3, most - 4));
    set_leaf(10, test::red(30000, 90000, 55, 120000, 1000));
    set_leaf(3, test::pfifo(9));
    add(3, 100, htb(9000, 20000, 1600, 3200, 7));
    set_leaf(100, tbf(50, 8000, 16000));
    add(3, 101, htb(1000, 2000, 0, 0, 12));
    add(101, 65535, htb(1, 22, 333, 4444, 55555));
    set_leaf(65535, test::pfifo(100));
    add(65535, 7, htb(10, 20, 30, 40, 1));
    set_leaf(7, test::pfifo(most));
    add(101, 4095);
    set_leaf(4095, unknown_leaf(mordel::leaf_types));
    add(0, 5, htb(5, 6, 7, 8, 9));
    add(5, 6, htb(60, 61, 62, 63, 64));
    set_leaf(6, sfq(255));
    add(0, 1, htb(11, 12, 13, 14, 15));
    test::expect_golden("report_htb", text_of(report_of("eth0")));
}

TEST_F(TreeReport, HfscInterface)
{
    ASSERT_EQ(0, test::add_hfsc("eth0"));
    hfsc_class_param param{};
    param.ul = {1500, 20, 1000};
    param.sc = {1501, 21, 1001};
    param.ls = {1502, 22, 1002};
    param.rt = {1503, 23, 1003};
    ASSERT_EQ(0, add_class("eth0", 3, 4096, &param, ""));
    param.ul = {most, most - 1, most - 2};
    param.sc = {most - 3, most - 4, most - 5};
    param.ls = {most - 6, most - 7, most - 8};
    param.rt = {most - 9, most - 10, most - 11};
    ASSERT_EQ(0, add_class("eth0", 4096, 9, &param, ""));
    param = {};
    ASSERT_EQ(0, add_class("eth0", 0, 20, &param, ""));
    set_leaf(20, tbf(1, 2, 3));
    test::expect_golden("report_hfsc", text_of(report_of("eth0")));
}

TEST_F(TreeReport, PrioInterface)
{
    prio_root_param param{};
    param.bands = 4;
    const u8 map[16] = {1, 2, 2, 3, 1, 2, 0, 0, 1, 1, 10, 99, 100, 199, 254, 255};
    std::copy(std::begin(map), std::end(map), param.priomap);
    ASSERT_EQ(0, add_root_qdisc(test::speeds, "eth0", R_PRIO, &param));
    set_leaf(2, sfq(0));
    set_leaf(3, test::red(1, 2, 3, 4, 5));
    set_leaf(4, tbf(most, most - 1, most - 2));
    test::expect_golden("report_prio", text_of(report_of("eth0")));
}

TEST_F(TreeReport, PrioBandsAreLeafLinesAlone)
{
    for (const int bands : {0, 2, 255}) {
        SCOPED_TRACE(bands);
        prio_root_param param{};
        param.bands = static_cast<u8>(bands);
        const u8 map[16] = {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1};
        std::copy(std::begin(map), std::end(map), param.priomap);
        ASSERT_EQ(0, add_root_qdisc(test::speeds, "wlan0", R_PRIO, &param));
        traces expected = {
            if_line("Interface:       wlan0"),
            if_line("Speed:           PHY=    100000/1024       kbit/s, LINK=     20000/512        "
                    "kbit/s"),
            if_line("Root QDisc Type: R_PRIO"),
            if_line("Band:            " + std::to_string(bands)),
            if_line("PrioMap:\t        1,2,2,2,1,2,0,0,1,1,1,1,1,1,1,1"),
        };
        expected.insert(expected.end(), static_cast<size_t>(bands), no_limit);
        EXPECT_EQ(expected, report_of("wlan0"));
        ASSERT_EQ(0, del_root_qdisc("wlan0"));
    }
}

TEST_F(TreeReport, PfifoFastInterfaceIsFourLines)
{
    const std::pair<u32, const char *> lengths[] = {{0, "0"}, {1000, "1000"}, {most, "4294967295"}};
    for (const auto &[length, text] : lengths) {
        const u32 speeds[4] = {most, 0, most - 1, 1};
        pfifo_fast_root_param param{};
        param.queue_len = length;
        ASSERT_EQ(0, add_root_qdisc(speeds, "ppp0", R_pfifo_fast, &param));
        EXPECT_EQ((traces{
                      if_line("Interface:       ppp0"),
                      if_line("Speed:           PHY=4294967294/1          kbit/s, "
                              "LINK=4294967295/0          kbit/s"),
                      if_line("Root QDisc Type: R_pfifo_fast"),
                      if_line("Queue length:    " + std::string(text)),
                  }),
                  report_of("ppp0"));
        ASSERT_EQ(0, del_root_qdisc("ppp0"));
    }
}

TEST_F(TreeReport, UnknownRootTypeEndsTheReport)
{
    ASSERT_EQ(0, add_htb("eth0"));
    for (const u32 type : {4U, 5U, 256U, 0x10001U, 0x80000000U, most}) {
        SCOPED_TRACE(type);
        record("eth0").root_type = type;
        EXPECT_EQ(
            (traces{
                if_line("Interface:       eth0"),
                if_line(
                    "Speed:           PHY=    100000/1024       kbit/s, LINK=     20000/512        "
                    "kbit/s"),
                if_line("Root QDisc Type: Unknown"),
                no_such_root,
            }),
            report_of("eth0"));
    }
    record("eth0").root_type = R_HTB;
}

TEST_F(TreeReport, QueueLengthEndsTheReport)
{
    ASSERT_EQ(0, test::add_pfifo_fast("eth0"));
    ASSERT_EQ(0, mordel::add_prio_classes("eth0", 2));
    EXPECT_EQ(4U, report_of("eth0").size());
    EXPECT_EQ((traces{no_limit, no_limit}), printed([] { mordel::show_class("eth0"); }));
}

TEST_F(TreeReport, NameAndSpeedsAreTheRecords)
{
    const u32 speeds[4] = {1, 22, 333, 4444};
    const std::string longest(31, 'n');
    for (const std::string &name : {std::string("br-lan.10"), longest, std::string("%s%n%d")}) {
        ASSERT_EQ(0, test::add_pfifo_fast(name, speeds));
        EXPECT_EQ(
            (traces{
                if_line("Interface:       " + name),
                if_line("Speed:           PHY=       333/4444       kbit/s, LINK=         1/22"
                        "         kbit/s"),
                if_line("Root QDisc Type: R_pfifo_fast"),
                if_line("Queue length:    1000"),
            }),
            report_of(name));
    }
}

TEST_F(TreeReport, UnknownInterface)
{
    const auto show_class = [](const char *ifname) {
        return printed([&] { mordel::show_class(ifname); });
    };
    EXPECT_EQ((traces{test::not_found("eth0"), unset_in_ifqos}), report_of("eth0"));
    EXPECT_EQ((traces{test::not_found("eth0"), unset_in_class}), show_class("eth0"));
    ASSERT_EQ(0, add_htb("eth0"));
    for (const char *name : {"eth", "eth00", "ETH0", "", "eth1"}) {
        EXPECT_EQ((traces{test::not_found(name), unset_in_ifqos}), report_of(name));
        EXPECT_EQ((traces{test::not_found(name), unset_in_class}), show_class(name));
    }
}

TEST_F(TreeReport, ClassPartIsTheClassesOfItsInterface)
{
    ASSERT_EQ(0, test::add_prio("wlan0", 1));
    ASSERT_EQ(0, add_htb("eth0"));
    ASSERT_EQ(0, test::add_pfifo_fast("ppp0"));
    ASSERT_EQ(0, del_class("eth0", 1));
    add(0, 4);
    EXPECT_EQ((traces{zero_class("  0:4  "), no_limit}),
              printed([] { mordel::show_class("eth0"); }));
    EXPECT_EQ((traces{no_limit}), printed([] { mordel::show_class("wlan0"); }));
    EXPECT_EQ(traces{}, printed([] { mordel::show_class("ppp0"); }));
    EXPECT_EQ(0, del_class("eth0", 4));
    EXPECT_EQ(traces{}, printed([] { mordel::show_class("eth0"); }));
    EXPECT_EQ((traces{
                  if_line("Interface:       eth0"),
                  if_line("Speed:           PHY=    100000/1024       kbit/s, LINK=     20000/512 "
                          "       kbit/s"),
                  if_line("Root QDisc Type: R_HTB"),
                  if_line("Default Class ID:3"),
              }),
              report_of("eth0"));
}

// 0 at the top, whatever the handle but 1; below, the owner's; 1 for 1 wherever it is.
TEST_F(TreeReport, ParentNumbers)
{
    ASSERT_EQ(0, add_htb("eth0"));
    ASSERT_EQ(0, del_class("eth0", 1));
    add(0, 5);
    add(5, 1);
    add(1, 6);
    add(6, 7);
    add(5, 8);
    add(0, 0);
    add(0, 1000);
    add(1000, 2);
    const traces whole = {
        zero_class("  0:5  "),
        zero_class("  1:1  "),
        zero_class("  1:6  "),
        zero_class("  6:7  "),
        no_limit,
        zero_class("  5:8  "),
        no_limit,
        zero_class("  0:0  "),
        no_limit,
        zero_class("  0:1000"),
        zero_class("1000:2  "),
        no_limit,
    };
    EXPECT_EQ(whole, printed([] { mordel::draw_class(&record("eth0").classes); }));
    EXPECT_EQ((traces{whole.begin() + 1, whole.begin() + 7}),
              printed([] { mordel::draw_class(&cls(5).children); }));
    EXPECT_EQ((traces{whole.begin() + 2, whole.begin() + 5}),
              printed([] { mordel::draw_class(&cls(1).children); }));
    EXPECT_EQ((traces{whole.begin() + 3, whole.begin() + 5}),
              printed([] { mordel::draw_class(&cls(6).children); }));
    EXPECT_EQ((traces{whole.begin() + 10, whole.end()}),
              printed([] { mordel::draw_class(&cls(1000).children); }));
    EXPECT_EQ(traces{}, printed([] { mordel::draw_class(&cls(7).children); }));
}

TEST_F(TreeReport, ClassesOfNoKnownTypeHaveNoLineOfTheirOwn)
{
    for (const u32 type : {u32{C_PRIO}, 3U, 256U, most}) {
        SCOPED_TRACE(type);
        ASSERT_EQ(0, add_htb("eth0"));
        ASSERT_EQ(0, del_class("eth0", 1));
        add(0, 5);
        add(5, 6);
        add(6, 7);
        add(5, 8);
        set_leaf(8, test::pfifo(80));
        cls(5).type = type;
        cls(8).type = type;
        EXPECT_EQ((traces{
                      zero_class("  5:6  "),
                      zero_class("  6:7  "),
                      no_limit,
                      leaf_line("leaf qdisc:      L_pfifo limit = 80"),
                  }),
                  printed([] { mordel::show_class("eth0"); }));
        ASSERT_EQ(0, del_root_qdisc("eth0"));
    }
}

TEST_F(TreeReport, LeafOfAnInnerClassShowsAgainWhenItIsALeaf)
{
    ASSERT_EQ(0, add_htb("eth0"));
    ASSERT_EQ(0, del_class("eth0", 1));
    add(0, 5);
    set_leaf(5, sfq(30));
    add(5, 6);
    EXPECT_EQ((traces{zero_class("  0:5  "), zero_class("  5:6  "), no_limit}),
              printed([] { mordel::show_class("eth0"); }));
    ASSERT_EQ(0, del_class("eth0", 6));
    EXPECT_EQ((traces{zero_class("  0:5  "), leaf_line("leaf qdisc:      L_SFQ perturb = 30 sec")}),
              printed([] { mordel::show_class("eth0"); }));
}

TEST_F(TreeReport, LeafLines)
{
    const std::pair<leaf_qdisc, traced> cases[] = {
        {leaf_qdisc{}, no_limit},
        {test::pfifo(1), leaf_line("leaf qdisc:      L_pfifo limit = 1")},
        {test::pfifo(most), leaf_line("leaf qdisc:      L_pfifo limit = 4294967295")},
        {sfq(0), leaf_line("leaf qdisc:      L_SFQ perturb = 0 sec")},
        {sfq(255), leaf_line("leaf qdisc:      L_SFQ perturb = 255 sec")},
        {test::red(1, 2, 3, 4, 5),
         leaf_line("leaf qdisc:      L_RED 1 byte, 2 byte, 3 packets, 4 byte, 5 byte")},
        {test::red(most, most - 1, most - 2, most - 3, most - 4),
         leaf_line("leaf qdisc:      L_RED 4294967295 byte, 4294967294 byte, 4294967293 packets, "
                   "4294967292 byte, 4294967291 byte")},
        {tbf(1, 2, 3), leaf_line("leaf qdisc:      L_TBF 1 ms, 2 kbps, 3 byte")},
        {tbf(most, most - 1, most - 2),
         leaf_line("leaf qdisc:      L_TBF 4294967295 ms, 4294967294 kbps, 4294967293 byte")},
        {unknown_leaf(mordel::leaf_types), no_such_leaf},
        {unknown_leaf(256), no_such_leaf},
        {unknown_leaf(0x80000000), no_such_leaf},
        {unknown_leaf(most), no_such_leaf},
    };
    for (const auto &[leaf, line] : cases) {
        const fenced<leaf_qdisc> copy(leaf);
        EXPECT_EQ((traces{line}), printed([&] { mordel::show_leaf(copy); }));
    }
}

TEST_F(TreeReport, EachLeafTypeHasItsLine)
{
    for (u32 type = 0; type < mordel::leaf_types; ++type) {
        SCOPED_TRACE(TxtMapById(mordel::LeafQdiscTypeMap, static_cast<int>(type)));
        const leaf_qdisc leaf = unknown_leaf(type);  // its type alone is set
        EXPECT_NE((traces{no_such_leaf}), printed([&] { mordel::show_leaf(&leaf); }));
    }
}

TEST_F(TreeReport, EveryLineIsATraceOfItsOwn)
{
    ASSERT_EQ(0, add_htb("eth0"));
    ASSERT_EQ(0, test::add_hfsc("eth1"));
    ASSERT_EQ(0, test::add_prio("eth2", 2));
    ASSERT_EQ(0, test::add_pfifo_fast("eth3"));
    set_leaf(3, unknown_leaf(9));
    for (const char *name : {"eth0", "eth1", "eth2", "eth3", "none"}) {
        SCOPED_TRACE(name);
        expect_one_trace_a_line([&] { show_ifqos(name); });
        expect_lines_lost_one_by_one([&] { show_ifqos(name); });
    }
    expect_one_trace_a_line([] { mordel::show_class("none"); });
    expect_lines_lost_one_by_one([] { mordel::show_class("none"); });
}

TEST_F(TreeReport, ChangesNothing)
{
    ASSERT_EQ(0, add_htb("eth0"));
    ASSERT_EQ(0, test::add_hfsc("eth1"));
    ASSERT_EQ(0, test::add_prio("eth2", 3));
    const std::string bands = test::bands_text(3);
    for (const char *name : {"eth0", "eth1", "eth2", "none"}) report_of(name);
    EXPECT_EQ(test::default_htb, test::tree(record("eth0").classes));
    EXPECT_EQ(test::default_hfsc, test::tree(record("eth1").classes));
    EXPECT_EQ(bands, test::tree(record("eth2").classes));
    EXPECT_EQ((std::vector<std::string>{"eth0", "eth1", "eth2"}), test::interface_names());
    test::expect_nothing_kept([] { show_ifqos("eth1"); });
}

constexpr u32 levels = 2000;
constexpr u32 beside = 10000;  // each inner class h has a leaf class 10000 + h behind its child

std::string handles(u32 parent, u32 handle)
{
    const std::string major = std::to_string(parent);
    const std::string minor = std::to_string(handle);
    return std::string(major.size() < 3 ? 3 - major.size() : 0, ' ') + major + ":" + minor +
           std::string(minor.size() < 3 ? 3 - minor.size() : 0, ' ');
}

TEST_F(TreeReport, ATreeOf2000LevelsNeedsASmallStack)
{
    int failed = -1;
    test::on_a_small_stack([&failed] {
        const u32 speeds[4] = {};
        const class_root_param root{};
        const htb_class_param param{};
        failed = add_root_qdisc(speeds, "eth0", R_HTB, &root) + del_class("eth0", 1);
        for (u32 h = 1; h <= levels; ++h) failed += add_class("eth0", h - 1, h, &param, "");
        for (u32 h = 1; h < levels; ++h) failed += add_class("eth0", h, beside + h, &param, "");
        show_ifqos("eth0");
    });
    ASSERT_EQ(0, failed);
    traces expected = {
        test::not_found("eth0"),
        if_line("Interface:       eth0"),
        if_line("Speed:           PHY=         0/0          kbit/s, LINK=         0/0          "
                "kbit/s"),
        if_line("Root QDisc Type: R_HTB"),
        if_line("Default Class ID:0"),
        zero_class("  1:1  "),
    };
    for (u32 h = 2; h <= levels; ++h) expected.push_back(zero_class(handles(h - 1, h)));
    expected.push_back(no_limit);
    for (u32 h = levels - 1; h > 0; --h) {
        expected.push_back(zero_class(handles(h, beside + h)));
        expected.push_back(no_limit);
    }
    // Compared before it is shown: to show where two such lists differ takes hours.
    const traces lines = test::console();
    const auto differ = std::mismatch(lines.begin(), lines.end(), expected.begin(), expected.end());
    EXPECT_TRUE(lines == expected) << "from line " << differ.first - lines.begin();
}

// ---- The rules ---------------------------------------------------------------------------------

traced rule_line(const char *function, const std::string &message)
{
    return {"tarnic_iptables", function, message};
}
traced match_line(const std::string &message) { return rule_line("show_match", message); }
traced target_line(const std::string &message) { return rule_line("show_target", message); }
traced index_line(const std::string &message) { return rule_line("show_rule", message); }

const traced match_head = index_line("===============MATCH===============");
const traced target_head = index_line("===============TARGET==============");
const traced sched_missing = rule_line("get_sched_str", "schedule index not found!!");

constexpr u32 bit(unsigned n) { return 1U << n; }

// Its precedence shows that the report prints it in hexadecimal.
qos_match full_match()
{
    qos_match m = test::full_match();
    m.precedence = 26;
    return m;
}

qos_target full_target()
{
    qos_target t{};
    t.mark = 16;
    t.kind = 0;
    t.value.raw = 46;
    t.vlan_prio = 6;
    t.vlan_id = 200;
    t.vlan_double = 3;
    t.reserved = 4;
    return t;
}

traces shown(const qos_match &match)
{
    const fenced<qos_match> copy(match);
    return printed([&] { mordel::show_match(copy); });
}

traces shown(const qos_target &target)
{
    const fenced<qos_target> copy(target);
    return printed([&] { mordel::show_target(copy); });
}

traces rules_of(const char *ifname)
{
    return printed([&] { show_rule(ifname); });
}

void add_schedule(int index, int days, int all_day, int start_hour = 0)
{
    qos_sched sched{};
    sched.index = static_cast<u8>(index);
    sched.days = static_cast<u8>(days);
    sched.all_day = static_cast<u8>(all_day);
    sched.start_hour = static_cast<u8>(start_hour);
    ASSERT_EQ(1, add_sched(&sched));
}

class RuleReport : public test::mordel_test {};

TEST_F(RuleReport, EachMatchKindIsALineInBitOrder)
{
    const traced lines[] = {
        match_line("802.1p priority:  5"),
        match_line("802.1q vlanid:    100"),
        match_line("src MAC Addr:     00:11:22:33:44:55"),
        match_line("ip range src/dst: 10.0.0.1~10.0.0.99 / 192.168.1.2~192.168.255.254"),
        match_line("DSCP:             0x2e"),
        match_line("Precedence/TOS:   0x1a/Minimize-Delay"),
        match_line("Match ALG:        ftp"),
        match_line("Packet length:    64~1400"),
        match_line("TCP Port/flag:    src:1024~65535 dst:80~443 SYN,ACK,FIN,RST,URG,PSH, ACK, "),
        match_line("Domain String:    example.org"),
        match_line("URL String:       example.org/a"),
    };
    qos_match m = full_match();
    EXPECT_EQ(traces{}, shown(m));
    traces all;
    for (unsigned n = 0; n < 11; ++n) {
        SCOPED_TRACE(n);
        m.flags = bit(n);
        EXPECT_EQ((traces{lines[n]}), shown(m));
        all.push_back(lines[n]);
        m.flags = bit(n + 1) - 1;
        EXPECT_EQ(all, shown(m));
    }
    for (unsigned n = 11; n < 32; ++n) {
        m.flags = bit(n);
        EXPECT_EQ(traces{}, shown(m)) << n;
    }
    m.flags = most;
    EXPECT_EQ(all, shown(m));
}

TEST_F(RuleReport, VlanNumbers)
{
    qos_match m{};
    m.flags = bit(mordel::QF_802_1P) | bit(mordel::QF_802_1Q);
    EXPECT_EQ((traces{match_line("802.1p priority:  0"), match_line("802.1q vlanid:    0")}),
              shown(m));
    m.dot1p_prio = 255;
    m.vlan_id = 65535;
    EXPECT_EQ((traces{match_line("802.1p priority:  255"), match_line("802.1q vlanid:    65535")}),
              shown(m));
}

// Each bit with its own number, where the rendered rule has it with the other's.
TEST_F(RuleReport, VlanBitsShowTheirOwnNumbers)
{
    qos_match m{};
    m.dot1p_prio = 5;
    m.vlan_id = 100;
    m.flags = bit(mordel::QF_802_1P);
    EXPECT_EQ((traces{match_line("802.1p priority:  5")}), shown(m));
    m.flags = bit(mordel::QF_802_1Q);
    EXPECT_EQ((traces{match_line("802.1q vlanid:    100")}), shown(m));
}

TEST_F(RuleReport, AddressesAreShownZeroOrNot)
{
    qos_match m{};
    m.flags = bit(mordel::QF_IP);
    EXPECT_EQ((traces{match_line("ip range src/dst: 0.0.0.0~0.0.0.0 / 0.0.0.0~0.0.0.0")}),
              shown(m));
    m.src_ip_end = 0x01020304;
    m.dst_ip_start = 0xfffefdfc;
    EXPECT_EQ((traces{match_line("ip range src/dst: 0.0.0.0~1.2.3.4 / 255.254.253.252~0.0.0.0")}),
              shown(m));
    m.src_ip_start = 0x80000000;
    m.dst_ip_end = most;
    EXPECT_EQ((traces{match_line(
                  "ip range src/dst: 128.0.0.0~1.2.3.4 / 255.254.253.252~255.255.255.255")}),
              shown(m));
}

const char *const dscp_names[] = {"CS0",  "CS1",  "CS2",  "CS3",  "CS4",  "CS5",  "CS6",    "CS7",
                                  "BE",   "AF11", "AF12", "AF13", "AF21", "AF22", "AF23",   "AF31",
                                  "AF32", "AF33", "AF41", "AF42", "AF43", "EF",   "Unknown"};

TEST_F(RuleReport, DscpIsANumberOrAClass)
{
    qos_match m = full_match();
    qos_target t = full_target();
    m.flags = bit(mordel::QF_DSCP);
    t.flags = bit(mordel::target_dscp);
    const std::pair<int, const char *> numbers[] = {{0, "0x0"}, {10, "0xa"}, {255, "0xff"}};
    for (const auto &[raw, text] : numbers) {
        m.dscp_value.class_id = t.value.class_id = 0xa5a5a5a5;
        m.dscp_value.raw = t.value.raw = static_cast<u8>(raw);
        EXPECT_EQ((traces{match_line(std::string("DSCP:             ") + text)}), shown(m));
        EXPECT_EQ((traces{target_line(std::string("DSCP:             ") + text)}), shown(t));
    }
    m.dscp_mode = t.kind = 1;
    for (u32 id = 0; id < 23; ++id) {
        m.dscp_value.class_id = t.value.class_id = id;
        EXPECT_EQ((traces{match_line(std::string("DSCP:             ") + dscp_names[id])}),
                  shown(m));
        EXPECT_EQ((traces{target_line(std::string("DSCP:             ") + dscp_names[id])}),
                  shown(t));
    }
    for (const u32 id : {256U + 21, 0x10000U, most}) {  // all 32 bits count
        m.dscp_value.class_id = t.value.class_id = id;
        EXPECT_EQ((traces{match_line("DSCP:             Unknown")}), shown(m));
        EXPECT_EQ((traces{target_line("DSCP:             Unknown")}), shown(t));
    }
    for (const u32 mode : {2U, 3U, 256U, 257U, most}) {
        m.dscp_mode = t.kind = mode;
        EXPECT_EQ(traces{}, shown(m));
        EXPECT_EQ(traces{}, shown(t));
    }
}

TEST_F(RuleReport, TosIsPrecedenceAndName)
{
    struct {
        u32 tos;
        int precedence;
        const char *text;
    } const cases[] = {
        {16, 0, "0x0/Minimize-Delay"},      {8, 1, "0x1/Maximize-Throughput"},
        {4, 7, "0x7/Maximize-Reliability"}, {2, 16, "0x10/Minimize-Cost"},
        {0, 255, "0xff/Normal-Service"},    {1, 2, "0x2/Unknown"},
        {256 + 16, 2, "0x2/Unknown"},       {most, 2, "0x2/Unknown"},
    };
    qos_match m = full_match();
    qos_target t = full_target();
    m.flags = bit(mordel::QF_TOS);
    t.flags = bit(mordel::target_tos);
    for (const auto &c : cases) {
        m.tos = t.kind = c.tos;
        m.precedence = static_cast<u8>(c.precedence);
        t.value.class_id = 0xa5a5a5a5;
        t.value.raw = static_cast<u8>(c.precedence);
        EXPECT_EQ((traces{match_line(std::string("Precedence/TOS:   ") + c.text)}), shown(m));
        EXPECT_EQ((traces{target_line(std::string("Precedence/TOS:   ") + c.text)}), shown(t));
    }
}

TEST_F(RuleReport, AlgAndPacketLength)
{
    const std::pair<u32, const char *> algs[] = {
        {0, "sip"}, {1, "Q.931"}, {2, "ftp"}, {3, "Unknown"}, {256, "Unknown"}, {most, "Unknown"}};
    const std::pair<u32, const char *> lengths[] = {{0, "0~0"},
                                                    {0x00010000, "1~0"},
                                                    {0x00000001, "0~1"},
                                                    {0xfffe8000, "65534~32768"},
                                                    {most, "65535~65535"}};
    qos_match m = full_match();
    m.flags = bit(mordel::QF_ALG);
    for (const auto &[alg, text] : algs) {
        m.alg = alg;
        EXPECT_EQ((traces{match_line(std::string("Match ALG:        ") + text)}), shown(m));
    }
    m.flags = bit(mordel::QF_PKTLEN);
    for (const auto &[length, text] : lengths) {
        m.pkt_len = length;
        EXPECT_EQ((traces{match_line(std::string("Packet length:    ") + text)}), shown(m));
    }
}

TEST_F(RuleReport, Protocols)
{
    qos_match m = full_match();
    m.flags = bit(mordel::QF_PROTOCOL);
    const char *const lines[] = {
        "TCP Port/flag:    src:1024~65535 dst:80~443 SYN,ACK,FIN,RST,URG,PSH, ACK, ",
        "UDP Port:         src:1024~65535 dst:80~443",
        "ICMP:",
        "Both Port:        src:1024~65535 dst:80~443",
        "ALL:",
    };
    for (u32 protocol = 0; protocol < 5; ++protocol) {
        m.protocol = protocol;
        EXPECT_EQ((traces{match_line(lines[protocol])}), shown(m));
    }
    for (const u32 protocol : {5U, 6U, 17U, 256U, 0x10000U, most}) {
        m.protocol = protocol;
        EXPECT_EQ(traces{}, shown(m));
    }
}

// Ports and flags that the rule's commands would leave out show all the same.
TEST_F(RuleReport, PortsAndFlagsAreShownZeroOrNot)
{
    qos_match m{};
    m.flags = bit(mordel::QF_PROTOCOL);
    const char *const none[] = {"TCP Port/flag:    src:0~0 dst:0~0   ",
                                "UDP Port:         src:0~0 dst:0~0",
                                "ICMP:", "Both Port:        src:0~0 dst:0~0"};
    const char *const some[] = {"TCP Port/flag:    src:0~2 dst:3~0  SYN,PSH, ",
                                "UDP Port:         src:0~2 dst:3~0",
                                "ICMP:", "Both Port:        src:0~2 dst:3~0"};
    for (u32 protocol = 0; protocol < 4; ++protocol) {
        m.protocol = protocol;
        m.sport_end = m.dport_start = 0;
        m.tcp_flag_comp = 0;
        EXPECT_EQ((traces{match_line(none[protocol])}), shown(m));
        m.sport_end = 2;
        m.dport_start = 3;
        m.tcp_flag_comp = 0xe1;
        EXPECT_EQ((traces{match_line(some[protocol])}), shown(m));
    }
    m.protocol = mordel::proto_tcp;
    m.tcp_flag_mask = 0x0c;
    m.tcp_flag_comp = 0;
    EXPECT_EQ((traces{match_line("TCP Port/flag:    src:0~2 dst:3~0 FIN,RST,  ")}), shown(m));
}

TEST_F(RuleReport, TextsAreShownAsTheyAre)
{
    qos_match m{};
    m.flags = bit(mordel::QF_MAC) | bit(mordel::QF_DOMAIN) | bit(mordel::QF_URL);
    EXPECT_EQ((traces{match_line("src MAC Addr:     "), match_line("Domain String:    "),
                      match_line("URL String:       ")}),
              shown(m));
    put(m.src_mac, "%s%n");
    put(m.domain, "100%d \"*\" \xc3\xa9");
    put(m.url, "$(reboot) %lu\t;");
    EXPECT_EQ((traces{match_line("src MAC Addr:     %s%n"),
                      match_line("Domain String:    100%d \"*\" \xc3\xa9"),
                      match_line("URL String:       $(reboot) %lu\t;")}),
              shown(m));
}

TEST_F(RuleReport, TextsWithoutANulEndWhereTheirFieldsEnd)
{
    add_schedule('!', 0, 1);
    for (const size_t less : {0U, 1U}) {
        qos_match m{};
        std::memset(&m, '!', sizeof m);  // up to the very end, which the fence stands behind
        m.flags = bit(mordel::QF_MAC) | bit(mordel::QF_DOMAIN) | bit(mordel::QF_URL);
        const std::string mac(20 - less, 'm');
        const std::string domain(256 - less, 'd');
        const std::string url(256 - less, 'u');
        put(m.src_mac, mac);
        put(m.domain, domain);
        put(m.url, url);
        EXPECT_EQ(
            (traces{match_line("src MAC Addr:     " + mac),
                    match_line("Domain String:    " + domain),
                    match_line("URL String:       " + url),
                    match_line("Time String:      -m time --timestart 00:00 --timestop 23:59 ")}),
            shown(m));
    }
}

TEST_F(RuleReport, ScheduleIsTheLastLine)
{
    add_schedule(3, 0x3e, 0, 8);
    qos_sched &sched = search_sched(3)->sched;
    sched.stop_hour = 17;
    sched.stop_min = 30;
    qos_match m{};
    m.sched_index = 3;
    const traced work = match_line(
        "Time String:      -m time --timestart 8:00 --timestop 17:30 --days Mon,Tue,Wed,Thu,Fri ");
    EXPECT_EQ((traces{work}), shown(m));
    m.flags = bit(mordel::QF_URL) | bit(mordel::QF_802_1P);
    EXPECT_EQ((traces{match_line("802.1p priority:  0"), match_line("URL String:       "), work}),
              shown(m));
    m.flags = 0;
    m.sched_index = 0;
    EXPECT_EQ(traces{}, shown(m));
    for (const int index : {1, 4, 255}) {
        m.sched_index = static_cast<u8>(index);
        EXPECT_EQ((traces{sched_missing}), shown(m));
    }
    m.flags = bit(mordel::QF_URL);
    EXPECT_EQ((traces{match_line("URL String:       "), sched_missing}), shown(m));
}

TEST_F(RuleReport, TheLongestScheduleFits)
{
    add_schedule(255, 0xff, 255, 255);
    qos_sched &sched = search_sched(255)->sched;
    sched.stop_hour = sched.start_min = sched.stop_min = 255;
    qos_match m{};
    m.sched_index = 255;
    EXPECT_EQ((traces{match_line("Time String:      -m time --timestart 255:255 --timestop 255:255 "
                                 "--days Sun,Mon,Tue,Wed,Thu,Fri,Sat ")}),
              shown(m));
}

TEST_F(RuleReport, EachTargetKindIsALineInBitOrder)
{
    const traced lines[] = {
        target_line("Set Mark:         16"),
        target_line("Precedence/TOS:   0x2e/Normal-Service"),
        target_line("DSCP:             0x2e"),
        target_line("Vlan Tag 1p/q:    6/200"),
    };
    qos_target t = full_target();
    EXPECT_EQ(traces{}, shown(t));
    traces all;
    for (unsigned n = 0; n < 4; ++n) {
        SCOPED_TRACE(n);
        t.flags = bit(n);
        EXPECT_EQ((traces{lines[n]}), shown(t));
        all.push_back(lines[n]);
        t.flags = bit(n + 1) - 1;
        EXPECT_EQ(all, shown(t));
    }
    for (unsigned n = 4; n < 32; ++n) {
        t.flags = bit(n);
        EXPECT_EQ(traces{}, shown(t)) << n;
    }
    t.flags = most;
    EXPECT_EQ(all, shown(t));
}

TEST_F(RuleReport, MarkAndVlanNumbers)
{
    qos_target t{};
    t.flags = bit(mordel::target_mark) | bit(mordel::target_mkvlan);
    EXPECT_EQ((traces{target_line("Set Mark:         0"), target_line("Vlan Tag 1p/q:    0/0")}),
              shown(t));
    t.mark = 65535;
    t.vlan_prio = 255;
    t.vlan_id = 65534;
    EXPECT_EQ((traces{target_line("Set Mark:         65535"),
                      target_line("Vlan Tag 1p/q:    255/65534")}),
              shown(t));
}

TEST_F(RuleReport, LogIsShownByItsByteNotItsBit)
{
    const traced yes = target_line("Log:              Yes");
    qos_target t = full_target();
    for (const u32 flags : {0U, bit(mordel::target_log), bit(31)}) {
        for (const int log : {0, 1, 2, 128, 255}) {
            t.flags = flags;
            t.log = static_cast<u8>(log);
            EXPECT_EQ(log == 0 ? traces{} : traces{yes}, shown(t));
        }
    }
    t.flags = 0x1f;
    EXPECT_EQ((traces{
                  target_line("Set Mark:         16"),
                  target_line("Precedence/TOS:   0x2e/Normal-Service"),
                  target_line("DSCP:             0x2e"),
                  target_line("Vlan Tag 1p/q:    6/200"),
                  yes,
              }),
              shown(t));
}

TEST_F(RuleReport, InterfaceWithoutRules)
{
    const traced none = index_line("QoS tree not found, no rule found!!");
    EXPECT_EQ((traces{test::not_found("eth0"), none}), rules_of("eth0"));
    ASSERT_EQ(0, add_htb("eth0"));
    EXPECT_EQ(traces{}, rules_of("eth0"));
    EXPECT_EQ((traces{test::not_found("eth1"), none}), rules_of("eth1"));
}

// Four rules of eth0: one of all kinds, one whose schedule is missing, two empty ones.
void add_rules()
{
    ASSERT_EQ(0, add_htb("eth0"));
    ASSERT_EQ(0, test::add_pfifo_fast("eth1"));
    add_schedule(3, 0x41, 1);
    qos_match m = full_match();
    qos_target t = full_target();
    m.flags = 0x7ff;
    m.sched_index = 3;
    t.flags = 0x1f;
    t.mark = 2;
    t.log = 1;
    ASSERT_EQ(1, add_qos_rule("eth0", 42, &m, &t));
    m = {};
    m.flags = bit(mordel::QF_PROTOCOL) | bit(mordel::QF_DSCP);
    m.protocol = mordel::proto_both;
    m.dscp_mode = 1;
    m.dscp_value.class_id = 21;
    m.sched_index = 9;
    t = {};
    t.flags = bit(mordel::target_mkvlan);
    t.vlan_prio = 7;
    t.vlan_id = 4094;
    ASSERT_EQ(1, add_qos_rule("eth0", 7, &m, &t));
    m = {};
    t = {};
    ASSERT_EQ(1, add_qos_rule("eth0", 255, &m, &t));
    ASSERT_EQ(1, add_qos_rule("eth0", 0, &m, &t));
    ASSERT_EQ(1, add_qos_rule("eth1", 8, &m, &t));
}

TEST_F(RuleReport, RulesOfAnInterface)
{
    add_rules();
    test::expect_golden("report_rules", text_of(rules_of("eth0")));
    EXPECT_EQ((traces{index_line("Qos Rule  8:"), match_head, target_head}), rules_of("eth1"));
}

TEST_F(RuleReport, EveryLineIsATraceOfItsOwn)
{
    add_rules();
    for (const char *name : {"eth0", "eth1", "none"}) {
        SCOPED_TRACE(name);
        expect_one_trace_a_line([&] { show_rule(name); });
        expect_lines_lost_one_by_one([&] { show_rule(name); });
    }
}

TEST_F(RuleReport, ChangesNothing)
{
    add_rules();
    std::vector<std::string> before;
    const auto bytes = [] {
        std::vector<std::string> all;
        for (const list_head *node : test::nodes_of(record("eth0").rules))
            all.emplace_back(reinterpret_cast<const char *>(node), sizeof(qos_rule));
        return all;
    };
    before = bytes();
    rules_of("eth0");
    EXPECT_EQ(before, bytes());
    EXPECT_EQ(4U, before.size());
    test::expect_nothing_kept([] { show_rule("eth0"); });
}

}  // namespace
