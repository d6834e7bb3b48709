// SPDX-License-Identifier: MIT
// Taking back where it is hard, against a real kernel: the lock of the mangle table is held, there
// is no iptables-restore, a command of the way back is refused, a signal comes.
#include "transaction.h"

namespace {

using namespace guest;

struct change {
    string name, old_file, new_file, before;
};

// An interface that holds the old policy; the new one has another class and another rule.
change prepared(const environment &e = spied())
{
    change c;
    c.name = make_interface();
    const string text = for_interface(two_classes, c.name);
    c.old_file = policy_file(text);
    c.new_file = policy_file(replaced(edited(text), "dscp = 10", "dscp = 20"));
    const result r = mordel({"apply", c.old_file}, e);
    EXPECT_EQ(0, r.status) << r.err;
    c.before = everything();
    return c;
}

// ---- The lock of the mangle table ---------------------------------------------------------------

// The lock that all iptables processes share, held by another process than mordel's
class table_lock {
public:
    table_lock() : fd_(::open("/run/xtables.lock", O_RDONLY | O_CREAT | O_CLOEXEC, 0600))
    {
        EXPECT_EQ(0, ::flock(fd_, LOCK_EX));
    }
    ~table_lock() { (void)::close(fd_); }
    table_lock(const table_lock &) = delete;
    table_lock &operator=(const table_lock &) = delete;

private:
    int fd_;
};

void expect_counted(const string &name, const char *when)
{
    auto now = counters_of(name);
    EXPECT_EQ(4U, now["1:10"].total()) << when;
    EXPECT_EQ(3U, now["1:11"].total()) << when;
}

// The kernel cannot be asked for its rules then: that is no reason to make the tree anew.
TEST(TakeBack, TearsNothingDownWhileTheTableIsLocked)
{
    const change c = prepared();
    const unsigned last = positions_to(c.new_file);
    apply_file(c.old_file);
    expect_as(c.before, "there and back");
    send(c.name, 0x10, 4);
    send(c.name, 0x11, 3);
    const string tree = tree_of(c.name);
    give({.at = last});
    write_file(hold_file, "");
    program p(command_line({"apply", "--wait", "1", c.new_file}), "", spied());
    ASSERT_TRUE(comes_true(fired));
    {
        const table_lock held;
        EXPECT_NE(tree, tree_of(c.name)) << "the steps of tc are done";
        (void)::unlink(hold_file.c_str());
        const result r = p.end();
        EXPECT_EQ(1, r.status);
        expect_told(r, c.name + ": could not be taken back whole: iptables: ");
        EXPECT_EQ(tree, tree_of(c.name));
        expect_counted(c.name, "while the table is locked");
        EXPECT_TRUE(fs::exists(journal));
    }
    const result r = mordel({"recover"});
    EXPECT_EQ(0, r.status) << r.err;
    expect_as(c.before, r.err);
    expect_counted(c.name, "recovered");
    expect_nothing_left();
}

// ---- Without iptables-restore -------------------------------------------------------------------

// The spies of tc and iptables, and behind them the real ones alone
environment without_restore()
{
    by_hand("mkdir -p /run/few /run/real; for tool in tc iptables; do"
            " ln -sf " +
            spies +
            "/$tool /run/few/$tool; done;"
            " ln -sf \"$(command -v tc)\" /run/real/tc;"
            " ln -sf \"$(command -v xtables-legacy-multi)\" /run/real/iptables");
    environment e = spied();
    e.path = "/run/few:/run/real";
    return e;
}

// The position of the script's n-th rule that looks at the DSCP, from the calls of a whole run
unsigned position_of_rule(int n)
{
    const lines all = changes();
    for (std::size_t i = 0; i < all.size(); ++i)
        if (all[i].starts_with("iptables ") && has(all[i], "--dscp") && --n == 0)
            return static_cast<unsigned>(i + 1);
    ADD_FAILURE() << "no such rule\n" << joined(all, "\n");
    return never;
}

TEST(TakeBack, BringsRulesBackWithoutIptablesRestore)
{
    const environment e = without_restore();
    change c = prepared(e);
    const string held = kernel();
    EXPECT_TRUE(has(held, "--dscp 0x0a")) << held;
    (void)positions_to(c.new_file, {}, e);
    const unsigned second_rule = position_of_rule(2);
    EXPECT_EQ(0, mordel({"apply", c.old_file}, e).status);
    EXPECT_EQ(held, kernel());
    c.before = everything();  // the listing of the rules is remembered now
    const result r = mordel_with({.at = second_rule, .refuse = true}, {"apply", c.new_file}, e);
    EXPECT_TRUE(fired());
    EXPECT_EQ(1, r.status);
    expect_told(r, "ran the script instead");
    expect_told(r, c.name + ": " + brought_back);
    expect_as(c.before, r.err);
    expect_nothing_left();
}

// ---- Of several, one is lost --------------------------------------------------------------------

struct two {
    string first, second, old_file, new_file, before;
};

// The second interface's third step fails, and so does whatever is to take it back: the rest is as
// before.
two with_a_lost_one()
{
    two t{make_interface(), make_interface(), "", "", ""};
    const string text = for_interface(two_classes, t.first) + for_interface(two_classes, t.second);
    t.old_file = policy_file(text);
    t.new_file = policy_file(edited(text));
    apply_file(t.old_file);
    t.before = everything();
    const string first_before = state_of(t.first);
    const unsigned positions = positions_to(t.new_file);
    apply_file(t.old_file);
    const result r = mordel_with(
        {.at = positions / 2 + 3, .refuse = true, .refused_after = {" dev " + t.second + " "}},
        {"apply", "--keep-going", "--json", t.new_file});
    EXPECT_TRUE(fired());
    EXPECT_EQ(1, r.status);
    expect_told(r, t.first + ": " + brought_back);
    expect_told(r, t.second + ": could not be taken back whole: ");
    EXPECT_EQ(first_before, state_of(t.first));
    EXPECT_NE(t.before, everything());
    EXPECT_TRUE(fs::exists(journal));
    return t;
}

TEST(TakeBack, OfAllWhenOneIsLostIsEndedByRecover)
{
    const two t = with_a_lost_one();
    const result r = mordel({"recover"});
    EXPECT_EQ(0, r.status) << r.err;
    expect_as(t.before, r.err);
    expect_nothing_left();
}

TEST(TakeBack, OfAllWhenOneIsLostIsEndedByStop)
{
    const two t = with_a_lost_one();
    const string first = state_of(t.first);
    const result r = mordel({"stop", t.second});
    EXPECT_EQ(0, r.status) << r.err;
    expect_default(t.second);
    EXPECT_EQ(first, state_of(t.first));
    expect_nothing_left();
}

// Also where taking back is refused as before: what is stopped needs no way back.
TEST(TakeBack, OfAStoppedOneIsGivenUp)
{
    const two t = with_a_lost_one();
    const string first = state_of(t.first);
    give({.at = never, .refused_after = {" -force .* dev " + t.second + " "}});
    write_file(fired_file, "");
    const result r = program(command_line({"stop", t.second}), "", spied()).end();
    EXPECT_EQ(0, r.status) << r.err;
    expect_told(r, t.second + ": could not be taken back whole: ");
    expect_default(t.second);
    EXPECT_EQ(first, state_of(t.first));
    expect_nothing_left();
}

// ---- Signals ------------------------------------------------------------------------------------

// Each command that changes something sends mordel a SIGINT.
result interrupted_throughout(const lines &words)
{
    return mordel(words, spied({{"SPY_SIGNAL", std::to_string(SIGINT)}}));
}

TEST(Interruption, OfRecoverComesWhenItIsDone)
{
    const change c = prepared();
    (void)mordel_with({.at = 3, .signal = SIGKILL}, {"apply", c.new_file});
    EXPECT_TRUE(fired());
    EXPECT_NE(c.before, everything());
    const result r = interrupted_throughout({"recover"});
    EXPECT_EQ(128 + SIGINT, r.status) << r.err;
    expect_told(r, "an apply that was not finished is taken back");
    expect_told(r, c.name + ": " + brought_back);
    expect_as(c.before, r.err);
    expect_nothing_left();
}

TEST(Interruption, OfStopComesWhenItIsDone)
{
    const change c = prepared();
    const result r = interrupted_throughout({"stop", "--json", c.name});
    EXPECT_EQ(128 + SIGINT, r.status) << r.err;
    EXPECT_EQ("stopped", first_interface(r).value("result", "")) << r.out;
    expect_default(c.name);
    EXPECT_EQ("\n", files_of_state());
    expect_nothing_left();
}

}  // namespace
