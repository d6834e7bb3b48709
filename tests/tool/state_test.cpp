// SPDX-License-Identifier: MIT
// What is remembered of an interface, in a folder of the test's own.
#include "state.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "own_file.h"

namespace {

using std::string;
using tool::memory;
using tool::state_folder;
namespace fs = std::filesystem;

class State : public testing::Test {
protected:
    void SetUp() override
    {
        string path = testing::TempDir() + "mordel-state-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(path.data()));
        root_ = path;
    }
    ~State() override { fs::remove_all(root_); }

    string path(const string &name) const { return root_ + "/" + name; }
    static void put(const string &file, const string &text) { std::ofstream(file) << text; }
    static string text_of(const string &file)
    {
        std::ifstream in(file);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    string root_;
};

TEST_F(State, FolderIsMadeOnceAndIsOurs)
{
    const state_folder state(path("run"));
    EXPECT_EQ(path("run"), state.path());
    EXPECT_EQ("", state.make());
    struct stat st {};
    ASSERT_EQ(0, ::stat(path("run").c_str(), &st));
    EXPECT_EQ(0U, st.st_mode & 0022U) << "others may write to it";
    EXPECT_EQ("", state.make());
}

TEST_F(State, FolderOfAnotherKindIsRefused)
{
    put(path("file"), "");
    EXPECT_EQ(path("file") + " is no folder of ours", state_folder(path("file")).make());
    fs::create_directory_symlink(root_, path("link"));
    EXPECT_EQ(path("link") + " is no folder of ours", state_folder(path("link")).make());
    EXPECT_EQ("cannot make " + path("none/run") + ": No such file or directory",
              state_folder(path("none/run")).make());
    if (::geteuid() == 0) {
        fs::create_directory(path("theirs"));
        if (::chown(path("theirs").c_str(), 1, 1) == 0) {
            EXPECT_EQ(path("theirs") + " is no folder of ours",
                      state_folder(path("theirs")).make());
        }
    }
}

// Whoever may write to the folder chooses the files that root reads and replaces.
TEST_F(State, FolderThatOthersMayWriteToIsRefused)
{
    const state_folder state(path("run"));
    ASSERT_EQ("", state.make());
    for (const mode_t mode : {0775U, 0757U, 0777U, 01777U}) {
        ASSERT_EQ(0, ::chmod(path("run").c_str(), mode));
        EXPECT_EQ(path("run") + " may be written to by others", state.make()) << std::oct << mode;
    }
    ASSERT_EQ(0, ::chmod(path("run").c_str(), 0700));
    EXPECT_EQ("", state.make());
}

TEST_F(State, IsReadAsItWasWritten)
{
    const state_folder state(root_);
    const memory none = state.read("q0");
    EXPECT_FALSE(none.policy || none.script || none.rules);
    ASSERT_TRUE(state.write("q0", {"a policy", string("a\0script\n", 9), "rules\n"}));
    memory m = state.read("q0");
    EXPECT_EQ("a policy", m.policy);
    EXPECT_EQ(string("a\0script\n", 9), m.script);
    EXPECT_EQ("rules\n", m.rules);
    EXPECT_FALSE(state.read("q").script || state.read("q01").script);
    ASSERT_TRUE(state.write("q0", {"another", "script", std::nullopt}));
    m = state.read("q0");
    EXPECT_EQ("another", m.policy);
    EXPECT_EQ("script", m.script);
    EXPECT_FALSE(m.rules) << "those of the older script would be believed";
}

TEST_F(State, IsForgotten)
{
    const state_folder state(root_);
    ASSERT_TRUE(state.write("q0", {"a", "b", "c"}));
    ASSERT_TRUE(state.write("q1", {"a", "b", "c"}));
    state.forget("q0");
    const memory m = state.read("q0");
    EXPECT_FALSE(m.policy || m.script || m.rules);
    EXPECT_EQ("c", state.read("q1").rules);
    state.forget("q0");
}

// An older memory beside a newer policy in the kernel would be believed.
TEST_F(State, ThatCannotBeWrittenIsNone)
{
    const state_folder state(root_);
    for (const char *file : {"q0.applied", "q0.applied.new"}) {
        SCOPED_TRACE(file);
        ASSERT_TRUE(state.write("q0", {"a", "b", "c"}));
        fs::remove(path(file));
        fs::create_directories(path(file) + "/more");
        EXPECT_FALSE(state.stage("q0", {"d", "e", "f"}));
        EXPECT_FALSE(state.write("q0", {"d", "e", "f"}));
        EXPECT_EQ(memory{}, state.read("q0"));
        EXPECT_EQ(memory{}, state.read_staged("q0"));
        fs::remove_all(path(file));
        EXPECT_TRUE(fs::is_empty(root_));
    }
    EXPECT_FALSE(state_folder(path("none")).write("q0", {"a", "b", "c"}));
}

// A reader without the lock sees the old text or the new one, never the beginning of one.
TEST_F(State, IsReplacedInOneStep)
{
    const state_folder state(root_);
    ASSERT_TRUE(state.write("q0", {"old", "b", "c"}));
    const string old = text_of(path("q0.applied"));
    std::ifstream opened(path("q0.applied"));
    ASSERT_TRUE(state.write("q0", {"new", "b", "c"}));
    EXPECT_EQ(old, string(std::istreambuf_iterator<char>(opened), {}));
    EXPECT_EQ("new", state.read("q0").policy);
}

TEST_F(State, ReadsPlainFilesOfOursAlone)
{
    const state_folder state(root_);
    ASSERT_TRUE(state.write("good", {"a", "b", "c"}));
    const string good = path("good.applied");
    const string file = path("q0.applied");
    (void)::alarm(20);  // ends the program where a pipe is waited for
    fs::copy_file(good, file);
    EXPECT_EQ("a", state.read("q0").policy);
    ASSERT_EQ(0, ::chmod(file.c_str(), 0664));
    EXPECT_EQ(memory{}, state.read("q0")) << "one that a group may write to";
    fs::remove(file);
    fs::create_symlink(good, file);
    EXPECT_EQ(memory{}, state.read("q0")) << "a link";
    fs::remove(file);
    fs::create_hard_link(good, file);
    EXPECT_EQ(memory{}, state.read("q0")) << "a second name";
    fs::remove(file);
    ASSERT_EQ(0, ::mkfifo(file.c_str(), 0600));
    EXPECT_EQ(memory{}, state.read("q0")) << "a pipe";
    fs::remove(file);
    fs::create_directory(file);
    EXPECT_EQ(memory{}, state.read("q0")) << "a folder";
    (void)::alarm(0);
    if (::geteuid() != 0) return;
    fs::remove(file);
    fs::copy_file(good, file);
    if (::chown(file.c_str(), 1, 1) == 0) {
        EXPECT_EQ(memory{}, state.read("q0")) << "another user's";
    }
}

// The file's text, written by hand. Its last line is the FNV-1a sum of what is above it.
TEST_F(State, IsAFileThatAPersonCanRead)
{
    const state_folder state(root_);
    ASSERT_TRUE(state.write("q0", {"a policy\n", string("a\0b", 3), std::nullopt, "/etc/p.toml"}));
    const string text = string("mordel 1\n"
                               "from 11\n/etc/p.toml\n"
                               "policy 9\na policy\n\n"
                               "script 3\na\0b\n",
                               61) +
                        "sum cffaa8977838f104\n";
    EXPECT_EQ(text, text_of(path("q0.applied")));
}

// A umask of 0, which daemons set, must not make a file that others may write to.
TEST_F(State, IsNeverForOthersToWrite)
{
    const mode_t mask = ::umask(0);
    const state_folder state(path("run"));
    EXPECT_EQ("", state.make());
    EXPECT_TRUE(state.write("q0", {"a", "b", "c"}));
    (void)::umask(mask);
    for (const char *name : {"run", "run/q0.applied"}) {
        struct stat st {};
        ASSERT_EQ(0, ::stat(path(name).c_str(), &st));
        EXPECT_EQ(0U, st.st_mode & 0022U) << name;
    }
}

TEST_F(State, OfAFileThatIsCutShortOrChangedIsNone)
{
    const state_folder state(root_);
    const memory whole{"a policy\n", "script", "rules 3\nabc\n", "/etc/p.toml"};
    ASSERT_TRUE(state.write("q0", whole));
    const string text = text_of(path("q0.applied"));
    for (std::size_t size = 0; size < text.size(); ++size) {
        put(path("q0.applied"), text.substr(0, size));
        EXPECT_EQ(memory{}, state.read("q0")) << "cut to " << size;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        string other = text;
        other[i] = static_cast<char>(other[i] ^ 0x20);
        put(path("q0.applied"), other);
        EXPECT_EQ(memory{}, state.read("q0")) << "byte " << i;
    }
    put(path("q0.applied"), text);
    EXPECT_EQ(whole, state.read("q0"));
}

// A file whose sum is right may still be of another version, or of another program's making.
TEST_F(State, OfAnotherFormIsNone)
{
    const state_folder state(root_);
    const auto policy_of = [&](const string &text) {
        put(path("q0.applied"), tool::sealed(text));
        return state.read("q0").policy;
    };
    ASSERT_EQ("a", policy_of("mordel 1\npolicy 1\na\n"));
    for (const char *text :
         {"", "mordel 2\npolicy 1\na\n", "mordel 1\npolicy 2\na\n", "mordel 1\npolicy 0\na\n",
          "mordel 1\npolicy 1\na", "mordel 1\npolicy 1 \na\n", "mordel 1\npolicy -1\na\n",
          "mordel 1\npolicy 18446744073709551615\na\n",
          "mordel 1\npolicy 18446744073709551616\na\n", "mordel 1\npolicy \na\n",
          "mordel 1\npolicy 1\na\npolicy 1\nb\n", "mordel 1\npolicy 1\na\nmore 1\nb\n",
          "mordel 1\nrules 1\nb\npolicy 1\na\n"})
        EXPECT_EQ(std::nullopt, policy_of(text)) << text;
}

// ---- In two halves ------------------------------------------------------------------------------

TEST_F(State, IsStagedAndTaken)
{
    const state_folder state(root_);
    const memory older{"old", "o", "rules"};
    const memory newer{"new", "n", std::nullopt};
    ASSERT_TRUE(state.write("q0", older));
    ASSERT_TRUE(state.stage("q0", newer));
    EXPECT_EQ(older, state.read("q0"));
    EXPECT_EQ(newer, state.read_staged("q0"));
    EXPECT_EQ(std::vector<string>{"q0"}, state.interfaces());
    for (int again = 0; again < 2; ++again) {
        EXPECT_TRUE(state.take_staged("q0"));
        EXPECT_EQ(newer, state.read("q0"));
        EXPECT_EQ(memory{}, state.read_staged("q0"));
    }
    ASSERT_TRUE(state.stage("q0", older));
    state.drop_staged("q0");
    EXPECT_EQ(newer, state.read("q0"));
    EXPECT_EQ(memory{}, state.read_staged("q0"));
    EXPECT_FALSE(state_folder(path("none")).stage("q0", newer));
}

// So is an interface forgotten together with what else a transaction does.
TEST_F(State, WithoutPartsForgetsWhenItIsTaken)
{
    const state_folder state(root_);
    const memory older{"old", "o", "rules"};
    ASSERT_TRUE(state.write("q0", older));
    ASSERT_TRUE(state.stage("q0", {}));
    EXPECT_EQ(older, state.read("q0"));
    EXPECT_TRUE(state.take_staged("q0"));
    EXPECT_EQ(memory{}, state.read("q0"));
    EXPECT_TRUE(fs::is_empty(root_));
    EXPECT_TRUE(state.take_staged("q0"));
}

// A name is never a way out of the folder.
TEST_F(State, OfANameThatNoPolicyCanHaveIsNone)
{
    fs::create_directory(path("run"));
    const state_folder state(path("run"));
    ASSERT_TRUE(state_folder(root_).write("q0", {"a", "b", "c"}));
    EXPECT_EQ(memory{}, state.read("../q0"));
    EXPECT_EQ(memory{}, state.read_staged("../q0"));
    state.forget("../q0");
    state.drop_staged("../q0");
    EXPECT_FALSE(state.write("../q1", {"a", "b", "c"}));
    EXPECT_FALSE(state.stage("../q1", {"a", "b", "c"}));
    EXPECT_FALSE(state.take_staged("../q0"));
    EXPECT_EQ("a", state_folder(root_).read("q0").policy);
    EXPECT_FALSE(fs::exists(path("q1.applied")) || fs::exists(path("q1.applied.new")));
}

// ---- Others' files ------------------------------------------------------------------------------

// The names under which a file is written are looked at too: a planted pipe there held the writer
// up for good, and what a planted link points to was overwritten.
TEST_F(State, WritesThroughNothingThatWasPlanted)
{
    const state_folder state(root_);
    put(path("elsewhere"), "untouched");
    (void)::alarm(20);  // ends the program where a pipe is waited for
    for (const char *name : {"q0.applied", "q0.applied.new"}) {
        SCOPED_TRACE(name);
        fs::create_symlink(path("elsewhere"), path(name));
        (void)state.write("q0", {"a", "b", "c"});
        EXPECT_EQ("untouched", text_of(path("elsewhere")));
        state.forget("q0");
        fs::remove(path(name));
        ASSERT_EQ(0, ::mkfifo(path(name).c_str(), 0600));
        (void)state.write("q0", {"a", "b", "c"});
        state.forget("q0");
        fs::remove(path(name));
    }
    (void)::alarm(0);
}

TEST_F(State, NamesNoInterfaceThatAPolicyCannotHave)
{
    const state_folder state(root_);
    ASSERT_TRUE(state.write("q0", {"a", "b", "c"}));
    for (const char *name : {"\033[2J", "a b", "-q"})
        fs::copy_file(path("q0.applied"), path(string(name) + ".applied"));
    EXPECT_EQ(std::vector<string>{"q0"}, state.interfaces());
}

TEST_F(State, NamesTheInterfacesOfWhichAPolicyIsKnown)
{
    EXPECT_EQ(std::vector<string>{}, state_folder(path("none")).interfaces());
    const state_folder state(root_);
    for (const char *name : {"wan0", "eth0.5", "lan0"})
        ASSERT_TRUE(state.write(name, {"a", "b", "c"}));
    put(path("x.start"), "no policy");
    ASSERT_TRUE(state.stage("eth1", {"a", "b", "c"}));
    put(path("lock"), "");
    EXPECT_EQ((std::vector<string>{"eth0.5", "lan0", "wan0"}), state.interfaces());
}

}  // namespace
