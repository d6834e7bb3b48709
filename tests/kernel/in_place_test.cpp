// SPDX-License-Identifier: MIT
// Plans against a real kernel, on random pairs of policies: the steps are taken in their order, the
// undo brings the old tree back from wherever the steps end, and an image makes its tree again. It
// runs as root in a guest of uml-run:
//
//     uml-run in_place_test [PAIRS]
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>

#include "image.h"
#include "in_place.h"
#include "kernel.h"
#include "plan.h"
#include "policy_read.h"
#include "render.h"
#include "text.h"
#include "tree.h"

namespace {

unsigned pairs = 120;
unsigned stops_of_pair = 3;  // 0: one at each step

using std::string;
using tool::format;
using tool::image;
using tool::live_tree;
using tool::plan;
using tool::policy;
using tool::step;
using lines = std::vector<string>;

// ---- Random policies ----------------------------------------------------------------------------

// The same numbers with every library, unlike the standard distributions
class dice {
public:
    explicit dice(unsigned seed) : engine_(seed) {}
    u32 below(u32 n) { return static_cast<u32>(engine_() % n); }
    u32 between(u32 least, u32 most) { return least + below(most - least + 1); }
    bool chance(u32 percent) { return below(100) < percent; }

private:
    std::mt19937 engine_;
};

// Few handles, so that two policies have many in common.
class policy_maker {
public:
    explicit policy_maker(dice &d) : d_(d) {}

    string make(const string &root)
    {
        string out = "[[interface]]\nname = \"q0\"\nroot = \"" + root + "\"\n";
        if (root == "prio") return out + prio();
        struct {
            u32 handle, parent, depth;
        } classes[8];
        std::map<u32, bool> inner;
        const u32 count = d_.between(1, 8);
        u32 handle = 0x10;
        for (u32 i = 0; i < count; ++i) {
            handle += d_.between(1, 2);
            classes[i] = {handle, 0, 0};
            const u32 above = d_.below(count + 2);
            if (above >= i || classes[above].depth > 3) continue;
            classes[i].parent = classes[above].handle;
            classes[i].depth = classes[above].depth + 1;
            inner[classes[above].handle] = true;
        }
        out +=
            "default_tree = false\ndefault = " + std::to_string(default_for(root, handle)) + "\n";
        for (u32 i = 0; i < count; ++i) {
            out += format("[[interface.class]]\nhandle = %u\nparent = %u\n", classes[i].handle,
                          classes[i].parent);
            out += root == "htb" ? htb() : hfsc();
            if (!inner.contains(classes[i].handle)) out += leaf();
        }
        return out;
    }

private:
    // HTB's default is changed by a new tree alone, so it is mostly none. The last class has none
    // below it.
    u32 default_for(const string &root, u32 last)
    {
        return root == "hfsc" || d_.chance(10) ? last : 0;
    }

    string htb()
    {
        string out = format("rate = \"%ukbit\"\n", d_.between(8, 50000));
        out += format("ceil = \"%ukbit\"\n", d_.between(50000, 2000000));
        if (d_.chance(50)) out += format("prio = %u\n", d_.below(8));
        if (d_.chance(50)) out += format("burst = %u\n", d_.between(1600, 100000));
        if (d_.chance(50)) out += format("cburst = %u\n", d_.between(1600, 100000));
        return out;
    }

    string curve(const char *key)
    {
        if (d_.chance(50)) return format("%s = \"%ukbit\"\n", key, d_.between(8, 100000));
        return format("%s = { rate = \"%ukbit\", umax = %u, dmax = %u }\n", key,
                      d_.between(8, 100000), d_.between(1, 4294), d_.between(1, 1000));
    }

    string hfsc()
    {
        return format("ul = \"%ukbit\"\n", d_.between(100000, 200000)) +
               curve(d_.chance(50) ? "sc" : "ls");
    }

