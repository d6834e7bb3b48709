// SPDX-License-Identifier: MIT
// apply --confirm against a real kernel: what nobody confirms is taken back, also when the terminal
// and the session of the apply are gone, and also when its timer is.
#include "traced.h"
#include "transaction.h"

namespace {

using namespace guest;

struct change {
    string name, old_file, new_file, before, after;
    string applied;  // by the kernel alone: the state folder may wait for the confirmation
};

// An interface that holds the old policy, and what both policies look like
change prepared()
{
    change c;
    c.name = make_interface();
    c.old_file = policy_file(for_interface(two_classes, c.name));
    c.new_file = policy_file(edited(for_interface(two_classes, c.name)));
    apply_file(c.new_file);
    c.after = everything();
    c.applied = kernel();
    apply_file(c.old_file);
    c.before = everything();
    return c;
}

void apply_unconfirmed(const change &c, const string &seconds, lines more = {})
{
    more.insert(more.end(), {"--confirm", seconds});
    apply_file(c.new_file, more);
    EXPECT_TRUE(fs::exists(journal));
}

bool is_taken_back(const change &c)
{
    return comes_true([&] { return !fs::exists(journal) && everything() == c.before; });
}

// mordel's own: the tools end with it.
void kill_timer()
{
    for (const string &process : processes_of_ours())
        (void)::kill(std::atoi(process.c_str()), SIGKILL);
    EXPECT_TRUE(comes_true([] { return processes_of_ours().empty(); }));
}

TEST(Confirm, InTimeKeepsThePolicy)
{
    const change c = prepared();
    apply_unconfirmed(c, "600");
    const result r = mordel({"confirm"});
    EXPECT_EQ(0, r.status) << r.err;
    expect_as(c.after, "confirmed");
    expect_nothing_left();
    const result again = mordel({"confirm"});
    EXPECT_EQ(1, again.status);
    EXPECT_TRUE(has(again.err + again.out, "nothing waits for a confirmation")) << again.err;
    expect_as(c.after, "confirmed again");
}

TEST(Confirm, NotInTimeTakesThePolicyBack)
{
    const change c = prepared();
    apply_unconfirmed(c, "5");
    EXPECT_TRUE(is_taken_back(c)) << difference(c.before, everything());
    expect_nothing_left();
    EXPECT_EQ(1, mordel({"confirm"}).status);
}

TEST(Confirm, StatusShowsTheSecondsLeftAndAnotherApplyIsRefused)
{
    const change c = prepared();
    apply_unconfirmed(c, "600");
    const result status = mordel({"status", "--interval", "0.1"});
    EXPECT_TRUE(has(status.out, " s left")) << status.out;
    const result other = mordel({"apply", c.old_file});
    EXPECT_EQ(1, other.status);
    expect_told(other, "an apply waits for its confirmation");
    expect_told(other, "s left: mordel confirm keeps it, mordel recover takes it back");
    EXPECT_EQ(c.applied, kernel());
    const result r = mordel({"recover"});
    EXPECT_EQ(0, r.status) << r.err;
    expect_as(c.before, "recovered at once");
    expect_nothing_left();
}

// Nothing is remembered of the interface yet but in the journal.
TEST(Confirm, StatusShowsAFirstPolicyToo)
{
    const string q = make_interface();
    apply_file(policy_file(for_interface(two_classes, q)), {"--confirm", "600"});
    const result text = mordel({"status", "--interval", "0.1"});
    EXPECT_EQ(0, text.status) << text.err;
    EXPECT_TRUE(has(text.out, " s left; mordel confirm keeps it")) << text.out;
    EXPECT_TRUE(has(text.out, q + "  htb, as the policy says")) << text.out;
    const result r = mordel({"status", "--interval", "0.1", "--json"});
    EXPECT_EQ(q, first_interface(r).value("name", ""));
    EXPECT_EQ("same", first_interface(r).value("policy", ""));
    const unsigned left = r.parsed().value("confirm_seconds_left", 0U);
    EXPECT_LT(0U, left);
    EXPECT_GE(600U, left);
    EXPECT_EQ(0, mordel({"recover"}).status);
    expect_default(q);
    expect_nothing_left();
}

TEST(Confirm, IsAskedForAlsoWhenOneInterfaceIsMissing)
{
    const string q = make_interface();
    const string file = policy_file(for_interface(two_classes, "q999") +  //
                                    for_interface(two_classes, q));
    const result r = mordel({"apply", "--confirm", "600", "--keep-going", file});
    EXPECT_EQ(1, r.status);
    expect_told(r, "mordel: q999: ");
    EXPECT_TRUE(has(r.out, "to be confirmed within 600 s")) << r.out;
    const string applied = kernel();
    EXPECT_TRUE(has(applied, "class htb 1:11 ")) << applied;
    const result confirmed = mordel({"confirm"});
    EXPECT_EQ(0, confirmed.status) << confirmed.err;
    EXPECT_EQ(applied, kernel());
    EXPECT_EQ(0, mordel({"recover"}).status);
    EXPECT_EQ(applied, kernel()) << "nothing is taken back any more";
    expect_nothing_left();
}

TEST(Confirm, OutlastsTheStopOfAnotherInterface)
{
    const string other = make_interface();
    const change c = prepared();
    apply_file(policy_file(for_interface(two_classes, other)));
    apply_unconfirmed(c, "600");
    const string applied = state_of(c.name);
    const result of_other = mordel({"stop", other});
    EXPECT_EQ(0, of_other.status) << of_other.err;
    expect_default(other);
    EXPECT_EQ(applied, state_of(c.name));
    const result status = mordel({"status", "--interval", "0.1"});
    EXPECT_TRUE(has(status.out, " s left; mordel confirm keeps it")) << status.out;
    const result r = mordel({"stop", c.name});
    EXPECT_EQ(0, r.status) << r.err;
    expect_told(r, "an apply that was not finished is taken back");
    expect_told(r, c.name + ": " + brought_back);
    expect_default(c.name);
    EXPECT_EQ("\n", files_of_state());
    expect_nothing_left();
}

TEST(Confirm, WithoutATimerIsTakenBackByTheNext)
{
    for (const string verb : {"recover", "apply", "stop"}) {
        SCOPED_TRACE(verb);
        const change c = prepared();
        apply_unconfirmed(c, "2");
        kill_timer();
        (void)::sleep(3);
        lines words = {verb};
        if (verb != "recover") words.push_back(c.old_file);
        const result r = mordel(words);
        EXPECT_EQ(0, r.status) << r.err;
        if (verb == "stop")
            expect_default(c.name);
        else
            expect_as(c.before, verb);
        expect_nothing_left();
    }
}

// The moment at which a person would see that the line is gone
TEST(Confirm, OutlivesItsTerminalAndSession)
{
    const change c = prepared();
    by_hand("mkdir -p /dev/pts; mountpoint -q /dev/pts || mount -t devpts devpts /dev/pts");
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_LE(0, master);
    ASSERT_EQ(0, ::grantpt(master));
    ASSERT_EQ(0, ::unlockpt(master));
    const string terminal = ::ptsname(master);
    const string script = mordel_path + " apply --confirm 8 " + c.new_file +
                          "; echo $? >/run/session_status; sleep 600";
    remove_notes();
    (void)::unlink("/run/session_status");
    environment e = spied();
    e.prepared = [&] {
        const int slave = ::open(terminal.c_str(), O_RDWR | O_NOCTTY);
        for (int fd = 0; fd < 3; ++fd) (void)::dup2(slave, fd);
    };
    program session({"setsid", "--ctty", "--wait", "/bin/sh", "-c", script}, "", e);
    EXPECT_TRUE(comes_true([] { return !file_text("/run/session_status").empty(); }));
    EXPECT_EQ("0\n", file_text("/run/session_status"));
    EXPECT_EQ(c.applied, kernel());
    (void)::close(master);
    EXPECT_NE(128 + SIGKILL, session.end(30).status) << "the session outlives its terminal";
    EXPECT_TRUE(is_taken_back(c)) << difference(c.before, everything());
    expect_nothing_left();
}

constexpr char saved_policies[] = "/etc/mordel";

string saved()
{
    std::error_code none;
    string all;
    for (const auto &file : fs::directory_iterator(saved_policies, none))
        all += file_text(file.path());
    return all;
}

TEST(Confirm, AloneSavesThePolicy)
{
    const change c = prepared();
    fs::remove_all(saved_policies);
    apply_unconfirmed(c, "600", {"--save"});
    EXPECT_EQ("", saved());
    EXPECT_EQ(0, mordel({"recover"}).status);
    EXPECT_EQ("", saved());
    apply_unconfirmed(c, "600", {"--save"});
    EXPECT_EQ(0, mordel({"confirm"}).status);
    EXPECT_EQ(file_text(c.new_file), saved());
    fs::remove_all(saved_policies);
}

// Once the journal says that the policy is kept, there is no way back, only on.
TEST(Confirm, KilledHalfwayIsGoneOnWith)
{
    const change c = prepared();
    fs::remove_all(saved_policies);
    unsigned calls = 0;  // of the system, from the first on that finds the journal so
    const auto kill_at = [&](unsigned at) {
        apply_file(c.old_file);
        fs::remove_all(saved_policies);
        apply_unconfirmed(c, "600", {"--save"});
        calls = 0;
        const auto is_now = [&](unsigned) {
            if (calls != 0 || has(file_text(journal), "committed")) ++calls;
            return calls == at;
        };
        return run_traced({"confirm"}, is_now, SIGKILL).ended;
    };
    EXPECT_EQ(0, kill_at(never).status);
    const string after = everything();
    const unsigned last = calls;
    ASSERT_LT(10U, last);
    for (const unsigned at : {1U, last / 4, last / 2, last * 3 / 4, last}) {
        SCOPED_TRACE("system call " + std::to_string(at) + " of " + std::to_string(last));
        EXPECT_EQ(128 + SIGKILL, kill_at(at).status);
        const bool halfway = fs::exists(journal);
        const result r = mordel({"recover"});
        EXPECT_EQ(0, r.status) << r.err;
        if (halfway) expect_told(r, "the end of an apply that was broken off is made up for");
        expect_as(after, r.err);
        EXPECT_EQ(file_text(c.new_file), saved());
        expect_nothing_left();
    }
    fs::remove_all(saved_policies);
}

}  // namespace
