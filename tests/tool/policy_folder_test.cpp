// SPDX-License-Identifier: MIT
// The folder of saved policies, and the reading of policy files. Each test has a folder of its own.
#include "policy_folder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using std::string;
using tool::policy_folder;
namespace fs = std::filesystem;

class PolicyFolder : public ::testing::Test {
protected:
    PolicyFolder()
    {
        string name = fs::temp_directory_path() / "mordel-policies-XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) std::abort();
        root_ = name;
        path_ = root_ + "/mordel";
    }
    PolicyFolder(const PolicyFolder &) = delete;
    PolicyFolder &operator=(const PolicyFolder &) = delete;
    ~PolicyFolder() override { fs::remove_all(root_); }

    string contents(const string &name) const
    {
        std::ifstream in(path_ + "/" + name, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    void put(const string &name, const string &text) const
    {
        fs::create_directories(path_);
        std::ofstream(path_ + "/" + name) << text;
    }
    std::vector<string> names() const
    {
        std::vector<string> all;
        for (const auto &entry : fs::directory_iterator(path_))
            all.push_back(entry.path().filename());
        return all;
    }

    string root_;
    string path_;
};

TEST_F(PolicyFolder, SavesAndLists)
{
    const policy_folder folder(path_);
    string why;
    EXPECT_TRUE(folder.files(why).empty());  // there is no folder yet
    EXPECT_EQ(why, "");
    EXPECT_EQ(folder.save("wan.toml", "one\n"), "");
    EXPECT_EQ(folder.save("br-lan.10.toml", string("t\0wo", 4)), "");
    EXPECT_EQ(folder.save("wan.toml", "three"), "");
    EXPECT_EQ(contents("wan.toml"), "three");
    EXPECT_EQ(contents("br-lan.10.toml"), string("t\0wo", 4));
    put("notes", "");
    put(".hidden.toml", "");
    put("old.toml.new", "");
    EXPECT_EQ(folder.files(why),
              (std::vector<string>{path_ + "/br-lan.10.toml", path_ + "/wan.toml"}));
    EXPECT_EQ(why, "");
    struct stat st {};
    ASSERT_EQ(::stat(path_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07022, 0U);
}

TEST_F(PolicyFolder, NamesAreOfPoliciesAlone)
{
    for (const char *name : {"", ".toml", "a", "a.txt", "../a.toml", "a/b.toml", "a b.toml",
                             ".a.toml", "a\n.toml", "a.toml.new"}) {
        const string error = policy_folder(path_).save(name, "x");
        EXPECT_NE(error.find("is no name for a saved policy"), string::npos) << name << error;
    }
    EXPECT_FALSE(fs::exists(path_));
}

TEST_F(PolicyFolder, AFolderThatOthersMayWriteToIsRefused)
{
    put("wan.toml", "mine");
    for (const mode_t mode : {0775U, 0757U}) {
        ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
        string why;
        EXPECT_TRUE(policy_folder(path_).files(why).empty());
        EXPECT_EQ(why, path_ + " may be written to by others");
        EXPECT_EQ(policy_folder(path_).save("wan.toml", "other"), why);
    }
    EXPECT_EQ(contents("wan.toml"), "mine");
}

TEST_F(PolicyFolder, AFolderOfAnotherUserIsRefused)
{
    if (::geteuid() != 0) GTEST_SKIP() << "takes root";
    put("wan.toml", "theirs");
    ASSERT_EQ(::chown(path_.c_str(), 12345, 12345), 0);
    string why;
    EXPECT_TRUE(policy_folder(path_).files(why).empty());
    EXPECT_EQ(why, path_ + " is no folder of ours");
    EXPECT_EQ(policy_folder(path_).save("wan.toml", "mine"), why);
    EXPECT_EQ(contents("wan.toml"), "theirs");
}

TEST_F(PolicyFolder, ALinkOrFileInTheFoldersPlaceIsRefused)
{
    fs::create_directory(root_ + "/elsewhere");
    fs::create_directory_symlink(root_ + "/elsewhere", path_);
    string why;
    EXPECT_TRUE(policy_folder(path_).files(why).empty());
    EXPECT_EQ(why, path_ + " is no folder of ours");
    EXPECT_EQ(policy_folder(path_).save("wan.toml", "x"), why);
    EXPECT_TRUE(fs::is_empty(root_ + "/elsewhere"));
    fs::remove(path_);
    std::ofstream(path_) << "a file";
    EXPECT_TRUE(policy_folder(path_).files(why).empty());
    EXPECT_EQ(why, path_ + " is no folder of ours");
}

TEST_F(PolicyFolder, WhatIsNoFileOfOursIsLeftOut)
{
    put("good.toml", "x");
    put("open.toml", "x");
    ASSERT_EQ(::chmod((path_ + "/open.toml").c_str(), 0666), 0);
    string why;
    const std::vector<string> good{path_ + "/good.toml"};
    EXPECT_EQ(policy_folder(path_).files(why), good);
    EXPECT_EQ(why,
              path_ + "/open.toml is left out: it is no file that is ours and ours alone to write");
    fs::remove(path_ + "/open.toml");
    ASSERT_EQ(::mkfifo((path_ + "/pipe.toml").c_str(), 0600), 0);
    EXPECT_EQ(policy_folder(path_).files(why), good);
    EXPECT_NE(why.find("/pipe.toml is left out"), string::npos) << why;
    fs::remove(path_ + "/pipe.toml");
    fs::create_symlink("good.toml", path_ + "/link.toml");
    EXPECT_EQ(policy_folder(path_).files(why), good);
    EXPECT_NE(why.find("/link.toml is left out"), string::npos) << why;
    fs::remove(path_ + "/link.toml");
    EXPECT_EQ(policy_folder(path_).files(why), good);
    EXPECT_EQ(why, "");
}

TEST_F(PolicyFolder, PlantedLinksAndPipesAreNotOpened)
{
    put("victim", "whole");
    const string fresh = path_ + "/wan.toml.new";
    fs::create_symlink("victim", fresh);
    EXPECT_EQ(policy_folder(path_).save("wan.toml", "mine"), "");
    ASSERT_EQ(::mkfifo(fresh.c_str(), 0600), 0);
    EXPECT_EQ(policy_folder(path_).save("wan.toml", "mine"), "");
    EXPECT_EQ(contents("wan.toml"), "mine");
    EXPECT_EQ(names(), (std::vector<string>{"victim", "wan.toml"}));
    // In the policy's own place it may be somebody's wish: it stays, with a message.
    const string place = path_ + "/wan.toml";
    const string why = place + " is no plain file of ours";
    fs::remove(place);
    fs::create_symlink("victim", place);
    EXPECT_EQ(policy_folder(path_).save("wan.toml", "mine"), why);
    EXPECT_TRUE(fs::is_symlink(place));
    fs::remove(place);
    ASSERT_EQ(::mkfifo(place.c_str(), 0600), 0);
    EXPECT_EQ(policy_folder(path_).save("wan.toml", "mine"), why);
    fs::remove(place);
    fs::create_directory(place);
    EXPECT_EQ(policy_folder(path_).save("wan.toml", "mine"), why);
    EXPECT_EQ(contents("victim"), "whole");
}

TEST_F(PolicyFolder, AFullDiskLeavesTheOldFile)
{
    put("wan.toml", "old");
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    for (rlim_t most = 0; most < 4; ++most) {
        const rlimit little{most, before.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &little), 0);
        const string error = policy_folder(path_).save("wan.toml", "new!");
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
        EXPECT_EQ(error, "cannot write " + path_ + "/wan.toml.new: File too large");
        EXPECT_EQ(contents("wan.toml"), "old");
        EXPECT_EQ(names(), std::vector<string>{"wan.toml"});
    }
    EXPECT_EQ(policy_folder(path_).save("wan.toml", "new!"), "");
    EXPECT_EQ(contents("wan.toml"), "new!");
    (void)std::signal(SIGXFSZ, handler);
}

// ---- Reading ------------------------------------------------------------------------------------

TEST_F(PolicyFolder, FilesWithoutAnEndAreRefused)
{
    string why;
    EXPECT_FALSE(tool::read_policy_file("/dev/zero", why).has_value());
    EXPECT_EQ(why, "/dev/zero is larger than 64 MiB; a policy is no more than that");
}

TEST_F(PolicyFolder, ReadsUpTo64MiB)
{
    put("large", "");
    const string path = path_ + "/large";
    string why;
    ASSERT_EQ(::truncate(path.c_str(), 64 << 20), 0);
    const auto text = tool::read_policy_file(path, why);
    ASSERT_TRUE(text.has_value()) << why;
    EXPECT_EQ(text->size(), 67108864U);
    ASSERT_EQ(::truncate(path.c_str(), (64 << 20) + 1), 0);
    EXPECT_FALSE(tool::read_policy_file(path, why).has_value());
    EXPECT_EQ(why, path + " is larger than 64 MiB; a policy is no more than that");
}

TEST_F(PolicyFolder, SaysWhyAFileCannotBeRead)
{
    string why;
    EXPECT_FALSE(tool::read_policy_file("/no/such", why).has_value());
    EXPECT_EQ(why, "cannot read \"/no/such\": No such file or directory");
    EXPECT_FALSE(tool::read_policy_file("/", why).has_value());
    EXPECT_EQ(why, "cannot read \"/\": Is a directory");
}

}  // namespace
