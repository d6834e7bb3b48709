// SPDX-License-Identifier: MIT
// apply as a transaction, against a real kernel: whatever fails, is interrupted or is killed, the
// kernel holds what it held before, or the new policy whole. It runs as root in a guest of uml-run:
//
//     uml-run transaction_test MORDEL [--pairs=N] [--positions=N] [--kills=N] [--seed=N]
//
// pairs: random pairs of policies; positions: of each pair at most so many are made to fail, 0:
// all; kills: random moments; seed: of the first pair. Spies stand under the names tc, iptables and
// iptables-restore. What the kernel holds is always read with tc and iptables themselves.
#include <cstring>
#include <exception>

#include "random_policy.h"
#include "traced.h"
#include "transaction.h"

namespace {

using namespace guest;

// ---- A step that fails --------------------------------------------------------------------------

struct pair {
    string name, before_file, after_file;
    string before{}, after{};  // everything()
    unsigned positions = 0;
};

// An edit of the old policy, or in one case of four another policy altogether
pair random_pair(unsigned seed, const string &name)
{
    policy_maker make(seed);
    const random_policy from = make.fresh();
    const random_policy to = make.below(4) == 0 ? make.fresh() : make.edited(from);
    return {name, policy_file(policy_text(from, name)), policy_file(policy_text(to, name))};
}

// A new interface with the same policy, from nothing, holds the same.
void expect_as_from_scratch(const pair &p)
{
    const string other = make_interface();
    by_hand("ip link set " + other + " txqueuelen " + queue_length(p.name));
    apply_file(policy_file(replaced(file_text(p.after_file), p.name, other)));
    const string reference = state_of(other);
    const string now = state_of(p.name);
    EXPECT_TRUE(reference == now) << difference(reference, now);
    (void)mordel({"stop", policy_file(replaced(file_text(p.after_file), p.name, other))});
    by_hand("ip link del " + other);
    interfaces.pop_back();
}

// The way there and back without a failure: both states, and how many positions the way there has
void measure(pair &p)
{
    apply_afresh(p.before_file);
    p.before = everything();
    const string length = queue_length(p.name);
    const result there = mordel_with({.at = never}, {"apply", p.after_file});
    ASSERT_EQ(0, there.status) << there.err << file_text(p.after_file);
    p.positions = static_cast<unsigned>(std::atoi(file_text(count_file).c_str()));
    expect_as_from_scratch(p);
    p.after = everything();
    apply_file(p.before_file);
    // The queue length of a pfifo_fast policy stays when another takes its place, and the default
    // leaves have it for their limit.
    if (queue_length(p.name) == length)
        expect_as(p.before, "there and back");
    else
        p.before = everything();
}

// All positions, or so many of them by chance; the first and the last always
std::set<unsigned> positions_of(const pair &p, unsigned seed)
{
    std::set<unsigned> all;
    for (unsigned n = 1; n <= p.positions; ++n) all.insert(n);
    std::mt19937 numbers(seed);
    while (wanted.positions != 0 && all.size() > std::max(wanted.positions, 2U))
        all.erase(std::next(all.begin(), 1 + static_cast<int>(numbers() % (all.size() - 2))));
    return all;
}

// One position that fails; false when the kernel was not as before.
bool fail_at(const pair &p, unsigned n)
{
    const result r = mordel_with({.at = n, .refuse = true}, {"apply", "--json", p.after_file});
    EXPECT_TRUE(fired());
    EXPECT_EQ(1, r.status) << r.err;
    expect_told(r, brought_back);
    const json told = first_interface(r);
    EXPECT_EQ(true, told.value("restored", false));
    EXPECT_EQ("before", told.value("taken_back", ""));
    EXPECT_NE("", told.value("error", ""));
    return expect_as(p.before, "position " + std::to_string(n) + " of " +
                                   std::to_string(p.positions) + "\n" + r.err);
}

TEST(Failure, AtEachPositionLeavesWhatRan)
{
    const string neighbour = make_interface();
    apply_file(policy_file(for_interface(two_classes, neighbour)));
    const string name = make_interface();
    unsigned failed = 0;
    for (unsigned i = 0; i < wanted.pairs; ++i) {
        const unsigned seed = wanted.seed + i;
        pair p = random_pair(seed, name);
        SCOPED_TRACE("seed " + std::to_string(seed));
        measure(p);
        unsigned wrong = 0;
        for (const unsigned n : positions_of(p, seed)) {
            if (!fail_at(p, n)) {
                ++wrong;
                apply_afresh(p.before_file);
            }
            ++failed;
        }
        if (wrong > 0) {
            ADD_FAILURE() << file_text(p.before_file) << "---- then\n" << file_text(p.after_file);
            break;
        }
        apply_file(p.after_file);
        expect_as(p.after, "without a failure");
    }
    expect_nothing_left();
    std::printf("%u pairs, %u positions that failed\n", wanted.pairs, failed);
}

// All interfaces of a file, or none
TEST(Failure, OfOneInterfaceTakesBackTheOthers)
{
    const lines names = {make_interface(), make_interface(), make_interface()};
    string old_text;
    string new_text;
    for (const string &name : names) {
        old_text += for_interface(two_classes, name);
        new_text += for_interface(edited(two_classes), name);
    }
    const string old_file = policy_file(old_text);
    apply_file(old_file);
    const string before = everything();
    const string new_file = policy_file(new_text);
    ASSERT_EQ(0, mordel_with({.at = never}, {"apply", new_file}).status);
    const unsigned positions = static_cast<unsigned>(std::atoi(file_text(count_file).c_str()));
    apply_file(old_file);
    const result r =
        mordel_with({.at = positions - 1, .refuse = true}, {"apply", "--json", new_file});
    EXPECT_EQ(1, r.status);
    expect_as(before, "the last interface's failure");
    expect_told(r, names[2] + ": " + brought_back);
    const json told = r.parsed().value("interfaces", json::array());
    ASSERT_LE(1U, told.size());
    EXPECT_EQ("taken back", told[0].value("result", ""));
}

TEST(Failure, OfTheFirstPolicyLeavesTheDefault)
{
    const string q = make_interface();
    const string before = everything();
    const string file = policy_file(for_interface(two_classes, q));
    for (const unsigned n : {3U, 9U}) {
        const result r = mordel_with({.at = n, .refuse = true}, {"apply", file});
        EXPECT_TRUE(fired());
        EXPECT_EQ(1, r.status);
        expect_default(q);
        expect_as(before, "nothing ran before");
        EXPECT_TRUE(has(r.err, brought_back) || has(r.err, "back on its default qdisc")) << r.err;
    }
}

// No command of ours makes what somebody else has built under a number of his own: that is said.
TEST(Failure, OverATreeThatAPersonHasBuiltSaysThatItIsGone)
{
    const string q = make_interface();
    by_hand(for_interface("tc qdisc add dev @ root handle 5: htb default 7;"
                          "tc class add dev @ parent 5: classid 5:7 htb rate 3mbit;"
                          "tc qdisc add dev @ parent 5:7 handle 70: pfifo limit 9",
                          q));
    const string file = policy_file(for_interface(two_classes, q));
    const result r = mordel_with({.at = 6, .refuse = true}, {"apply", file});
    EXPECT_TRUE(fired());
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "what it held before is not to be had: nobody can put back its root"))
        << r.err;
    EXPECT_TRUE(has(r.err, "back on its default qdisc, without rules")) << r.err;
    expect_default(q);
}