    string leaf()
    {
        switch (d_.below(5)) {
        case 0:
            return format("leaf = { type = \"pfifo\", limit = %u }\n", d_.between(1, 2000));
        case 1:
            return format("leaf = { type = \"sfq\", perturb = %u }\n", d_.below(256));
        case 2: {
            const u32 avpkt = d_.between(50, 2000);
            const u32 min = d_.between(2 * avpkt, 20 * avpkt);
            const u32 max = d_.between(min + 1, 4 * min);
            return format("leaf = { type = \"red\", min = %u, max = %u, limit = %u, avpkt = %u, "
                          "burst = %u }\n",
                          min, max, d_.between(max, 8 * max), avpkt,
                          min / avpkt + d_.between(1, 30));
        }
        case 3:
            return format("leaf = { type = \"tbf\", rate = \"%ukbit\", burst = %u, latency = %u "
                          "}\n",
                          d_.between(8, 2000000), d_.between(1600, 100000), d_.between(1, 1000));
        default:
            return "";
        }
    }

    string prio()
    {
        const u32 bands = d_.between(2, 6);
        string out = format("bands = %u\npriomap = [", bands);
        for (int i = 0; i < 16; ++i) out += format("%u, ", d_.below(bands));
        out += "]\n";
        for (u32 band = 1; band <= bands; ++band)
            if (d_.chance(70)) out += format("[[interface.class]]\nhandle = %u\n", band) + leaf();
        return out;
    }

