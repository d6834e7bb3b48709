// SPDX-License-Identifier: MIT
// Start scripts that are run, with tc and iptables as scripts of the test's own, which keep what
// they are given.
#include "script_run.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

using std::string;
namespace fs = std::filesystem;

constexpr char text[] = "#!/bin/sh\n"
                        "#By hand\n"
                        "tc qdisc del dev q0 root 2>/dev/null\n"
                        "tc qdisc add dev q0 handle 1:0 root prio \n"
                        "\n"
                        "iptables -t mangle -X QOS_q0 2>/dev/null\n"
                        "iptables -t mangle -A QOS_q0 -m domain --name \"a.example\" -j X \n"
                        "ifconfig q0 txqueuelen 9\n";

class Script : public testing::Test {
protected:
    void SetUp() override
    {
        string path = testing::TempDir() + "mordel-script-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(path.data()));
        folder_ = path;
        script_ = folder_ + "/start";
        old_path_ = std::getenv("PATH");
        (void)::setenv("PATH", folder_.c_str(), 1);
        write(text);
    }
    ~Script() override
    {
        (void)::setenv("PATH", old_path_.c_str(), 1);
        fs::remove_all(folder_);
    }

    // A program that keeps its name and words, and then does this
    void install(const string &name, const string &then = "") const
    {
        const string file = folder_ + "/" + name;
        std::ofstream(file) << "#!/bin/sh\nPATH=" << old_path_ << "\n{ printf '" << name
                            << "'; printf '|%s' \"$@\"; echo; } >>" << folder_ << "/ran\n"
                            << then << "\n";
        ASSERT_EQ(0, ::chmod(file.c_str(), 0700));
    }
    void install_all() const
    {
        for (const char *name : {"tc", "iptables", "ifconfig"}) install(name);
    }
    void write(const string &what) const { std::ofstream(script_) << what; }
    string ran() const
    {
        std::ifstream in(folder_ + "/ran");
        return {std::istreambuf_iterator<char>(in), {}};
    }
    // What came of it, on a line; so many commands are let run
    string result(unsigned commands = 100)
    {
        begun_ = false;
        fs::remove(folder_ + "/ran");
        const auto f = tool::run_start_script(
            script_, text, [&] { return commands-- > 0; }, begun_);
        if (!f) return "done";
        return f->error + "|" + f->command + "|" + std::to_string(f->line) +
               (f->interrupted ? "|interrupted" : "");
    }

    string folder_;
    string script_;
    string old_path_;
    bool begun_ = false;
};

constexpr char removal[] = "tc|qdisc|del|dev|q0|root\n";
constexpr char addition[] = "tc|qdisc|add|dev|q0|handle|1:0|root|prio\n";
constexpr char deletion[] = "iptables|-t|mangle|-X|QOS_q0\n";
constexpr char rule[] = "iptables|-t|mangle|-A|QOS_q0|-m|domain|--name|a.example|-j|X\n";
constexpr char queue[] = "ifconfig|q0|txqueuelen|9\n";

TEST_F(Script, RunsEachCommandWithoutAShell)
{
    install_all();
    EXPECT_EQ("done", result());
    EXPECT_TRUE(begun_);
    EXPECT_EQ(string(removal) + addition + deletion + rule + queue, ran());
}

TEST_F(Script, EndsAtTheFirstCommandThatFails)
{
    install_all();
    install("tc", "case $2 in add) echo 'RTNETLINK answers: No' >&2; exit 2 ;; esac");
    EXPECT_EQ("tc: RTNETLINK answers: No|tc qdisc add dev q0 handle 1:0 root prio|4", result());
    EXPECT_TRUE(begun_);
    EXPECT_EQ(string(removal) + addition, ran());
    install("tc");
    install("iptables", "case $3 in -A) kill -KILL $$ ;; esac");
    EXPECT_EQ("iptables: was killed by signal 9 (Killed)|iptables -t mangle -A QOS_q0 -m domain "
              "--name \"a.example\" -j X|7",
              result());
    EXPECT_EQ(string(removal) + addition + deletion + rule, ran());
}

// Its status is nobody's concern; a death is.
TEST_F(Script, ThatSilencesACommandLetsItFail)
{
    install_all();
    install("tc", "case $2 in del) exit 2 ;; esac");
    install("iptables", "case $3 in -X) exit 1 ;; esac");
    EXPECT_EQ("done", result());
    install("tc", "kill -TERM $$");
    EXPECT_EQ("tc: was killed by signal 15 (Terminated)|tc qdisc del dev q0 root 2>/dev/null|3",
              result());
}

TEST_F(Script, WithoutAProgramSaysWhich)
{
    EXPECT_EQ("tc is missing|tc qdisc del dev q0 root 2>/dev/null|3", result());
    EXPECT_FALSE(begun_);
    install_all();
    fs::remove(folder_ + "/ifconfig");
    EXPECT_EQ("ifconfig is missing|ifconfig q0 txqueuelen 9|8", result());
    EXPECT_TRUE(begun_);
}

TEST_F(Script, IsAskedBeforeEachCommandWhetherToGoOn)
{
    install_all();
    EXPECT_EQ("interrupted||0|interrupted", result(0));
    EXPECT_FALSE(begun_);
    EXPECT_EQ("", ran());
    EXPECT_EQ("interrupted||0|interrupted", result(2));
    EXPECT_TRUE(begun_);
    EXPECT_EQ(string(removal) + addition, ran());
}

// A disk that ends at any byte of the script
TEST_F(Script, CutAtAnyByteIsNotRun)
{
    install_all();
    const string whole = text;
    for (std::size_t size = 0; size < whole.size(); ++size) {
        write(whole.substr(0, size));
        EXPECT_EQ(script_ + " holds " + std::to_string(size) + " bytes of " +
                      std::to_string(whole.size()) + "; nothing of it was run||0",
                  result());
        EXPECT_FALSE(begun_);
        EXPECT_EQ("", ran());
    }
}

TEST_F(Script, OfOtherBytesIsNotRun)
{
    install_all();
    const string whole = text;
    for (std::size_t at = 0; at < whole.size(); ++at) {
        string other = whole;
        other[at] = static_cast<char>(other[at] ^ 1);
        write(other);
        EXPECT_EQ(script_ + " is not the script that was written there; nothing of it was run||0",
                  result());
    }
    write(whole + "\n");
    EXPECT_NE("done", result());
    EXPECT_EQ("", ran());
}

TEST_F(Script, InAnotherThingsPlaceIsNotRun)
{
    install_all();
    fs::remove(script_);
    EXPECT_EQ("cannot read " + script_ + ": No such file or directory; nothing of it was run||0",
              result());
    ASSERT_EQ(0, ::mkfifo(script_.c_str(), 0600));
    EXPECT_EQ(script_ + " is no regular file; nothing of it was run||0", result());
    fs::remove(script_);
    std::ofstream(folder_ + "/other") << text;
    fs::create_symlink(folder_ + "/other", script_);
    EXPECT_EQ("cannot read " + script_ +
                  ": Too many levels of symbolic links; nothing of it was run||0",
              result());
    EXPECT_EQ("", ran());
}

}  // namespace
