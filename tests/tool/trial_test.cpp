// SPDX-License-Identifier: MIT
// Trials of steps: what tc and iptables-restore are given, by scripts of the test's own in their
// place, and what a kernel says, where it gives a network namespace.
#include "trial.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "process.h"

namespace {

using std::string;
using tool::command;
using tool::image;
using tool::object;
using tool::program;
using tool::step;
using tool::step_failure;
using kind = object::kind;
namespace fs = std::filesystem;

// Whether there is a network namespace, whose interface can be given a name: qemu-user passes on no
// such request.
bool can_try()
{
    const pid_t child = ::fork();
    if (child == 0) {
        ifreq request{};
        (void)string("lo").copy(request.ifr_name, IFNAMSIZ - 1);
        (void)string("q0").copy(request.ifr_newname, IFNAMSIZ - 1);
        ::_exit(::unshare(CLONE_NEWNET) == 0 &&
                        ::ioctl(::socket(AF_INET, SOCK_DGRAM, 0), SIOCSIFNAME, &request) == 0
                    ? 0
                    : 1);
    }
    int status = 1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

string shown(const std::optional<step_failure> &f)
{
    if (!f) return "passed";
    const bool busy = f->what == step_failure::kind::busy;
    return (busy ? "busy|" : "refused|") + f->error + "|" + f->command + "|" +
           std::to_string(f->line);
}

class Trial : public testing::Test {
protected:
    void SetUp() override
    {
        if (!can_try()) GTEST_SKIP() << "no network namespace to try steps in";
        string path = testing::TempDir() + "mordel-trial-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(path.data()));
        folder_ = path;
        old_path_ = std::getenv("PATH");
    }
    ~Trial() override
    {
        if (folder_.empty()) return;
        (void)::setenv("PATH", old_path_.c_str(), 1);
        fs::remove_all(folder_);
    }

    // From here on this program stands alone on the PATH. It keeps its words and its input, and
    // then does this; $n counts its runs.
    void install(const string &name, const string &then = "")
    {
        const string file = folder_ + "/" + name;
        std::ofstream(file) << "#!/bin/sh\nPATH=" << old_path_ << "\n{ echo \"$@\"; cat; } >>"
                            << file << ".got\nn=$(($(cat " << file << ".runs 2>&-) + 1))\necho $n >"
                            << file << ".runs\n"
                            << then << "\n";
        ASSERT_EQ(0, ::chmod(file.c_str(), 0700));
        (void)::setenv("PATH", folder_.c_str(), 1);
    }
    string got(const string &name) const
    {
        std::ifstream in(folder_ + "/" + name + ".got");
        return {std::istreambuf_iterator<char>(in), {}};
    }

    string folder_;
    string old_path_;
};

// ---- tc -----------------------------------------------------------------------------------------

// 1:1 > 1:2 > {1:10, 1:11}; 1:1 > 1:12; leaves and filters of 1:10 to 1:12
image tree()
{
    const auto add_class = [](u32 handle, const char *numbers, const char *rest) {
        return command{string("class add dev q0 parent 1:") + numbers + " htb rate " + rest,
                       {kind::tree_class, handle, ""},
                       0,
                       false};
    };
    image i;
    i.tree = {{"qdisc add dev q0 handle 1:0 root htb default 10", {kind::root, 0, ""}, 0, false},
              add_class(1, "0x0 classid 1:0x1", "8000000bit burst 1600b"),
              add_class(2, "0x1 classid 1:0x2", "4000000bit burst 1600b"),
              add_class(0x10, "0x2 classid 1:0x10", "2000000bit burst 1600b"),
              add_class(0x11, "0x2 classid 1:0x11", "1000000bit burst 1600b"),
              add_class(0x12, "0x1 classid 1:0x12", "1000000bit burst 1600b")};
    for (const char *one : {"10", "11", "12"})
        i.tree.push_back({string("qdisc add dev q0 parent 1:0x") + one + " handle 0x" + one +
                              "0: pfifo limit 50",
                          {kind::leaf, static_cast<u32>(std::strtoul(one, nullptr, 16)), ""},
                          0,
                          false});
    for (const char *one : {"10", "11", "12"})
        i.tree.push_back({string("filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x") +
                              one + " fw classid 1:0x" + one,
                          {kind::filter, static_cast<u32>(std::strtoul(one, nullptr, 16)), ""},
                          0,
                          false});
    return i;
}

step tc(const string &text, kind what, u32 number, unsigned line)
{
    step s;
    s.command = text;
    s.what = {what, number, ""};
    s.line = line;
    return s;
}

const step change_11 = tc("class change dev q0 parent 1:0x2 classid 1:0x11 htb rate 500kbit ",
                          kind::tree_class, 0x11, 7);
const step add_13 =
    tc("class add dev q0 parent 1:0x1 classid 1:0x13 htb rate 500kbit ", kind::tree_class, 0x13, 9);
const step wrong_leaf =
    tc("qdisc add dev q0 parent 1:0x13 handle 0x130: sfq limit 0x ", kind::leaf, 0x13, 10);
const step del_root = tc("qdisc del dev q0 root", kind::root, 0, 0);
const step add_root = tc("qdisc add dev q0 handle 1:0 root htb default 0x10", kind::root, 0, 5);

TEST_F(Trial, IsMadeOnThePartOfTheTreeThatTheStepsNeed)
{
    install("tc");
    EXPECT_EQ("passed", shown(try_tc("q0", tree(), {change_11, add_13})));
    EXPECT_EQ("-batch -\n"
              "qdisc add dev q0 handle 1:0 root htb default 10\n"
              "class add dev q0 parent 1:0x0 classid 1:0x1 htb rate 8000000bit burst 1600b\n"
              "class add dev q0 parent 1:0x1 classid 1:0x2 htb rate 4000000bit burst 1600b\n"
              "class add dev q0 parent 1:0x2 classid 1:0x11 htb rate 1000000bit burst 1600b\n"
              "qdisc add dev q0 parent 1:0x11 handle 0x110: pfifo limit 50\n"
              "filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x11 fw classid 1:0x11\n"
              "-batch -\n" +
                  change_11.command + "\n" + add_13.command + "\n",
              got("tc"));
}

// A command that deletes a class names none of those above.
TEST_F(Trial, HasTheClassesAboveThatOfAStep)
{
    install("tc");
    EXPECT_EQ("passed",
              shown(try_tc(
                  "q0", tree(),
                  {tc("filter del dev q0 parent 1:0 prio 50 handle 0x10 fw", kind::filter, 0x10, 0),
                   tc("class del dev q0 classid 1:0x10", kind::tree_class, 0x10, 0)})));
    EXPECT_NE(string::npos, got("tc").find("classid 1:0x1 htb")) << got("tc");
    EXPECT_NE(string::npos, got("tc").find("classid 1:0x2 htb")) << got("tc");
    EXPECT_EQ(string::npos, got("tc").find("1:0x11")) << got("tc");
}

// With its own MTU of 64 KiB the loopback would have the kernel warn of bursts.
TEST_F(Trial, HasTheInterfacesMtu)
{
    if (std::system("ip -V >/dev/null 2>&1") != 0) GTEST_SKIP() << "no ip to ask";
    install("tc", "ip -o link show q0 >>" + folder_ + "/seen");
    const auto tried = tool::in_own_network([&]() -> std::optional<string> {
        const string make = "PATH=" + old_path_ + "; ip link set lo mtu 1400 name q0";
        return std::system(make.c_str()) != 0 ? "no interface"
                                              : shown(try_tc("q0", tree(), {change_11}));
    });
    EXPECT_EQ("passed", tried);
    std::ifstream in(folder_ + "/seen");
    string seen;
    std::getline(in, seen);
    EXPECT_NE(string::npos, seen.find("mtu 1400")) << seen;
}

// A leaf that hangs on another class than its handle says: its command names that class alone.
TEST_F(Trial, HasTheClassesThatCommandsNameBesidesTheirObject)
{
    install("tc");
    EXPECT_EQ("passed", shown(try_tc("q0", tree(),
                                     {tc("qdisc del dev q0 parent 1:0x12", kind::leaf, 2, 0)})));
    EXPECT_NE(string::npos, got("tc").find("qdisc add dev q0 parent 1:0x12 handle 0x120:"));
    EXPECT_NE(string::npos, got("tc").find("classid 1:0x12 htb"));
    EXPECT_NE(string::npos, got("tc").find("classid 1:0x2 htb"));
    EXPECT_EQ(string::npos, got("tc").find("classid 1:0x10"));
}

TEST_F(Trial, OfAnInterfaceNamedLikeAWordOfTc)
{
    install("tc");
    const step add =
        tc("class add dev parent parent 1:0x2 classid 1:0x13 htb", kind::tree_class, 0x13, 7);
    EXPECT_EQ("passed", shown(try_tc("parent", tree(), {add})));
    EXPECT_NE(string::npos, got("tc").find("classid 1:0x2 htb")) << got("tc");
}

TEST_F(Trial, TellsTheStepThatWasRefused)
{
    install("tc",
            "[ $n = 2 ] || exit 0\nprintf 'Error: no such thing.\\nCommand failed -:2\\n' >&2\n"
            "exit 1");
    EXPECT_EQ("refused|tc: Error: no such thing.|tc " +
                  add_13.command.substr(0, add_13.command.size() - 1) + "|9",
              shown(try_tc("q0", tree(), {change_11, add_13})));
}

TEST_F(Trial, WhosePartOfTheTreeIsRefusedSaysNothing)
{
    install("tc", "printf 'Error: no.\\nCommand failed -:1\\n' >&2; exit 1");
    EXPECT_EQ("passed", shown(try_tc("q0", tree(), {change_11})));
    EXPECT_EQ(string::npos, got("tc").find("change"));
}

TEST_F(Trial, WithoutTcSaysNothing)
{
    (void)::setenv("PATH", folder_.c_str(), 1);
    EXPECT_EQ("passed", shown(try_tc("q0", image(), {del_root, change_11})));
}

TEST_F(Trial, OfATreeBuiltAnewIsOfAllBehindTheRemoval)
{
    install("tc");
    EXPECT_EQ("passed", shown(try_tc("q0", tree(), {del_root, add_root, add_13})));
    EXPECT_EQ("-batch -\n" + add_root.command + "\n" + add_13.command + "\n", got("tc"));
}

// Nothing is lost by a step that is refused there; and the tree of a foreign qdisc is not known.
TEST_F(Trial, IsNotMadeWhereNothingCanBeLostOrNotAllIsKnown)
{
    install("tc");
    image foreign = tree();
    foreign.unwritable = "filter of prio 7";
    EXPECT_EQ("passed", shown(try_tc("q0", image(), {add_root, add_13})));
    EXPECT_EQ("passed", shown(try_tc("q0", foreign, {change_11})));
    EXPECT_EQ("passed", shown(try_tc("q0", tree(), {})));
    EXPECT_EQ("passed", shown(try_tc("q0", tree(), {del_root})));
    EXPECT_EQ("", got("tc"));
    EXPECT_EQ("passed", shown(try_tc("q0", foreign, {del_root, add_root})));
    EXPECT_NE("", got("tc"));
}

// The real tc: the kernel takes the part of the tree and the steps, or tells its own refusal.
TEST_F(Trial, IsAKernels)
{
    const string made = "unshare -n tc qdisc add dev lo root handle 1: htb default 10 2>/dev/null";
    if (std::system(made.c_str()) != 0) GTEST_SKIP() << "no HTB in this kernel, or no tc";
    // Not every kernel with HTB has the classifier.
    image before = tree();
    std::erase_if(before.tree, [](const command &c) { return c.what.what == kind::filter; });
    const step twice = tc("class add dev q0 parent 1:0x2 classid 1:0x10 htb rate 1mbit ",
                          kind::tree_class, 0x10, 4);
    EXPECT_EQ("passed", shown(try_tc("q0", before, {change_11, add_13})));
    const step on_loopback =
        tc("class add dev lo parent 1:0 classid 1:1 htb rate 1mbit", kind::tree_class, 1, 8);
    EXPECT_EQ(8U, try_tc("lo", before, {del_root, on_loopback}).value_or(step_failure()).line);
    const auto failure = try_tc("q0", before, {change_11, twice});
    ASSERT_TRUE(failure);
    EXPECT_EQ("tc class add dev q0 parent 1:0x2 classid 1:0x10 htb rate 1mbit", failure->command);
    EXPECT_EQ(4U, failure->line);
    EXPECT_TRUE(failure->error.starts_with("tc: ")) << failure->error;
    EXPECT_EQ(10U, try_tc("q0", before, {add_13, wrong_leaf}).value_or(step_failure()).line);
    const step root_twice = tc(add_root.command, kind::tree_class, 0, 6);
    EXPECT_EQ(6U,
              try_tc("q0", before, {del_root, add_root, root_twice}).value_or(step_failure()).line);
    EXPECT_NE(0, std::system("ip link show q0 >/dev/null 2>&1")) << "it left its interface behind";
}

// ---- Rules --------------------------------------------------------------------------------------

const std::vector<step> rules = {
    {program::iptables_restore, "-N QOS_q0", {kind::chain, 0, "QOS_q0"}, 0, "", false},
    {program::iptables_restore, "-A QOS_q0 -j B ", {kind::rule, 0, "QOS_q0"}, 10, "", false}};

TEST_F(Trial, OfRulesIsTheLoadThatOnlyTests)
{
    install("iptables-restore");
    const tool::iptables tables("q0", 7);
    EXPECT_EQ("passed", shown(try_rules(tables, rules)));
    EXPECT_EQ("--noflush -w 7 --test\n*mangle\n-N QOS_q0\n-A QOS_q0 -j B \nCOMMIT\n",
              got("iptables-restore"));
    EXPECT_EQ("passed", shown(try_rules(tables, {})));
    // The load behind it is one.
    fs::remove(folder_ + "/iptables-restore.got");
    EXPECT_FALSE(load_rules(tables, rules));
    EXPECT_TRUE(got("iptables-restore").starts_with("--noflush -w 7\n"));
}

TEST_F(Trial, OfRulesTellsTheOneThatWasRefused)
{
    install("iptables-restore", "echo 'iptables-restore: line 3 failed' >&2; exit 1");
    EXPECT_EQ("refused|iptables-restore: refused|iptables -t mangle -A QOS_q0 -j B|10",
              shown(try_rules(tool::iptables("q0", 1), rules)));
    install("iptables-restore", "echo 'Another app is holding the lock.' >&2; exit 4");
    EXPECT_TRUE(shown(try_rules(tool::iptables("q0", 1), rules)).starts_with("busy|"));
}

// apply has the script for a router without the program.
TEST_F(Trial, OfRulesWithoutTheProgramSaysNothing)
{
    (void)::setenv("PATH", folder_.c_str(), 1);
    EXPECT_EQ("passed", shown(try_rules(tool::iptables("q0", 1), rules)));
}

}  // namespace
