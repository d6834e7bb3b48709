// SPDX-License-Identifier: MIT
// The running of steps, with tc, iptables and iptables-restore as scripts of the test's own, which
// keep what they are given and say what is set for them.
#include "steps.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "text.h"

namespace {

using std::string;
using tool::object;
using tool::program;
using tool::step;
using tool::step_failure;
using kind = step_failure::kind;
namespace fs = std::filesystem;

class Steps : public testing::Test {
protected:
    void SetUp() override
    {
        string path = testing::TempDir() + "mordel-steps-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(path.data()));
        folder_ = path;
        old_path_ = std::getenv("PATH");
        (void)::setenv("PATH", folder_.c_str(), 1);
    }
    ~Steps() override
    {
        (void)::setenv("PATH", old_path_.c_str(), 1);
        fs::remove_all(folder_);
    }

    // A program that keeps its words and its input, and then does this
    void install(const string &name, const string &then = "")
    {
        const string file = folder_ + "/" + name;
        std::ofstream(file) << "#!/bin/sh\nPATH=" << old_path_ << "\necho \"$@\" >>" << file
                            << ".words\ncat >>" << file << ".input\n"
                            << then << "\n";
        ASSERT_EQ(0, ::chmod(file.c_str(), 0700));
    }
    void refuse(const string &name, const string &said, int status = 1)
    {
        install(name, "printf '%s' '" + said + "' >&2; exit " + std::to_string(status));
    }
    string got(const string &name, const char *what) const
    {
        std::ifstream in(folder_ + "/" + name + "." + what);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    string folder_;
    string old_path_;
};

const std::vector<step> steps = {
    {program::tc, "qdisc del dev q0 root", {object::kind::root, 0, ""}, 0, "", true},
    {program::tc, "class add dev q0 prio 0 ", {object::kind::tree_class, 1, ""}, 6, "", false},
    {program::iptables_restore, ":QOS_q0 - [0:0]", {object::kind::chain, 0, "QOS_q0"}, 0, "", true},
    {program::iptables_restore, "-A QOS_q0 -j A ", {object::kind::rule, 0, "QOS_q0"}, 9, "", false},
    {program::iptables_restore,
     "-A QOS_q0 -j B ",
     {object::kind::rule, 0, "QOS_q0"},
     10,
     "",
     false},
    {program::ifconfig, "q0 txqueuelen 9", {object::kind::queue_length, 0, ""}, 11, "", false}};

constexpr char no_log[] = "/nowhere/at/all";

// Runs them all; how many are done is left aside.
std::optional<step_failure> run_all(const std::vector<step> &all)
{
    std::size_t done = 0;
    return tool::run_tc(
        all, [] { return true; }, done, no_log);
}

std::optional<step_failure> load(unsigned wait, const std::vector<step> &all = steps)
{
    return tool::load_rules(tool::iptables("q0", wait), all, no_log);
}

// What failed, on a line
string shown(const std::optional<step_failure> &f)
{
    if (!f) return "done";
    const char *kinds[] = {"refused", "missing", "busy", "failed", "interrupted"};
    return kinds[static_cast<int>(f->what)] + string(" ") + f->program + "|" + f->error + "|" +
           f->command + "|" + std::to_string(f->line);
}

TEST_F(Steps, OfTcAreOneBatch)
{
    install("tc");
    EXPECT_EQ("done", shown(run_all(steps)));
    EXPECT_EQ("-batch -\n", got("tc", "words"));
    EXPECT_EQ("qdisc del dev q0 root\nclass add dev q0 prio 0 \n", got("tc", "input"));
}

TEST_F(Steps, ThatAreNotThereRunNothing)
{
    const std::vector<step> none = {steps.back()};
    EXPECT_EQ("done", shown(run_all(none)));
    EXPECT_EQ("done", shown(load(1, none)));
}

TEST_F(Steps, OfTcTellWhichWasRefused)
{
    const struct {
        const char *said, *shown;
    } cases[] = {
        {"RTNETLINK answers: No\nCommand failed -:2\n",
         "refused |tc: RTNETLINK answers: No|tc class add dev q0 prio 0|6"},
        {"Error: x.\nCommand failed -:1\n", "refused |tc: Error: x.|tc qdisc del dev q0 root|0"},
        {"Command failed -:1 is not it\nno\nCommand failed -:2\n",
         "refused |tc: Command failed -:1 is not it no|tc class add dev q0 prio 0|6"},
        {"who knows\n", "refused |tc: who knows||0"},
        {"x\nCommand failed -:3\n", "refused |tc: x||0"},
        {"x\nCommand failed -:0\n", "refused |tc: x||0"},
        {"x\nCommand failed -:\n", "refused |tc: x||0"},
    };
    for (const auto &c : cases) {
        refuse("tc", c.said);
        EXPECT_EQ(c.shown, shown(run_all(steps)));
    }
}

// So many class commands, each with a line of its own
std::vector<step> classes(unsigned count)
{
    std::vector<step> all;
    for (unsigned i = 1; i <= count; ++i)
        all.push_back({program::tc,
                       "class " + std::to_string(i),
                       {object::kind::tree_class, i, ""},
                       i,
                       "",
                       false});
    return all;
}

TEST_F(Steps, OfTcRunInBatchesOf256)
{
    install("tc");
    const std::vector<step> all = classes(513);
    string input;
    for (const step &s : all) input += s.command + "\n";
    std::size_t done = 0;
    unsigned asked = 0;
    const auto go_on = [&] { return ++asked < 100; };
    EXPECT_EQ("done", shown(tool::run_tc(all, go_on, done, no_log)));
    EXPECT_EQ("-batch -\n-batch -\n-batch -\n", got("tc", "words"));
    EXPECT_EQ(input, got("tc", "input"));
    EXPECT_EQ(513U, done);
    EXPECT_EQ(3U, asked);
}

TEST_F(Steps, OfTcEndBetweenTwoBatches)
{
    install("tc");
    for (const unsigned batches : {0U, 1U, 2U}) {
        std::size_t done = 9999;
        unsigned left = batches;
        const auto go_on = [&] { return left-- > 0; };
        EXPECT_EQ("interrupted |interrupted||0",
                  shown(tool::run_tc(classes(513), go_on, done, no_log)));
        EXPECT_EQ(batches * 256, done);
    }
}

// Counted among all steps, those of other programs too
TEST_F(Steps, OfTcTellHowManyAreDone)
{
    std::vector<step> mixed = {steps[5], steps[0], steps[2], steps[1], steps[3]};
    std::size_t done = 9999;
    const auto go_on = [] { return true; };
    install("tc");
    EXPECT_EQ("done", shown(tool::run_tc(mixed, go_on, done, no_log)));
    EXPECT_EQ(4U, done);
    refuse("tc", "No.\nCommand failed -:1\n");
    (void)tool::run_tc(mixed, go_on, done, no_log);
    EXPECT_EQ(1U, done);
    refuse("tc", "No.\nCommand failed -:2\n");
    (void)tool::run_tc(mixed, go_on, done, no_log);
    EXPECT_EQ(3U, done);
    // A tc that names no line may have done all.
    install("tc", "kill -KILL $$");
    (void)tool::run_tc(mixed, go_on, done, no_log);
    EXPECT_EQ(4U, done);
    fs::remove(folder_ + "/tc");
    (void)tool::run_tc(mixed, go_on, done, no_log);
    EXPECT_EQ(0U, done);
}

TEST_F(Steps, OfTcInALaterBatchNameTheirOwnCommand)
{
    install("tc", "[ $(wc -l <" + folder_ +
                      "/tc.words) = 1 ] && exit 0\n"
                      "printf 'No.\\nCommand failed -:3\\n' >&2; exit 1");
    std::size_t done = 0;
    const auto go_on = [] { return true; };
    EXPECT_EQ("refused |tc: No.|tc class 259|259",
              shown(tool::run_tc(classes(300), go_on, done, no_log)));
    EXPECT_EQ(258U, done);
}

TEST_F(Steps, OfTcThatIsKilledOrSilent)
{
    install("tc", "kill -KILL $$");
    EXPECT_EQ("failed |tc: was killed by signal 9 (Killed)||0", shown(run_all(steps)));
    install("tc", "echo 'Command failed -:1' >&2; kill -SEGV $$");
    EXPECT_EQ("failed |tc: was killed by signal 11 (Segmentation fault); it said: Command failed "
              "-:1||0",
              shown(run_all(steps)));
    install("tc", "exit 2");
    EXPECT_EQ("failed |tc: ended with status 2 and said nothing||0", shown(run_all(steps)));
    refuse("tc", "Command failed -:2\n");
    EXPECT_EQ("refused |tc: refused|tc class add dev q0 prio 0|6", shown(run_all(steps)));
}

TEST_F(Steps, OfRulesThatAreKilledOrSilent)
{
    install("iptables-restore", "kill -KILL $$");
    EXPECT_EQ("failed |iptables-restore: was killed by signal 9 (Killed)||0", shown(load(1)));
    install("iptables-restore", "exit 1");
    EXPECT_EQ("failed |iptables-restore: ended with status 1 and said nothing||0", shown(load(1)));
}

TEST_F(Steps, NameTheModuleThatTheKernelMayLack)
{
    const step leaf = {program::tc,
                       "qdisc add dev q0 parent 1:0x2   handle 0x20: sfq perturb 10",
                       {object::kind::leaf, 2, ""},
                       9,
                       "",
                       false};
    refuse("tc", "Error: Specified qdisc kind is unknown.\nCommand failed -:1\n");
    EXPECT_EQ(
        "refused |tc: Error: Specified qdisc kind is unknown.; the kernel may lack its module "
        "sch_sfq|tc qdisc add dev q0 parent 1:0x2   handle 0x20: sfq perturb 10|9",
        shown(run_all({leaf})));
    const step rule = {program::iptables_restore,
                       "-A QOS_q0 -m dscp --dscp 0x2e -j CONNMARK",
                       {object::kind::rule, 0, "QOS_q0"},
                       10,
                       "",
                       false};
    refuse("iptables-restore", "iptables-restore: line 2 failed: No chain/target/match by that "
                               "name.\n");
    EXPECT_EQ("refused |iptables-restore: refused; the kernel may lack its module xt_dscp or "
              "xt_CONNMARK|iptables -t mangle -A QOS_q0 -m dscp --dscp 0x2e -j CONNMARK|10",
              shown(load(1, {rule})));
}

// The log is a pipe that keeps each write apart, as /dev/kmsg keeps its records.
TEST_F(Steps, PassOnWhatTheKernelSaid)
{
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_DIRECT));
    const string log = "/proc/self/fd/" + std::to_string(ends[0]);
    const string say = "printf '3,9,1,-;sch: bad limit\\n' >/proc/" + std::to_string(::getpid()) +
                       "/fd/" + std::to_string(ends[1]) + "\n";
    install("tc", say + "printf 'Invalid argument\\nCommand failed -:1\\n' >&2; exit 1");
    install("iptables-restore", say + "exit 1");
    std::size_t done = 0;
    EXPECT_EQ("refused |tc: Invalid argument; the kernel said: sch: bad limit|tc qdisc del dev q0 "
              "root|0",
              shown(tool::run_tc(
                  steps, [] { return true; }, done, log.c_str())));
    EXPECT_EQ("failed |iptables-restore: ended with status 1 and said nothing; the kernel said: "
              "sch: bad limit||0",
              shown(tool::load_rules(tool::iptables("q0", 1), steps, log.c_str())));
    (void)::close(ends[0]);
    (void)::close(ends[1]);
}