TEST(Failure, OfAScriptLeavesWhatRan)
{
    const string q = make_interface();
    apply_file(policy_file(for_interface(two_classes, q)));
    const string before = everything();
    const string file = policy_file(for_interface(edited(two_classes), q));
    // The script's 4th command adds class 1:2, its 7th class 1:3.
    for (const auto &[n, classes] : {std::pair{4U, 2}, {7U, 3}}) {
        const result r = mordel_with({.at = n, .refuse = true}, {"apply", "--script", file});
        EXPECT_TRUE(fired());
        EXPECT_EQ(1, r.status);
        const auto all = calls();
        EXPECT_EQ(classes, std::count_if(all.begin(), all.end(),
                                         [](const json &call) {
                                             return has(joined(call["words"].get<lines>(), " "),
                                                        "class add");
                                         }))
            << "the refused class is the last that the script adds";
        expect_as(before, r.err);
    }
}

// ---- The ways back ------------------------------------------------------------------------------

struct way_back {
    const char *what;
    lines refused;  // of the ways back
    const char *told;
};

// The image of the kernel writes rates in bit/s, a start script in kbit/s.
const string undo_of_change = "class change .*000bit";
const string class_of_image = "class (add|replace) .*000bit";
const string class_of_script = "class add .*kbit";

