// SPDX-License-Identifier: MIT
// What render() does where the library refuses a policy or memory runs out. The program is linked
// with --wrap for fopencookie, so that a stream can fail as one does without memory.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <new>

#include "list_range.h"
#include "render.h"

namespace {

// How the next streams in memory fail
enum class fault { none, opening, writing, closing };
fault wanted = fault::none;
unsigned streams_until = 0;  // so many streams work first

// Takes nothing of the first piece that is flushed, and all of the later ones.
ssize_t refuse_once(void *cookie, const char *, size_t size)
{
    bool &refused = *static_cast<bool *>(cookie);
    if (refused) return static_cast<ssize_t>(size);
    refused = true;
    return 0;
}
ssize_t take_all(void *, const char *, size_t size) { return static_cast<ssize_t>(size); }
int close_badly(void *) { return -1; }
int close_well(void *) { return 0; }

}  // namespace

extern "C" FILE *__real_fopencookie(void *cookie, const char *mode, cookie_io_functions_t calls);
extern "C" FILE *__wrap_fopencookie(void *cookie, const char *mode, cookie_io_functions_t calls)
{
    static bool refused;
    if (wanted == fault::none || streams_until-- > 0)
        return __real_fopencookie(cookie, mode, calls);
    if (wanted == fault::opening) return nullptr;
    refused = false;
    cookie_io_functions_t faulty{};
    faulty.write = wanted == fault::writing ? refuse_once : take_all;
    faulty.close = wanted == fault::closing ? close_badly : close_well;
    return __real_fopencookie(&refused, mode, faulty);
}

namespace {

using tool::policy;
using tool::value;

// Rules enough for several flushes of a stream
policy good_policy()
{
    policy p;
    tool::policy_interface iface;
    iface.name = "eth0";
    iface.root_type = R_PRIO;
    iface.param.prio.bands = 3;
    for (u8 index = 1; index <= 200; ++index) {
        tool::policy_rule rule;
        rule.index = value<u32>::good(index, {});
        rule.target.flags = 1;
        rule.target.mark = 1;
        iface.rules.push_back(rule);
    }
    p.interfaces.push_back(iface);
    return p;
}

void expect_empty_library()
{
    EXPECT_NE(0U, list_empty(&qos_root));
    EXPECT_NE(0U, list_empty(&sched_root));
}

TEST(RenderFailure, OutOfMemoryIsNeverAnEmptyScript)
{
    const policy p = good_policy();
    for (const fault kind : {fault::opening, fault::writing, fault::closing})
        for (unsigned nth = 0; nth < 3; ++nth) {
            SCOPED_TRACE(testing::Message() << "fault " << int(kind) << " of stream " << nth);
            wanted = kind;
            streams_until = nth;
            EXPECT_THROW((void)tool::render(p), std::bad_alloc);
            wanted = fault::none;
            expect_empty_library();
        }
    EXPECT_EQ("", tool::render(p).refused);
}

TEST(RenderFailure, ARefusalNamesItsRecordAndLeavesNothing)
{
    policy two = good_policy();
    two.interfaces.push_back(two.interfaces.front());
    policy orphan = good_policy();
    orphan.interfaces[0].root_type = R_HTB;
    orphan.interfaces[0].classes.resize(1);
    orphan.interfaces[0].default_tree = true;
    orphan.interfaces[0].classes[0].handle = value<u32>::good(0x20, {});
    orphan.interfaces[0].classes[0].parent = value<u32>::good(0x99, {});
    policy inner = orphan;
    inner.interfaces[0].classes[0] = {};
    inner.interfaces[0].classes[0].handle = value<u32>::good(1, {});
    inner.interfaces[0].classes[0].existing = true;
    inner.interfaces[0].classes[0].leaf = value<leaf_qdisc>::good({}, {});
    policy rule = good_policy();
    rule.interfaces[0].rules[1].index = value<u32>::good(1, {});
    policy schedule = good_policy();
    schedule.schedules.resize(2);
    schedule.schedules[0].sched.index = 7;
    const struct {
        const policy &p;
        const char *refused;
    } cases[] = {{two, "root of eth0: 0x3"},
                 {orphan, "class of eth0: 0x20"},
                 {inner, "leaf of eth0: 0x1"},
                 {rule, "rule of eth0: 0x1"},
                 {schedule, "schedule 0"}};
    for (const auto &c : cases) {
        const tool::rendering all = tool::render(c.p);
        EXPECT_EQ(c.refused, all.refused);
        EXPECT_TRUE(all.interfaces.empty());
        expect_empty_library();
    }
}

TEST(Rendering, HasTheInterfacesInThePolicysOrder)
{
    policy p = good_policy();
    p.interfaces.push_back(p.interfaces.front());
    p.interfaces[0].name = "wan0";
    const tool::rendering all = tool::render(p);
    ASSERT_EQ(2U, all.interfaces.size());
    EXPECT_EQ("wan0", all.interfaces[0].name);
    EXPECT_EQ("eth0", all.interfaces[1].name);
    EXPECT_NE(std::string::npos, all.interfaces[0].start.find("tc qdisc add dev wan0 "));
    EXPECT_NE(std::string::npos, all.interfaces[1].stop.find("tc qdisc del dev eth0 "));
    EXPECT_EQ(std::string::npos, all.interfaces[1].rules.find("tc "));
}

}  // namespace
