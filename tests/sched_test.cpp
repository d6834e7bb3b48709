// SPDX-License-Identifier: MIT
// Schedules: the global list, and the text of a schedule.
#include <cstring>

#include "faults.h"
#include "support.h"
#include "tarnic_iptables.h"

namespace {

using test::traced;
using test::traces;

const traced missing = {"tarnic_iptables", "get_sched_str", "schedule index not found!!"};

class Schedules : public test::mordel_test {};

qos_sched schedule(int index, int days, int all_day, int from_hour = 0)
{
    qos_sched sched{};
    sched.index = static_cast<u8>(index);
    sched.days = static_cast<u8>(days);
    sched.all_day = static_cast<u8>(all_day);
    sched.start_hour = static_cast<u8>(from_hour);
    return sched;
}

int add(int index, int days = 0, int all_day = 1, int from_hour = 0)
{
    const qos_sched sched = schedule(index, days, all_day, from_hour);
    return add_sched(&sched);
}

std::vector<const qos_sched_node *> nodes()
{
    std::vector<const qos_sched_node *> all;
    for (const list_head *node = sched_root.next; node != &sched_root; node = node->next) {
        EXPECT_EQ(node, node->next->prev);
        EXPECT_EQ(node, node->prev->next);
        all.push_back(reinterpret_cast<const qos_sched_node *>(node));
    }
    return all;
}

std::vector<int> indexes()
{
    std::vector<int> all;
    for (const qos_sched_node *node : nodes()) all.push_back(node->sched.index);
    return all;
}

// A schedule's text, read with room to spare; "" when there is none.
std::string text_of(int index)
{
    char text[256];
    std::memset(text, '#', sizeof text);
    return get_sched_str(static_cast<u8>(index), text, 255) == 1 ? text : "";
}

TEST_F(Schedules, StandInTheOrderTheyWereAdded)
{
    EXPECT_EQ(1U, list_empty(&sched_root));
    for (const int index : {5, 2, 255, 1, 2}) EXPECT_EQ(1, add(index));
    EXPECT_EQ((std::vector<int>{5, 2, 255, 1, 2}), indexes());
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(Schedules, IndexZeroIsNone)
{
    EXPECT_EQ(0, add(0));
    EXPECT_EQ(1U, list_empty(&sched_root));
    EXPECT_EQ(0, del_sched(0));
    EXPECT_EQ(nullptr, search_sched(0));
    ASSERT_EQ(1, add(1));
    search_sched(1)->sched.index = 0;  // not even a stored one is found
    EXPECT_EQ(nullptr, search_sched(0));
    EXPECT_EQ(0, del_sched(0));
    EXPECT_EQ(1U, nodes().size());
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(Schedules, EveryOtherIndexIsTaken)
{
    for (int index = 1; index < 256; ++index) {
        ASSERT_EQ(1, add(index, index ^ 0x55));
        const qos_sched_node *node = search_sched(static_cast<u8>(index));
        ASSERT_NE(nullptr, node);
        EXPECT_EQ(index, node->sched.index);
        EXPECT_EQ(index ^ 0x55, node->sched.days);
    }
    EXPECT_EQ(255U, nodes().size());
}

TEST_F(Schedules, TakeFourFieldsFromTheCaller)
{
    qos_sched sched{};
    std::memset(&sched, 0xff, sizeof sched);
    sched.index = 9;
    sched.days = 0x3e;
    sched.all_day = 7;
    sched.start_hour = 8;
    ASSERT_EQ(1, add_sched(&sched));
    std::memset(&sched, 0xee, sizeof sched);  // the list holds a copy
    const qos_sched_node *node = search_sched(9);
    ASSERT_NE(nullptr, node);
    EXPECT_EQ(9, node->sched.index);
    EXPECT_EQ(0x3e, node->sched.days);
    EXPECT_EQ(7, node->sched.all_day);
    EXPECT_EQ(8, node->sched.start_hour);
    EXPECT_EQ(0, node->sched.stop_hour);
    EXPECT_EQ(0, node->sched.start_min);
    EXPECT_EQ(0, node->sched.stop_min);
    EXPECT_EQ("-m time --timestart 8:00 --timestop 0:00 --days Mon,Tue,Wed,Thu,Fri ", text_of(9));
}

TEST_F(Schedules, AreRefusedWhenMemoryIsShort)
{
    const test::watch watch("calloc", 1);
    EXPECT_EQ(0, add(0));
    EXPECT_FALSE(watch.failed());  // an index of 0 is refused before anything is allocated
    EXPECT_EQ(0, add(1));
    EXPECT_TRUE(watch.failed());
    EXPECT_EQ(1U, list_empty(&sched_root));
    EXPECT_EQ(1, add(1));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(Schedules, TheOlderOfTwoIsFoundUntilItIsDeleted)
{
    ASSERT_EQ(1, add(4, 0x01));
    ASSERT_EQ(1, add(3, 0x02));
    ASSERT_EQ(1, add(3, 0x04));
    ASSERT_EQ(1, add(5, 0x08));
    const auto before = nodes();
    EXPECT_EQ(before[1], search_sched(3));
    EXPECT_EQ("-m time --timestart 00:00 --timestop 23:59 --days Mon ", text_of(3));
    EXPECT_EQ(1, del_sched(3));
    EXPECT_EQ((std::vector<int>{4, 3, 5}), indexes());
    EXPECT_EQ(before[2], search_sched(3));
    EXPECT_EQ("-m time --timestart 00:00 --timestop 23:59 --days Tue ", text_of(3));
    EXPECT_EQ(1, del_sched(3));
    EXPECT_EQ(0, del_sched(3));
    EXPECT_EQ(nullptr, search_sched(3));
    EXPECT_EQ((std::vector<int>{4, 5}), indexes());
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(Schedules, DeleteAllLeavesNone)
{
    EXPECT_NE(0, del_all_sched());
    for (const int index : {1, 2, 2, 3}) ASSERT_EQ(1, add(index));
    EXPECT_NE(0, del_all_sched());
    EXPECT_EQ(1U, list_empty(&sched_root));
    EXPECT_EQ(&sched_root, sched_root.prev);
    EXPECT_EQ(nullptr, search_sched(2));
    EXPECT_EQ(1, add(2));
    EXPECT_EQ((std::vector<int>{2}), indexes());
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(Schedules, RenderTheirTimeOfDay)
{
    struct {
        int all_day, from_hour, from_min, to_hour, to_min;
        const char *text;
    } const cases[] = {
        {1, 8, 30, 17, 30, "-m time --timestart 00:00 --timestop 23:59 "},
        {0, 8, 0, 17, 30, "-m time --timestart 8:00 --timestop 17:30 "},
        {0, 0, 0, 0, 0, "-m time --timestart 0:00 --timestop 0:00 "},
        {0, 0, 5, 9, 9, "-m time --timestart 0:05 --timestop 9:09 "},
        {0, 23, 59, 10, 10, "-m time --timestart 23:59 --timestop 10:10 "},
        {0, 255, 255, 100, 100, "-m time --timestart 255:255 --timestop 100:100 "},
        {2, 1, 2, 3, 4, "-m time --timestart 1:02 --timestop 3:04 "},
        {255, 4, 3, 2, 1, "-m time --timestart 4:03 --timestop 2:01 "},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_EQ(1, add(3, 0, c.all_day, c.from_hour));
        qos_sched &stored = search_sched(3)->sched;
        stored.stop_hour = static_cast<u8>(c.to_hour);
        stored.start_min = static_cast<u8>(c.from_min);
        stored.stop_min = static_cast<u8>(c.to_min);
        EXPECT_EQ(c.text, text_of(3));
        del_all_sched();
    }
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(Schedules, RenderTheirDays)
{
    const std::pair<int, const char *> cases[] = {
        {0x00, ""},
        {0x80, ""},
        {0x01, "--days Sun "},
        {0x02, "--days Mon "},
        {0x04, "--days Tue "},
        {0x08, "--days Wed "},
        {0x10, "--days Thu "},
        {0x20, "--days Fri "},
        {0x40, "--days Sat "},
        {0x22, "--days Mon,Fri "},
        {0x3e, "--days Mon,Tue,Wed,Thu,Fri "},
        {0x41, "--days Sun,Sat "},
        {0xc1, "--days Sun,Sat "},
        {0x7f, "--days Sun,Mon,Tue,Wed,Thu,Fri,Sat "},
        {0xff, "--days Sun,Mon,Tue,Wed,Thu,Fri,Sat "},
    };
    const std::string all_day = "-m time --timestart 00:00 --timestop 23:59 ";
    for (const auto &[days, piece] : cases) {
        ASSERT_EQ(1, add(3, days));
        EXPECT_EQ(all_day + piece, text_of(3)) << days;
        del_all_sched();
    }
}

TEST_F(Schedules, RenderEverySetOfDays)
{
    const char *const names[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    ASSERT_EQ(1, add(1));
    for (unsigned days = 0; days < 256; ++days) {
        std::string list;
        for (unsigned day = 0; day < 7; ++day) {
            if ((days >> day) % 2 == 0) continue;
            list += list.empty() ? "--days " : ",";
            list += names[day];
        }
        if (!list.empty()) list += ' ';
        search_sched(1)->sched.days = static_cast<u8>(days);
        EXPECT_EQ("-m time --timestart 00:00 --timestop 23:59 " + list, text_of(1)) << days;
    }
}

// Schedules 1 and 2 with the shortest and the longest text there are.
struct sized {
    int index;
    std::string text;
};

std::vector<sized> shortest_and_longest()
{
    EXPECT_EQ(1, add(1, 0, 0));
    EXPECT_EQ(1, add(2, 0xff, 0, 255));
    qos_sched &longest = search_sched(2)->sched;
    longest.stop_hour = longest.start_min = longest.stop_min = 255;
    return {{1, "-m time --timestart 0:00 --timestop 0:00 "},
            {2, "-m time --timestart 255:255 --timestop 255:255 "
                "--days Sun,Mon,Tue,Wed,Thu,Fri,Sat "}};
}

TEST_F(Schedules, FitWhereTheSizeIsTheirLengthOrMore)
{
    for (const auto &[index, text] : shortest_and_longest()) {
        const auto length = static_cast<u32>(text.size());
        for (const u32 size : {length, length + 1, 96U, 1023U, 0x80000000U, 0xffffffffU}) {
            SCOPED_TRACE(testing::Message() << text << size);
            std::string buf(200, '#');
            EXPECT_EQ(1, get_sched_str(static_cast<u8>(index), buf.data(), size));
            // The text, its terminator (one byte past a size of just its length), no byte more.
            EXPECT_EQ(text + '\0' + std::string(199 - length, '#'), buf);
        }
    }
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(Schedules, AreRefusedWhereTheSizeIsLessThanTheirLength)
{
    for (const auto &[index, text] : shortest_and_longest()) {
        const auto length = static_cast<u32>(text.size());
        for (const u32 size : {length - 1, 10U, 1U, 0U}) {
            SCOPED_TRACE(testing::Message() << text << size);
            std::string buf(200, '#');
            EXPECT_EQ(0, get_sched_str(static_cast<u8>(index), buf.data(), size));
            EXPECT_EQ(std::string(200, '#'), buf);
            EXPECT_EQ((traces{missing}), test::console());
        }
    }
}

TEST_F(Schedules, MissingOnesAreTracedByTheText)
{
    ASSERT_EQ(1, add(1));
    for (const int index : {0, 2, 255}) {
        for (const u32 size : {0U, 199U}) {
            std::string buf(200, '#');
            EXPECT_EQ(0, get_sched_str(static_cast<u8>(index), buf.data(), size));
            EXPECT_EQ(std::string(200, '#'), buf);
            EXPECT_EQ((traces{missing}), test::console());
        }
    }
    const test::watch no_console("open", -1, 2 /* ENOENT */);
    char buf[200];
    EXPECT_EQ(0, get_sched_str(2, buf, 199));
    EXPECT_TRUE(no_console.failed());
}

TEST_F(Schedules, AreIndependentOfInterfaces)
{
    const u32 speeds[4] = {};
    const class_root_param param{};
    const qos_target target{};
    qos_match match{};
    match.sched_index = 6;
    ASSERT_EQ(0, add_root_qdisc(speeds, "eth0", R_HTB, &param));
    ASSERT_EQ(1, add_qos_rule("eth0", 1, &match, &target));  // before there is such a schedule
    ASSERT_EQ(1, add(6));
    EXPECT_EQ(1, del_sched(6));
    EXPECT_EQ(0U, list_empty(find_rule_list_by_name("eth0")));
    ASSERT_EQ(1, add(6));
    ASSERT_EQ(0, del_root_qdisc("eth0"));
    EXPECT_EQ((std::vector<int>{6}), indexes());
}

}  // namespace