TEST(Fallback, EachWayBackIsTriedAndTold)
{
    const way_back ways[] = {
        {"the undo commands", {}, brought_back},
        {"the image whole", {undo_of_change}, brought_back},
        {"the policy applied last",
         {undo_of_change, class_of_image},
         "could not be brought back to what it held before: the policy applied last is in force "
         "again"},
    };
    const string q = make_interface();
    const string old_file = policy_file(for_interface(two_classes, q));
    const string new_file = policy_file(for_interface(edited(two_classes), q));
    apply_file(old_file);
    const string before = everything();
    ASSERT_EQ(0, mordel_with({.at = never}, {"apply", new_file}).status);
    const unsigned positions = static_cast<unsigned>(std::atoi(file_text(count_file).c_str()));
    apply_file(old_file);
    for (const way_back &way : ways) {
        SCOPED_TRACE(way.what);
        const result r =
            mordel_with({.at = positions - 1, .refuse = true, .refused_after = way.refused},
                        {"apply", new_file});
        EXPECT_TRUE(fired());
        EXPECT_EQ(1, r.status);
        expect_told(r, way.told);
        expect_as(before, r.err);
    }
    expect_nothing_left();
}

// Nothing works any more: all is said, and no half of a policy is left.
TEST(Fallback, WhenAllWaysAreRefusedItIsSaid)
{
    const string q = make_interface();
    apply_file(policy_file(for_interface(two_classes, q)));
    const string new_file = policy_file(for_interface(edited(two_classes), q));
    const result r =
        mordel_with({.at = 3, .refuse = true, .refused_after = {"class (add|change|replace) "}},
                    {"apply", "--json", new_file});
    EXPECT_EQ(1, r.status);
    EXPECT_FALSE(has(r.err, ": brought back")) << r.err;
    EXPECT_TRUE(has(r.err, "could not be taken back whole") ||
                has(r.err, "back on its default qdisc, without rules"))
        << r.err;
    const json told = first_interface(r);
    EXPECT_TRUE(told.value("taken_back", "") == "default qdisc" ||
                told.value("taken_back", "") == "no")
        << told;
    (void)mordel({"stop", new_file});
    expect_default(q);
}

// ---- Kills and interruptions --------------------------------------------------------------------

struct moments {
    string name, old_file, new_file, stopped, before, after;
    unsigned calls = 0;
};

moments prepare_moments()
{
    moments m;
    m.name = make_interface();
    m.old_file = policy_file(for_interface(two_classes, m.name));
    string text = edited(for_interface(two_classes, m.name));
    text = replaced(text, "dscp = 10", "dscp = 20");
    m.new_file = policy_file(text);
    (void)mordel({"stop", m.old_file});
    m.stopped = everything();
    apply_file(m.old_file);
    m.before = everything();
    m.calls = run_traced({"apply", m.new_file}, never, 0).calls;
    m.after = everything();
    apply_file(m.old_file);
    expect_as(m.before, "there and back");
    return m;
}

void old_again(const moments &m)
{
    if (everything() == m.before) return;
    apply_file(m.old_file);
    if (!expect_as(m.before, "the old policy again")) apply_afresh(m.old_file);
}

// After SIGKILL: recover, or the next apply or stop, takes back first.
void clear_up(const moments &m, unsigned how)
{
    const lines commands[] = {
        {"recover"}, {"recover"}, {"apply", m.new_file}, {"stop", m.old_file}};
    const lines &words = commands[how % 4];
    const result r = program(command_line(words), "", spied()).end();
    EXPECT_EQ(0, r.status) << words[0] << "\n" << r.err << r.out;
    const string now = everything();
    const string apart = "from before:\n" + difference(m.before, now) + "from the new policy:\n" +
                         difference(m.after, now);
    const bool as_before = words[0] == "recover" && now == m.before;
    EXPECT_TRUE(as_before || now == (words[0] == "stop" ? m.stopped : m.after)) << words[0] << "\n"
                                                                                << apart;
    expect_nothing_left();
}

TEST(Kill, AtAnyMomentLeavesTheOldPolicyOrTheNew)
{
    const moments m = prepare_moments();
    ASSERT_LT(100U, m.calls);
    std::mt19937 numbers(wanted.seed);
    for (unsigned i = 0; i < wanted.kills && !HasFailure(); ++i) {
        const unsigned at = 1 + static_cast<unsigned>(numbers() % m.calls);
        const unsigned pause = i % 2 == 0 ? 0 : static_cast<unsigned>(numbers() % 60000);
        SCOPED_TRACE("system call " + std::to_string(at) + " of " + std::to_string(m.calls) +
                     ", number " + std::to_string(i));
        const traced t = run_traced({"apply", m.new_file}, at, SIGKILL, pause);
        EXPECT_TRUE(t.ended.status == 128 + SIGKILL || t.ended.status == 0) << t.ended.status;
        clear_up(m, i);
        old_again(m);
    }
}

