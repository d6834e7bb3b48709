// SPDX-License-Identifier: MIT
// The journal's text and its file, in a folder of the test's own. What a crash leaves of the file
// is in power_loss_test.cpp.
#include "journal.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>

#include "own_file.h"

namespace {

using std::string;
using tool::journal;
using tool::journal_file;
using tool::object;
using tool::parse_journal;
using json = nlohmann::ordered_json;
namespace fs = std::filesystem;

// A journal in which every value differs from its default
journal full_journal()
{
    journal j;
    j.what = journal::phase::unconfirmed;
    j.boot = "4a1f";
    j.until = 1234.5;
    j.saved_as = "/etc/mordel/home.toml";
    j.policy = "root = \"htb\"\n";
    tool::journal_entry one;
    one.name = "eth0";
    one.index = 7;
    one.before.tree = {
        {"qdisc add dev eth0 root handle 1: htb default 3", {object::kind::root, 0, ""}, 0, false},
        {"qdisc add dev eth0 parent 1:10 handle 100: sfq perturb 10",
         {object::kind::leaf, 0x10, ""},
         12,
         true}};
    one.before.unwritable = "root qdisc \x1b";
    one.before.rules = {"-N QOS_eth0", "-A QOS_eth0 -m comment --comment \"\xff\xc3\""};
    one.before.queue_len = 1000;
    one.undo = {"class del dev eth0 classid 1:10"};
    j.entries.push_back(one);
    j.entries.push_back({"eth1", 8, {}, {}});
    return j;
}

// The same, written by hand: bytes above 0x7f are the characters of their numbers.
constexpr char full_text[] =
    R"({"version":1,"phase":"unconfirmed","boot":"4a1f","until":1234.5,)"
    R"("saved_as":"/etc/mordel/home.toml","policy":"root = \"htb\"\n","entries":[)"
    R"({"name":"eth0","index":7,"tree":[)"
    R"(["qdisc add dev eth0 root handle 1: htb default 3","root",0,"",0,false],)"
    R"(["qdisc add dev eth0 parent 1:10 handle 100: sfq perturb 10","leaf",16,"",12,true]],)"
    R"("unwritable":"root qdisc \u001b",)"
    R"("rules":["-N QOS_eth0","-A QOS_eth0 -m comment --comment \")"
    "ÿÃ"
    R"(\""],"queue_len":1000,"undo":["class del dev eth0 classid 1:10"]},)"
    R"({"name":"eth1","index":8,"tree":[],"unwritable":"","rules":[],"queue_len":0,"undo":[]}]})"
    "\n";

// ---- The text -----------------------------------------------------------------------------------

TEST(JournalText, IsJson) { EXPECT_EQ(full_text, tool::journal_text(full_journal())); }

TEST(JournalText, IsReadAsItWasWritten)
{
    EXPECT_EQ(full_journal(), parse_journal(full_text));
    EXPECT_EQ(journal{}, parse_journal(tool::journal_text({})));
    journal j = full_journal();
    j.entries[0].undo.emplace_back();
    for (int byte = 0; byte < 256; ++byte) j.entries[0].undo.back() += static_cast<char>(byte);
    for (const auto what :
         {journal::phase::under_way, journal::phase::unconfirmed, journal::phase::committed})
        for (int kind = 0; kind <= static_cast<int>(object::kind::interface); ++kind) {
            j.what = what;
            j.entries[0].before.tree[0].what = {static_cast<object::kind>(kind), ~u32{0},
                                                "FORWARD"};
            EXPECT_EQ(j, parse_journal(tool::journal_text(j)));
        }
}

// Calls a body with a copy of `whole` for each of its values, and the path of the value in it.
void each_value(const json &whole,
                const std::function<void(json, const json::json_pointer &)> &body)
{
    const json flat = whole.flatten();
    for (const auto &[path, value] : flat.items()) {
        // Each value, and all lists and records that it is in
        for (json::json_pointer at(path);; at = at.parent_pointer()) {
            body(whole, at);
            if (at.empty()) break;
        }
    }
}

