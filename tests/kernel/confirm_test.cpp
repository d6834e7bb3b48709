// SPDX-License-Identifier: MIT
// apply --confirm against a real kernel: what nobody confirms is taken back, also when the terminal
// and the session of the apply are gone, and also when its timer is.
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

TEST(Confirm, AloneSavesThePolicy)
{
    const change c = prepared();
    fs::remove_all("/etc/mordel");
    const auto saved = [] {
        std::error_code none;
        string all;
        for (const auto &file : fs::directory_iterator("/etc/mordel", none))
            all += file_text(file.path());
        return all;
    };
    apply_unconfirmed(c, "600", {"--save"});
    EXPECT_EQ("", saved());
    EXPECT_EQ(0, mordel({"recover"}).status);
    EXPECT_EQ("", saved());
    apply_unconfirmed(c, "600", {"--save"});
    EXPECT_EQ(0, mordel({"confirm"}).status);
    EXPECT_EQ(file_text(c.new_file), saved());
    fs::remove_all("/etc/mordel");
}

}  // namespace