// Between and within the calls of the tools
TEST(Kill, AtEachPositionLeavesTheOldPolicyOrTheNew)
{
    const moments m = prepare_moments();
    for (unsigned n = 1, i = 0; !HasFailure(); ++n, ++i) {
        SCOPED_TRACE("position " + std::to_string(n));
        const result r = mordel_with({.at = n, .signal = SIGKILL}, {"apply", m.new_file});
        if (!fired()) break;
        EXPECT_EQ(128 + SIGKILL, r.status);
        (void)::unlink(orders_file.c_str());
        clear_up(m, i);
        old_again(m);
    }
    old_again(m);
}

// Twice killed, the second time while it takes back
TEST(Kill, OfTheRecoveryIsRecoveredFrom)
{
    const moments m = prepare_moments();
    std::mt19937 numbers(wanted.seed);
    for (unsigned i = 0; i < std::max(wanted.kills / 3, 1U) && !HasFailure(); ++i) {
        (void)mordel_with({.at = 3, .signal = SIGKILL}, {"apply", m.new_file});
        EXPECT_TRUE(fired());
        const unsigned at = 1 + static_cast<unsigned>(numbers() % m.calls);
        SCOPED_TRACE("system call " + std::to_string(at));
        (void)run_traced({"recover"}, at, SIGKILL);
        clear_up(m, 0);
        old_again(m);
    }
}