// Whether a value in place of another makes another journal, and none that is not ours
bool fits(const json &was, const json &now, const json::json_pointer &at)
{
    if (was.is_number() && at.to_string() != "/until")
        return now.is_number_unsigned() && now.get<u64>() <= 0xffffffff;
    if (was.is_array() && now.is_array()) return now.empty();
    return (was.is_number() && now.is_number()) || (was.is_string() && now.is_string()) ||
           (was.is_boolean() && now.is_boolean());
}

TEST(JournalText, WithAValueOfAnotherTypeIsNotOurs)
{
    const json whole = json::parse(full_text);
    int tried = 0;
    each_value(whole, [&](json other, const json::json_pointer &at) {
        const json was = other[at];
        for (const json &now :
             {json(nullptr), json("x"), json(true), json(-1), json(0.5), json(u64{1} << 32),
              json::array(), json::object(), json::array({1}), json::array({"x", 1, nullptr})}) {
            if (fits(was, now, at)) continue;
            other[at] = now;
            EXPECT_EQ(std::nullopt, parse_journal(other.dump())) << at << " as " << now;
            ++tried;
        }
    });
    EXPECT_LT(300, tried);
}

TEST(JournalText, WithAnotherSetOfValuesIsNotOurs)
{
    const json whole = json::parse(full_text);
    int tried = 0;
    each_value(whole, [&](json other, const json::json_pointer &at) {
        if (other[at].is_object()) {
            other[at]["more"] = 1;
            EXPECT_EQ(std::nullopt, parse_journal(other.dump())) << at << " with one more";
        }
        if (at.empty()) return;
        other = whole;
        json &around = other[at.parent_pointer()];
        if (!around.is_object()) return;
        around.erase(at.back());
        EXPECT_EQ(std::nullopt, parse_journal(other.dump())) << "without " << at;
        around["other"] = 1;
        EXPECT_EQ(std::nullopt, parse_journal(other.dump())) << "another name for " << at;
        ++tried;
    });
    EXPECT_LT(20, tried);
    for (const char *key : {"version", "phase"}) {
        json other = whole;
        other[key] = key == string("version") ? json(2) : json("over");
        EXPECT_EQ(std::nullopt, parse_journal(other.dump())) << key;
    }
    json other = whole;
    other["entries"][0]["tree"][0].push_back(1);
    EXPECT_EQ(std::nullopt, parse_journal(other.dump())) << "a command with one value more";
    other = whole;
    other["entries"][0]["tree"][0] = {{"a", "x"}, {"b", "root"}, {"c", 0},
                                      {"d", ""},  {"e", 0},      {"f", false}};
    EXPECT_EQ(std::nullopt, parse_journal(other.dump())) << "a command that is no list";
    other = whole;
    other["entries"][0]["tree"][0][1] = "qdisc";
    EXPECT_EQ(std::nullopt, parse_journal(other.dump())) << "an unknown kind of object";
    other = whole;
    other["boot"] = "\u0100";
    EXPECT_EQ(std::nullopt, parse_journal(other.dump())) << "a character that stands for no byte";
}

TEST(JournalText, ThatIsNoJsonIsNotOurs)
{
    for (const string &text :
         {string(), string("\0", 1), string("null"), string("{"), string("\xff"), string("1e999"),
          string("\"\xc3"), string(1000000, '['), string(1000000, '{')})
        EXPECT_EQ(std::nullopt, parse_journal(text)) << text.substr(0, 10);
}

TEST(ThisBoot, HasANameOfItsOwn)
{
    const string boot = tool::this_boot();
    if (boot.empty()) GTEST_SKIP() << "this kernel names no boot";
    EXPECT_EQ(36U, boot.size()) << boot;
    EXPECT_EQ(boot, tool::this_boot());
}

// ---- The file -----------------------------------------------------------------------------------

class Journal : public testing::Test {
protected:
    void SetUp() override
    {
        string path = testing::TempDir() + "mordel-journal-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(path.data()));
        root_ = path;
        file_ = root_ + "/journal";
    }
    ~Journal() override { fs::remove_all(root_); }