    dice &d_;
};

// A policy and its script. Some random policies are refused by their checks: none of those.
struct made_policy {
    string text;
    policy whole;
    string script;
    tool::wanted wanted() const
    {
        return {whole.interfaces.front(), script, tool::parse_start_script(script, "q0")};
    }
};

made_policy any_policy(dice &d)
{
    const char *const roots[] = {"htb", "hfsc", "prio"};
    const string root = roots[d.below(3)];
    for (;;) {
        made_policy p;
        p.text = policy_maker(d).make(root);
        tool::diagnostics found;
        p.whole = tool::read_policy(p.text, tool::kernel_kind::mainline, found);
        if (found.failed()) continue;
        p.script = tool::render(p.whole).interfaces.at(0).start;
        return p;
    }
}

// ---- The kernel ---------------------------------------------------------------------------------

// tc's batch; "" or what it said
string run_tc(const lines &commands, const string &how = "")
{
    std::ofstream batch("/run/batch");
    for (const string &c : commands) batch << c << "\n";
    batch.close();
    const int status = std::system(("tc " + how + " -batch /run/batch >/run/said 2>&1").c_str());
    if (status == 0) return "";
    std::ifstream said("/run/said");
    string text{std::istreambuf_iterator<char>(said), {}};
    return text.empty() ? "status" : text;
}

live_tree kernel()
{
    string why;
    const auto live = tool::read_kernel("q0", why);
    EXPECT_TRUE(live) << why;
    return live.value_or(live_tree());
}

image held() { return tool::image_of("q0", kernel()); }

string text(const image &i)
{
    string out;
    for (const tool::command &c : i.tree) out += c.text + "\n";
    return out + i.unwritable;
}

plan plan_to(const made_policy &p, const tool::memory &before = {})
{
    return plan_apply(p.wanted(), kernel(), {}, before);
}

lines tc_of(const plan &p) { return commands_of(p.steps, tool::program::tc); }

string joined(const lines &all)
{
    string out;
    for (const string &one : all) out += one + "\n";
    return out;
}

// Without the options of inner classes that the kernel makes no use of and keeps from before
string without_unused(const image &i, const made_policy &p)
{
    std::map<u32, bool> inner;
    for (const tool::tree_class &c : tool::tree_of(p.whole.interfaces[0]))
        inner[c.handle] = c.has_children;
    string out;
    for (const tool::command &c : i.tree) {
        const bool cut = c.what.what == tool::object::kind::tree_class && inner[c.what.number];
        out += c.text.substr(0, cut ? c.text.find(" prio ") : string::npos) + "\n";
    }
    return out + i.unwritable;
}

void start_with(const image &before)
{
    (void)run_tc({"qdisc del dev q0 root"});
    lines commands;
    for (const tool::command &c : before.tree) commands.push_back(c.text);
    ASSERT_EQ("", run_tc(commands)) << text(before);
    ASSERT_EQ(text(before), text(held())) << "the image makes another tree";
}

// The first `done` of the steps run, then all are undone, also those that were not run: who broke
// off may not know how far a run came.
void expect_undone(const std::vector<step> &steps, std::size_t done, const image &before,
                   bool undo_all)
{
    SCOPED_TRACE(
        format("%zu of %zu steps, %s undone", done, steps.size(), undo_all ? "all" : "those"));
    lines commands;
    for (std::size_t i = 0; i < done; ++i) commands.push_back(steps[i].command);
    ASSERT_EQ("", run_tc(commands)) << joined(commands);
    const lines undo = undo_of(steps, undo_all ? steps.size() : done);
    (void)run_tc(undo, "-force");
    EXPECT_EQ(text(before), text(held())) << "done:\n"
                                          << joined(commands) << "undo:\n"
                                          << joined(undo);
}

struct tally {
    unsigned in_place = 0, anew = 0, nothing = 0;
    std::size_t steps = 0, stops = 0;
};

void try_pair(unsigned seed, tally &all)
{
    dice d(seed);
    const made_policy old = any_policy(d);
    made_policy next = any_policy(d);
    // Mostly of the same root: what is in place is what is to be seen.
    while (next.whole.interfaces[0].root_type != old.whole.interfaces[0].root_type && d.chance(90))
        next = any_policy(d);
    SCOPED_TRACE(format("seed %u\n", seed) + old.text + "---- then\n" + next.text);

    (void)run_tc({"qdisc del dev q0 root"});
    ASSERT_EQ("", run_tc(tc_of(plan_to(old))));
    ASSERT_TRUE(tc_of(plan_to(old)).empty()) << joined(tc_of(plan_to(old)));
    const image before = held();
    ASSERT_EQ("", before.unwritable);
    start_with(before);
    if (testing::Test::HasFailure()) return;

    // What no dump tells, such as a burst that is no longer given, is known from the script before.
    const plan p = plan_to(next, {"", old.script, std::nullopt});
    std::vector<step> steps;
    for (const step &s : p.steps)
        if (s.by == tool::program::tc) steps.push_back(s);
    (steps.empty() ? all.nothing : p.result == tool::effect::built ? all.anew : all.in_place)++;
    all.steps += steps.size();
    ASSERT_EQ("", run_tc(tc_of(p))) << joined(tc_of(p));
    EXPECT_EQ("", verify(next.wanted(), kernel()).error) << joined(tc_of(p));
    EXPECT_EQ(lines{}, verify(next.wanted(), kernel()).notes) << joined(tc_of(p));
    EXPECT_EQ("", joined(tc_of(plan_to(next)))) << "after:\n" << joined(tc_of(p));
    const string in_place = without_unused(held(), next);
    (void)run_tc(undo_of(steps, steps.size()), "-force");
    EXPECT_EQ(text(before), text(held())) << "undo:\n" << joined(undo_of(steps, steps.size()));
    const std::size_t most = stops_of_pair == 0 ? steps.size() : stops_of_pair;
    for (std::size_t i = 0; i < most && !testing::Test::HasFailure() && !steps.empty(); ++i) {
        const std::size_t random = d.below(static_cast<u32>(steps.size()));
        expect_undone(steps, stops_of_pair == 0 ? i : random, before, i % 2 != 0);
        ++all.stops;
    }
    (void)run_tc({"qdisc del dev q0 root"});
    ASSERT_EQ("", run_tc(tc_of(plan_to(next))));
    EXPECT_EQ(without_unused(held(), next), in_place) << "another tree than when built anew";
}

TEST(InPlace, StepsAreTakenAndUndone)
{
    ASSERT_EQ(0, std::system("ip link add q0 type dummy && ip link set q0 up txqueuelen 100"));
    // Otherwise each removal of a qdisc waits for the kernel's other work, 50 ms and more.
    std::ofstream("/sys/kernel/rcu_expedited") << 1;
    tally all;
    for (unsigned seed = 1; seed <= pairs && !HasFailure(); ++seed) try_pair(seed, all);
    std::printf("%u in place, %u anew, %u equal; %zu steps; stopped and undone %zu times\n",
                all.in_place, all.anew, all.nothing, all.steps, all.stops);
    EXPECT_GT(all.in_place, pairs / 2);
}

}  // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    // A machine's own interfaces are none of its business.
    std::ifstream in("/proc/cpuinfo");
    const string cpu{std::istreambuf_iterator<char>(in), {}};
    if (cpu.find("User Mode Linux") == string::npos) {
        std::puts("in_place_test: not in a guest of uml-run");
        return 77;
    }
    if (argc > 1) pairs = static_cast<unsigned>(std::atoi(argv[1]));
    if (argc > 2) stops_of_pair = static_cast<unsigned>(std::atoi(argv[2]));
    return RUN_ALL_TESTS();
}