TEST_F(Steps, ForTakingBackPassOverRefusals)
{
    refuse("tc", "No.\nCommand failed -:1\n");
    tool::run_tolerant({});
    EXPECT_EQ("", got("tc", "words"));
    tool::run_tolerant({"class del dev q0 classid 1:1", "qdisc del dev q0 root"});
    EXPECT_EQ("-force -batch -\n", got("tc", "words"));
    EXPECT_EQ("class del dev q0 classid 1:1\nqdisc del dev q0 root\n", got("tc", "input"));
}

TEST_F(Steps, OfTcThatIsMissing)
{
    EXPECT_EQ("missing tc|tc is missing||0", shown(run_all(steps)));
}

TEST_F(Steps, OfRulesAreOneLoad)
{
    install("iptables-restore");
    EXPECT_EQ("done", shown(load(7)));
    EXPECT_EQ("--noflush -w 7\n", got("iptables-restore", "words"));
    EXPECT_EQ("*mangle\n:QOS_q0 - [0:0]\n-A QOS_q0 -j A \n-A QOS_q0 -j B \nCOMMIT\n",
              got("iptables-restore", "input"));
}

// To iptables a wait of 0 has no end.
TEST_F(Steps, OfRulesWaitASecondAtLeast)
{
    install("iptables-restore");
    (void)load(0);
    EXPECT_EQ("--noflush -w 1\n", got("iptables-restore", "words"));
}

