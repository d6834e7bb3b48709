// SPDX-License-Identifier: MIT
// What is remembered of an interface, in a folder of the test's own.
#include "state.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

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
    EXPECT_EQ("a policy", text_of(path("q0.toml")));
    EXPECT_EQ("rules\n", text_of(path("q0.rules")));
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

// An older part beside a newer one would be believed.
TEST_F(State, ThatCannotBeWrittenIsNone)
{
    const state_folder state(root_);
    for (const char *part : {"toml", "start", "rules"}) {
        SCOPED_TRACE(part);
        ASSERT_TRUE(state.write("q0", {"a", "b", "c"}));
        const string in_the_way = path(string("q0.") + part);
        fs::remove(in_the_way);
        fs::create_directories(in_the_way + "/more");
        EXPECT_FALSE(state.write("q0", {"d", "e", "f"}));
        const memory m = state.read("q0");
        EXPECT_FALSE(m.policy || m.script || m.rules);
        EXPECT_FALSE(fs::exists(in_the_way + ".new"));
        fs::remove_all(in_the_way);
    }
    EXPECT_FALSE(state_folder(path("none")).write("q0", {"a", "b", "c"}));
}

// A reader without the lock sees the old text or the new one, never the beginning of one.
TEST_F(State, IsReplacedInOneStep)
{
    const state_folder state(root_);
    ASSERT_TRUE(state.write("q0", {"old", "b", "c"}));
    std::ifstream opened(path("q0.toml"));
    ASSERT_TRUE(state.write("q0", {"new", "b", "c"}));
    EXPECT_EQ("old", string(std::istreambuf_iterator<char>(opened), {}));
    EXPECT_EQ("new", text_of(path("q0.toml")));
}

TEST_F(State, ReadsPlainFilesAlone)
{
    const state_folder state(root_);
    put(path("elsewhere"), "secret");
    fs::create_symlink(path("elsewhere"), path("q0.toml"));
    ASSERT_EQ(0, ::mkfifo(path("q0.start").c_str(), 0600));
    fs::create_directory(path("q0.rules"));
    const memory m = state.read("q0");
    EXPECT_FALSE(m.policy || m.script || m.rules);
}

TEST_F(State, NamesTheInterfacesOfWhichAPolicyIsKnown)
{
    EXPECT_EQ(std::vector<string>{}, state_folder(path("none")).interfaces());
    const state_folder state(root_);
    for (const char *name : {"wan0", "eth0.5", "lan0"})
        ASSERT_TRUE(state.write(name, {"a", "b", "c"}));
    put(path("x.start"), "no policy");
    put(path("lock"), "");
    EXPECT_EQ((std::vector<string>{"eth0.5", "lan0", "wan0"}), state.interfaces());
}

}  // namespace
