// SPDX-License-Identifier: MIT
// The commands of an image, and the way back from the kernel's ticks to tc's bytes. Trees are made
// by hand; the numbers come by hand from tc's arithmetic.
#include "image.h"

#include <gtest/gtest.h>

#include "plan_fixture.h"
#include "tc_clock.h"

namespace {

using namespace plan_fixture;
using tool::image;
using tool::image_of;
using tool::tc_clock;
using kind = tool::object::kind;

string text(const image &i)
{
    string out;
    for (const tool::command &c : i.tree) out += object_text(c.what) + ": " + c.text + "\n";
    return out + (i.unwritable.empty() ? "" : "unwritable: " + i.unwritable + "\n");
}

TEST(Image, OfATreeIsItsCommandsParentsFirst)
{
    live_tree live = htb_tree();
    // In the order of the kernel's hash table
    std::swap(live.classes[0], live.classes[4]);
    std::swap(live.qdiscs[1], live.qdiscs[4]);
    std::swap(live.filters[0], live.filters[3]);
    live.qdiscs[4].limit = 50;
    for (tool::live_qdisc &q : live.qdiscs)
        if (q.kind == "sfq") {
            q.limit = 127;
            q.quantum = 1514;
        }
    live.classes[4].quantum = 25000;
    const image seen = image_of("q0", live);
    EXPECT_EQ("root: qdisc add dev q0 handle 1:0 root htb default 0x10\n"
              "class 1:1: class add dev q0 parent 1:0x0 classid 1:0x1 htb rate 20000000bit ceil "
              "20000000bit burst 6000b cburst 6000b prio 0 quantum 25000\n"
              "class 1:10: class add dev q0 parent 1:0x1 classid 1:0x10 htb rate 2000000bit ceil "
              "20000000bit burst 6000b cburst 7000b prio 0 quantum 0\n"
              "class 1:11: class add dev q0 parent 1:0x1 classid 1:0x11 htb rate 4000000bit ceil "
              "4000000bit burst 1600b cburst 1600b prio 0 quantum 0\n"
              "class 1:12: class add dev q0 parent 1:0x1 classid 1:0x12 htb rate 5000000bit ceil "
              "5000000bit burst 1600b cburst 1600b prio 0 quantum 0\n"
              "class 1:13: class add dev q0 parent 1:0x1 classid 1:0x13 htb rate 1000000bit ceil "
              "1000000bit burst 1600b cburst 1600b prio 0 quantum 0\n"
              "leaf of 1:10: qdisc add dev q0 parent 1:0x10 handle 0x100: pfifo limit 50\n"
              "leaf of 1:11: qdisc add dev q0 parent 1:0x11 handle 0x110: sfq quantum "
              "1514b perturb 10\n"
              "leaf of 1:12: qdisc add dev q0 parent 1:0x12 handle 0x120: red limit 120000b min "
              "15000b max 45000b avpkt 1000b burst 22\n"
              "leaf of 1:13: qdisc add dev q0 parent 1:0x13 handle 0x130: tbf rate 8000000bit "
              "burst 10000b limit 410000b\n"
              "filter of mark 0x10: filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x10 "
              "fw classid 1:0x10\n"
              "filter of mark 0x11: filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x11 "
              "fw classid 1:0x11\n"
              "filter of mark 0x12: filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x12 "
              "fw classid 1:0x12\n"
              "filter of mark 0x13: filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x13 "
              "fw classid 1:0x13\n",
              text(seen));
    EXPECT_EQ(100U, seen.queue_len);
    const tool::image_index index(seen);
    EXPECT_EQ(&seen.tree[4], seen.find(kind::tree_class, 0x12));
    EXPECT_EQ(&seen.tree[4], index.find(kind::tree_class, 0x12));
    EXPECT_EQ(nullptr, seen.find(kind::leaf, 1));
    EXPECT_EQ(nullptr, index.find(kind::leaf, 1));
}

TEST(Image, OfTheDefaultQdiscIsEmpty)
{
    EXPECT_EQ("", text(image_of("q0", default_tree())));
    EXPECT_EQ("", text(image_of("q0", {})));
}

TEST(Image, OfPrioHasNoClasses)
{
    live_tree live = prio_tree();
    live.qdiscs[1].limit = live.qdiscs[2].limit = 1000;
    EXPECT_EQ("root: qdisc add dev q0 handle 1:0 root prio bands 2 priomap 1 1 1 1 1 1 1 1 1 1 1 1 "
              "1 1 1 1\n"
              "leaf of 1:1: qdisc add dev q0 parent 1:0x1 handle 0x10: pfifo limit 1000\n"
              "leaf of 1:2: qdisc add dev q0 parent 1:0x2 handle 0x20: pfifo limit 1000\n"
              "filter of mark 0x1: filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x1 fw "
              "classid 1:0x1\n"
              "filter of mark 0x2: filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x2 fw "
              "classid 1:0x2\n",
              text(image_of("q0", live)));
}

// What two look like tells whether they are the same: counters do not count, numbers do.
TEST(Image, IsEqualWhereTheKernelHoldsTheSame)
{
    const image one = image_of("q0", htb_tree());
    live_tree other = htb_tree();
    other.classes[1].stats.bytes = 7;
    std::swap(other.classes[1], other.classes[2]);
    EXPECT_EQ(one, image_of("q0", other));
    other.classes[1].quantum = 1;
    EXPECT_NE(one, image_of("q0", other));
    other = htb_tree();
    other.queue_len = 7;
    EXPECT_NE(one, image_of("q0", other));
}

TEST(Image, TellsWhatNoCommandMakes)
{
    const struct {
        const char *what;
        std::function<void(live_tree &)> differ;
    } cases[] = {
        {"root qdisc fq_codel 8001:",
         [](live_tree &t) {
             t.qdiscs[0].kind = "fq_codel";
             t.qdiscs[0].handle = 0x80010000;
         }},
        {"root qdisc pfifo_fast 1:", [](live_tree &t) { t.qdiscs[0].kind = "pfifo_fast"; }},
        {"root qdisc htb 2:", [](live_tree &t) { t.qdiscs[0].handle = 0x20000; }},
        {"root qdisc htb 1:", [](live_tree &t) { t.qdiscs[0].more = true; }},
        {"class 1:10", [](live_tree &t) { t.classes[1].more = true; }},
        {"leaf qdisc cake 100:", [](live_tree &t) { t.qdiscs[1].kind = "cake"; }},
        {"leaf qdisc tbf 130:", [](live_tree &t) { t.qdiscs[4].more = true; }},
        {"leaf qdisc red 120:", [](live_tree &t) { t.qdiscs[3].more = true; }},
        {"qdisc pfifo 1310: below 130:1",
         [](live_tree &t) { t.qdiscs.push_back(qdisc(0x1310, 0x1300001, "pfifo")); }},
        {"filter u32 of priority 7",
         [](live_tree &t) {
             t.filters.push_back({0x80000800, 0x10010, false, 7, 3, 0, "u32"});
         }},
        {"a class whose parent is not there", [](live_tree &t) { t.classes[4].parent = 0x10077; }},
    };
    for (const auto &c : cases) {
        live_tree live = htb_tree();
        c.differ(live);
        EXPECT_EQ(c.what, image_of("q0", live).unwritable);
    }
    // What the kernel made itself, and what is for incoming packets
    live_tree live = htb_tree();
    live.qdiscs.push_back(qdisc(0, 0x10001, "pfifo"));
    live.qdiscs.push_back(qdisc(0xffff, 0xfffffff1, "ingress"));
    EXPECT_EQ(image_of("q0", htb_tree()), image_of("q0", live));
}

// ---- Ticks --------------------------------------------------------------------------------------

// 15.625 ticks in 1 us. At 123456 kbit/s, 15432000 bytes/s, 1600 bytes take 103.68 us: cut to 103
// us, 1609.375 ticks, cut to 1609. The first byte within the 104th microsecond is 1590:
// 15432000 * 103 / 1000000 = 1589.496.
TEST(Clock, OfWholeMicroseconds)
{
    const tc_clock clock{15.625, true};
    EXPECT_EQ(1590U, clock.htb_burst(1609, 15432000));
    // No whole number of microseconds comes to 1610 ticks.
    EXPECT_EQ(std::nullopt, clock.htb_burst(1610, 15432000));
    EXPECT_EQ(6000U, clock.htb_burst(375000, 250000));
    EXPECT_EQ(0U, clock.htb_burst(0, 250000));
    EXPECT_EQ(std::nullopt, clock.htb_burst(375000, 0));
    // 1 byte at 1 kbit/s takes 8 ms, 125000 ticks.
    EXPECT_EQ(3U, clock.htb_burst(375000, 125));
    EXPECT_EQ(std::nullopt, clock.htb_burst(375016, 125));
    // 2^32 ticks at 40 Gbit/s are more bytes than 32 bits count.
    EXPECT_EQ(std::nullopt, clock.htb_burst(4294967280, 5000000000));
}

// Rounded up: 1600 bytes are 103.68 us, 1620.05 ticks, 1621; 1600 is the last byte of the 1621st.
TEST(Clock, OfTicksRoundedUp)
{
    const tc_clock clock{15.625, false};
    EXPECT_EQ(1600U, clock.htb_burst(1621, 15432000));
    EXPECT_EQ(3U, clock.htb_burst(375000, 125));
    EXPECT_EQ(std::nullopt, clock.htb_burst(375001, 125));
}

// 5001 bytes at 15432000 bytes/s are 324066.87 ns, 5063.54 ticks, cut to 5063. The 5064th begins at
// 324096 ns, 5001.45 bytes.
TEST(Clock, OfTheKernelsOwnCount)
{
    const tc_clock clock{15.625, true};
    EXPECT_EQ(5001U, clock.tbf_burst(5063, 15432000));
    EXPECT_EQ(10000U, clock.tbf_burst(156250, 1000000));
    // At 10 Gbit/s a byte is 0.8 ns, which the kernel's fraction of two is a little below: 1680
    // bytes are 1343 ns, not 1344, and so still 20 ticks.
    EXPECT_EQ(1680U, clock.tbf_burst(20, 1250000000));
    EXPECT_EQ(std::nullopt, clock.tbf_burst(20, 0));
    EXPECT_EQ(std::nullopt, clock.tbf_burst(375001, 125));
}

// One class whose burst is no whole number of microseconds tells of all.
TEST(Clock, IsToldByTheTree)
{
    live_tree live = htb_tree();
    live.classes[1].rate = live.classes[1].ceil = 15432000;
    const auto text_of = [&](u32 ticks) {
        live.classes[1].burst = live.classes[1].cburst =
            tool::bytes_of_ticks(ticks, 15432000, 15.625);
        const image seen = image_of("q0", live);
        const tool::command *c = seen.find(kind::tree_class, 0x10);
        return c == nullptr ? "" : c->text;
    };
    EXPECT_NE(string::npos, text_of(1609).find(" burst 1590b cburst 1590b "));
    EXPECT_NE(string::npos, text_of(1621).find(" burst 1600b cburst 1600b "));
}

}  // namespace