TEST_F(Steps, OfRulesTellWhichWasRefused)
{
    const struct {
        const char *said, *shown;
    } cases[] = {
        {"iptables-restore: line 3 failed\n",
         "refused |iptables-restore: refused|iptables -t mangle -A QOS_q0 -j A|9"},
        {"iptables-restore v1: unknown option\nError occurred at line: 4\nTry\n",
         "refused |iptables-restore: unknown option Error occurred at line: 4 Try|iptables -t "
         "mangle -A QOS_q0 -j B|10"},
        // A line that stands in no script, or in no input: without iptables it stays unknown.
        {"iptables-restore: line 2 failed\n", "refused |iptables-restore: line 2 failed||0"},
        {"iptables-restore: line 1 failed\n", "refused |iptables-restore: line 1 failed||0"},
        {"iptables-restore: line 5 failed\n", "refused |iptables-restore: line 5 failed||0"},
        {"out of memory", "refused |iptables-restore: out of memory||0"},
        {"iptables-restore: what a line\n", "refused |iptables-restore: what a line||0"},
    };
    for (const auto &c : cases) {
        refuse("iptables-restore", c.said);
        EXPECT_EQ(c.shown, shown(load(1)));
    }
}

bool has_network_namespaces()
{
    const pid_t child = ::fork();
    if (child == 0) ::_exit(::unshare(CLONE_NEWNET) == 0 ? 0 : 1);
    int status = 1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

// The kernel refuses a load whole, at its COMMIT: then the rules are tried one by one.
TEST_F(Steps, OfRulesAreTriedOneByOneWhereTheLoadDoesNotTell)
{
    const auto tried = [&] { return shown(load(1)); };
    refuse("iptables-restore", "iptables-restore: line 5 failed\n");
    install("iptables", "case \"$*\" in *' B') exit 1 ;; esac");
    if (!has_network_namespaces()) GTEST_SKIP() << "no network namespace to try rules in";
    EXPECT_EQ("refused |iptables-restore: refused|iptables -t mangle -A QOS_q0 -j B|10", tried());
    EXPECT_EQ("-w 1 -t mangle -N QOS_q0\n-w 1 -t mangle -N QOS_q0_AUTO\n"
              "-w 1 -t mangle -A QOS_q0 -j A\n-w 1 -t mangle -A QOS_q0 -j B\n",
              got("iptables", "words"));
    // A rule for a place, which the empty chain of the trial does not have
    std::vector<step> at_a_place = steps;
    at_a_place[4].command = "-I QOS_q0 7 -j B ";
    fs::remove(folder_ + "/iptables.words");
    EXPECT_EQ("refused |iptables-restore: refused|iptables -t mangle -I QOS_q0 7 -j B|10",
              shown(load_rules(tool::iptables("q0", 1), at_a_place)));
    EXPECT_TRUE(got("iptables", "words").ends_with("-A QOS_q0 -j B\n")) << got("iptables", "words");
    install("iptables");
    EXPECT_EQ("refused |iptables-restore: line 5 failed||0", tried());
    install("iptables", "exit 1");
    EXPECT_EQ("refused |iptables-restore: line 5 failed||0", tried());
}

TEST_F(Steps, OfRulesBehindALockThatStaysHeld)
{
    refuse("iptables-restore", "iptables-restore: line 3 failed. Another app holds the lock\n", 4);
    EXPECT_EQ("busy |iptables-restore: line 3 failed. Another app holds the lock||0",
              shown(load(1)));
}

TEST_F(Steps, OfRulesWithoutTheirProgram)
{
    EXPECT_EQ("missing iptables|iptables is missing||0", shown(load(1)));
    install("iptables");
    EXPECT_EQ("missing iptables-restore|iptables-restore is missing||0", shown(load(1)));
}

TEST_F(Steps, ListingIsThatOfTheInterface)
{
    const tool::iptables tables("q0", 3);
    string why;
    EXPECT_FALSE(tables.list(why));
    EXPECT_EQ("iptables is missing", why);
    refuse("iptables", "no\nlock\n");
    EXPECT_FALSE(tables.list(why));
    EXPECT_EQ("iptables: no lock", why);
    install("iptables", "exit 3");
    EXPECT_FALSE(tables.list(why));
    EXPECT_EQ("iptables: ended with status 3 and said nothing", why);
    install("iptables", "kill -9 $$");
    EXPECT_FALSE(tables.list(why));
    EXPECT_EQ("iptables: was killed by signal 9 (Killed)", why);
    install("iptables", "printf '%s\\n' '-P OUTPUT ACCEPT' '-N QOS_q0' '-N QOS_q1'");
    (void)fs::remove(folder_ + "/iptables.words");
    EXPECT_EQ((std::vector<string>{"-N QOS_q0"}), tables.list(why));
    EXPECT_EQ("-w 3 -t mangle -S\n", got("iptables", "words"));
}

TEST_F(Steps, RemovalGoesOneByOneWhereTheLoadIsRefused)
{
    const tool::iptables tables("q0", 1);
    string why;
    EXPECT_TRUE(tables.remove({}, why));
    install("iptables");
    install("iptables-restore");
    EXPECT_TRUE(tables.remove({"-N QOS_q0"}, why));
    EXPECT_EQ("*mangle\n-F QOS_q0\n-X QOS_q0\nCOMMIT\n", got("iptables-restore", "input"));
    EXPECT_EQ("-w 1 -t mangle -S\n", got("iptables", "words"));
    refuse("iptables-restore", "no");
    (void)fs::remove(folder_ + "/iptables.words");
    EXPECT_TRUE(tables.remove({"-N QOS_q0"}, why));
    EXPECT_EQ("-w 1 -t mangle -F QOS_q0\n-w 1 -t mangle -X QOS_q0\n-w 1 -t mangle -S\n",
              got("iptables", "words"));
    install("iptables", "echo '-N QOS_q0'");
    EXPECT_FALSE(tables.remove({"-N QOS_q0"}, why));
    EXPECT_EQ("still in the mangle table: -N QOS_q0", why);
    refuse("iptables", "no");
    EXPECT_FALSE(tables.remove({"-N QOS_q0"}, why));
    EXPECT_EQ("iptables: no", why);
}

TEST_F(Steps, ProgramsAreFoundOnThePath)
{
    EXPECT_FALSE(tool::is_on_path("tc"));
    std::ofstream(folder_ + "/tc") << "";
    // There, though it cannot be run: nobody is told that it is missing.
    EXPECT_TRUE(tool::is_on_path("tc"));
    EXPECT_EQ("failed |tc: cannot be started: Permission denied||0", shown(run_all(steps)));
    install("tc");
    EXPECT_TRUE(tool::is_on_path("tc"));
    (void)::setenv("PATH", ("/nowhere:" + folder_).c_str(), 1);
    EXPECT_TRUE(tool::is_on_path("tc"));
    (void)::unsetenv("PATH");
    EXPECT_TRUE(tool::is_on_path("sh"));
}

TEST(Brief, IsOneLineOfBearableLength)
{
    EXPECT_EQ("a b", tool::brief("a\nb \n\n"));
    EXPECT_EQ("", tool::brief("\n"));
    EXPECT_EQ(string(300, 'x'), tool::brief(string(300, 'x') + "\n"));
    EXPECT_EQ(string(300, 'x') + "...", tool::brief(string(301, 'x')));
}

}  // namespace