// After another boot the kernel holds nothing of what the journal tells of.
TEST(Kill, AndAnotherBootLeavesNothingToTakeBack)
{
    const moments m = prepare_moments();
    (void)mordel_with({.at = 3, .signal = SIGKILL}, {"apply", m.new_file});
    EXPECT_TRUE(fired());
    by_hand("tc qdisc del dev " + m.name + " root; iptables -w -t mangle -F;" +
            "iptables -w -t mangle -X");
    write_file("/run/boot_id", "01234567-89ab-cdef-0123-456789abcdef\n");
    by_hand("mount --bind /run/boot_id /proc/sys/kernel/random/boot_id");
    const result r = mordel({"recover"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(lines{}, changes());
    expect_default(m.name);
    expect_nothing_left();
    by_hand("umount /proc/sys/kernel/random/boot_id");
}

TEST(Interruption, AtAnyMomentLeavesTheOldPolicyOrTheNew)
{
    const moments m = prepare_moments();
    std::mt19937 numbers(wanted.seed + 1);
    for (unsigned i = 0; i < wanted.kills && !HasFailure(); ++i) {
        const int signal = i % 2 == 0 ? SIGINT : SIGTERM;
        const unsigned at = 1 + static_cast<unsigned>(numbers() % m.calls);
        SCOPED_TRACE("system call " + std::to_string(at) + " of " + std::to_string(m.calls) + " " +
                     ::strsignal(signal));
        const traced t = run_traced({"apply", "--json", m.new_file}, at, signal);
        EXPECT_TRUE(t.ended.status == 128 + signal || t.ended.status == 0) << t.ended.status;
        const string &held = t.ended.status == 0 ? m.after : m.before;
        expect_as(held, t.ended.err);
        const bool begun = has(t.ended.err, "finishing this step");
        EXPECT_TRUE(!begun || !t.ended.parsed().is_discarded()) << "no report: " << t.ended.out;
        expect_nothing_left();
        old_again(m);
    }
}

void expect_interrupted(const lines &words, int signal, unsigned at, const string &before)
{
    SCOPED_TRACE(string(::strsignal(signal)) + " at " + std::to_string(at) + " " + words[1]);
    const result r = mordel_with({.at = at, .signal = signal}, words);
    EXPECT_TRUE(fired());
    EXPECT_EQ(128 + signal, r.status) << r.err;
    expect_told(r, "finishing this step, then taking back; once more to be told what is left");
    EXPECT_FALSE(r.parsed().is_discarded()) << "no report: " << r.out;
    expect_as(before, r.err);
    expect_nothing_left();
}

TEST(Interruption, IsToldAtOnceAndTakesBack)
{
    const string q = make_interface();
    const string old_file = policy_file(for_interface(two_classes, q));
    const string new_file =
        policy_file(replaced(edited(for_interface(two_classes, q)), "dscp = 10", "dscp = 20"));
    apply_file(old_file);
    const string before = everything();
    for (const unsigned n : {1U, 3U}) {
        expect_interrupted({"apply", "--json", new_file}, SIGINT, n, before);
        expect_interrupted({"apply", "--script", "--json", new_file}, SIGINT, n, before);
    }
    expect_interrupted({"apply", "--json", new_file}, SIGTERM, 2, before);
    expect_interrupted({"apply", "--json", new_file}, SIGHUP, 2, before);
}

TEST(Interruption, ASecondTimeTellsWhatIsLeft)
{
    const string q = make_interface();
    apply_file(policy_file(for_interface(two_classes, q)));
    const string before = everything();
    const string new_file = policy_file(edited(for_interface(two_classes, q)));
    give({.at = 1, .seconds = 2});
    program p(command_line({"apply", new_file}), "", spied());
    EXPECT_TRUE(comes_true(fired));
    (void)::kill(p.pid(), SIGINT);
    (void)::usleep(300000);
    (void)::kill(p.pid(), SIGINT);
    const result r = p.end();
    EXPECT_EQ(130, r.status) << r.err;
    const std::size_t first = r.err.find("once more to be told what is left");
    ASSERT_NE(string::npos, first) << r.err;
    EXPECT_TRUE(has(r.err.substr(r.err.find('\n', first)), q)) << r.err;
    expect_as(before, r.err);
}

// A shell's & and nohup
TEST(Interruption, ThatWasIgnoredStaysIgnored)
{
    const string q = make_interface();
    const string file = policy_file(for_interface(two_classes, q));
    environment e = spied();
    const auto by_spies = e.prepared;
    e.prepared = [=] {
        by_spies();
        (void)::signal(SIGHUP, SIG_IGN);
    };
    const result r = mordel_with({.at = 2, .signal = SIGHUP}, {"apply", file}, e);
    EXPECT_TRUE(fired());
    EXPECT_EQ(0, r.status) << r.err;
}

// ---- Orphans ------------------------------------------------------------------------------------

TEST(Orphan, NeverWorksBesideTheNextApply)
{
    const string q = make_interface();
    const string text = for_interface(two_classes, q);
    const string old_file = policy_file(text);
    apply_file(old_file);
    const string before = everything();
    give({.at = 1, .seconds = 4});
    program killed(command_line({"apply", policy_file(edited(text))}), "", spied());
    ASSERT_TRUE(comes_true(fired));
    (void)::kill(killed.pid(), SIGKILL);
    (void)killed.end();
    const result r = program(command_line({"apply", old_file}), "", spied()).end();
    EXPECT_EQ(0, r.status) << r.err;
    expect_as(before, "at the end of the next apply");
    (void)::sleep(5);  // longer than the orphan waits
    expect_as(before, "when the orphan would have ended");
    expect_nothing_left();
}

// ---- The arguments ------------------------------------------------------------------------------

// "--pairs=200"
void take(const string &argument)
{
    const struct {
        const char *name;
        unsigned &value;
    } all[] = {{"--pairs=", wanted.pairs},
               {"--positions=", wanted.positions},
               {"--kills=", wanted.kills},
               {"--seed=", wanted.seed}};
    for (const auto &one : all)
        if (argument.starts_with(one.name))
            one.value = static_cast<unsigned>(std::stoul(argument.substr(std::strlen(one.name))));
}

int test_or_spy(int argc, char **argv)
{
    const string name = fs::path(argv[0]).filename();
    if (is_spy(name)) return spy(name, argv);
    testing::InitGoogleTest(&argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: uml-run transaction_test MORDEL [--pairs=N] ...\n");
        return 2;
    }
    mordel_path = argv[1];
    for (int i = 2; i < argc; ++i) take(argv[i]);
    plain_path = std::getenv("PATH");
    without_ipv6();
    place_spies();
    testing::UnitTest::GetInstance()->listeners().Append(new clean_kernel);  // it owns it
    return RUN_ALL_TESTS();
}

}  // namespace

int main(int argc, char **argv)
try {
    return test_or_spy(argc, argv);
} catch (const std::exception &e) {
    std::fprintf(stderr, "transaction_test: %s\n", e.what());
    return 2;
}