    journal_file the_file() const { return journal_file(tool::state_folder(root_)); }
    void put(const string &text) const
    {
        std::ofstream(file_, std::ios::binary | std::ios::trunc) << text;
    }
    string text() const
    {
        std::ifstream in(file_, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    // Why there is no journal; "one" when there is one
    string read() const
    {
        string why = "unset";
        return the_file().read(why) ? "one" : why;
    }

    string root_;
    string file_;
};

TEST_F(Journal, IsWrittenReadAndRemoved)
{
    const journal_file file = the_file();
    string why = "unset";
    EXPECT_EQ("", read());
    EXPECT_EQ("", file.write({}));
    EXPECT_EQ(journal{}, file.read(why));
    EXPECT_EQ("", file.write(full_journal()));
    EXPECT_EQ(full_journal(), file.read(why));
    EXPECT_EQ("", why);
    EXPECT_EQ("", file.remove());
    EXPECT_EQ("", read());
    EXPECT_EQ("", file.remove());
    EXPECT_TRUE(fs::is_empty(root_));
}

TEST_F(Journal, ThatIsCutAtAnyByteIsCutShort)
{
    ASSERT_EQ("", the_file().write(full_journal()));
    const string whole = text();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        put(whole.substr(0, size));
        ASSERT_EQ(file_ + " is cut short or damaged", read()) << size << " bytes";
    }
    put(whole + "\n");
    EXPECT_EQ(file_ + " is cut short or damaged", read());
    put(whole);
    EXPECT_EQ("one", read());
}

TEST_F(Journal, WithAFlippedBitIsDamaged)
{
    ASSERT_EQ("", the_file().write(full_journal()));
    const string whole = text();
    for (std::size_t i = 0; i < whole.size(); ++i)
        for (int bit = 0; bit < 8; ++bit) {
            string other = whole;
            other[i] = static_cast<char>(other[i] ^ 1 << bit);
            put(other);
            ASSERT_EQ(file_ + " is cut short or damaged", read()) << "byte " << i;
        }
    // A disk's block of zeros, where the write did not get to the disk
    put(string(whole.size(), '\0'));
    EXPECT_EQ(file_ + " is cut short or damaged", read());
}

TEST_F(Journal, OfAnotherVersionIsSaidSo)
{
    json other = json::parse(full_text);
    other["version"] = 2;
    put(tool::sealed(other.dump()));
    EXPECT_EQ(file_ + " is of another version", read());
    other["version"] = 1;
    put(tool::sealed(other.dump()));
    EXPECT_EQ("one", read());
}

// Nothing planted is waited for, followed, overwritten or believed.
TEST_F(Journal, IsAPlainFileOfOurs)
{
    const journal_file file = the_file();
    ASSERT_EQ("", file.write(full_journal()));
    const string whole = text();
    const string elsewhere = root_ + "/elsewhere";
    fs::copy_file(file_, elsewhere);
    (void)::alarm(60);  // ends the program where a pipe is waited for
    const auto fifo = [](const string &at) { ASSERT_EQ(0, ::mkfifo(at.c_str(), 0600)); };
    const auto link = [&](const string &at) { fs::create_symlink(elsewhere, at); };
    const auto name = [&](const string &at) { fs::create_hard_link(elsewhere, at); };
    const auto folder = [](const string &at) { fs::create_directories(at + "/more"); };
    for (const std::function<void(const string &)> &plant :
         {std::function<void(const string &)>(fifo), {link}, {name}, {folder}}) {
        fs::remove(file_);
        plant(file_);
        EXPECT_EQ(file_ + " is no plain file of ours", read());
        EXPECT_EQ(file_ + " is no plain file of ours", file.write({}));
        EXPECT_FALSE(fs::exists(file_ + ".new"));
        fs::remove_all(file_);
    }
    for (const std::function<void(const string &)> &plant :
         {std::function<void(const string &)>(fifo), {link}, {name}}) {
        plant(file_ + ".new");
        EXPECT_EQ("", file.write({}));
        EXPECT_EQ("one", read());
        EXPECT_FALSE(fs::exists(file_ + ".new"));
    }
    folder(file_ + ".new");
    EXPECT_EQ("cannot remove " + file_ + ".new: Is a directory", file.write(full_journal()));
    EXPECT_EQ("one", read());
    ASSERT_EQ(0, ::chmod(file_.c_str(), 0646));
    EXPECT_EQ(file_ + " may be written to by others", read());
    (void)::alarm(0);
    std::ifstream in(elsewhere, std::ios::binary);
    EXPECT_EQ(whole, string(std::istreambuf_iterator<char>(in), {}));
}

}  // namespace
