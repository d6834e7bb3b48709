// SPDX-License-Identifier: MIT
// What state folder and journal hold when the power fails, when a write fails, and when the disk is
// full: at each operation of a whole apply.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>

#include "file_operations.h"
#include "journal.h"
#include "state.h"

namespace {

using std::string;
using test::file_watch;
using test::operation;
using tool::journal;
using tool::journal_file;
using tool::memory;
using tool::state_folder;
using kind = operation::kind;
using files = std::map<string, string>;  // name to bytes
namespace fs = std::filesystem;

// q0 has another policy after the run, q1 had none before it, and q2 is forgotten by it.
const std::map<string, std::pair<memory, memory>> interfaces = {
    {"q0", {{"old", "o", "rules"}, {"new", "n", std::nullopt}}},
    {"q1", {{}, {"first", "f", std::nullopt, "/etc/p.toml"}}},
    {"q2", {{"gone", "g", std::nullopt}, {}}}};

journal the_journal(journal::phase what)
{
    journal j;
    j.what = what;
    j.boot = "4a1f";
    for (const auto &[name, memories] : interfaces)
        j.entries.push_back({name, 7, {}, {"class del dev " + name + " classid 1:10"}});
    return j;
}

class PowerLoss : public testing::Test {
protected:
    void SetUp() override
    {
        mask_ = ::umask(022);
        string path = testing::TempDir() + "mordel-power-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(path.data()));
        root_ = path;
        for (const auto &[name, memories] : interfaces)
            if (memories.first != memory{}) { ASSERT_TRUE(state().write(name, memories.first)); }
    }
    ~PowerLoss() override
    {
        fs::remove_all(root_);
        (void)::umask(mask_);
    }

    state_folder state() const { return state_folder(root_); }
    journal_file the_file() const { return journal_file(state()); }

    files on_disk() const
    {
        files all;
        for (const auto &entry : fs::directory_iterator(root_)) {
            std::ifstream in(entry.path(), std::ios::binary);
            all[entry.path().filename()] = {std::istreambuf_iterator<char>(in), {}};
        }
        return all;
    }
    void put(const files &all) const
    {
        for (const auto &entry : fs::directory_iterator(root_)) fs::remove_all(entry.path());
        for (const auto &[name, bytes] : all)
            std::ofstream(root_ + "/" + name, std::ios::binary) << bytes;
    }

    bool all_are(memory std::pair<memory, memory>::*which) const
    {
        return std::all_of(interfaces.begin(), interfaces.end(), [&](const auto &one) {
            return state().read(one.first) == one.second.*which;
        });
    }
    string verdict() const;

    mode_t mask_ = 0;
    string root_;
};

// What a reader makes of the folder: "old", "under way", "committed" (and then the rest can be
// done), "new"; anything else is a fault.
string PowerLoss::verdict() const
{
    string why;
    const auto j = the_file().read(why);
    if (!j && !why.empty()) return why;
    const bool old = all_are(&std::pair<memory, memory>::first);
    const auto is_new = [&] { return all_are(&std::pair<memory, memory>::second); };
    if (!j) return old ? "old" : is_new() ? "new" : "no journal, and neither old nor new";
    if (*j == the_journal(journal::phase::under_way))
        return old ? "under way" : "under way, and not old";
    if (*j != the_journal(journal::phase::committed)) return "another journal";
    for (const auto &[name, memories] : interfaces) {
        const memory m = state().read(name);
        if (m != memories.first && m != memories.second) return name + " is neither old nor new";
        if (!state().take_staged(name)) return name + " cannot be taken";
    }
    return is_new() ? "committed" : "committed, but cannot be redone";
}

// ---- The power fails ----------------------------------------------------------------------------

// What the disk may hold when the power fails behind the first `done` operations. Of the names
// since the last sync of the folder any number may be there, in their order; of a file's bytes
// since its last sync also any number, whatever names are there.
std::vector<files> disks(const files &before, const std::vector<operation> &run, std::size_t done)
{
    std::map<int, string> bytes;
    std::map<int, std::size_t> synced;
    std::map<string, int> names;
    for (const auto &[name, text] : before) {
        const int number = -1 - static_cast<int>(names.size());
        names[name] = number;
        bytes[number] = text;
        synced[number] = text.size();
    }
    std::vector<std::map<string, int>> all_names = {names};
    for (std::size_t i = 0; i < done; ++i) {
        const operation &o = run[i];
        if (o.what == kind::write) bytes[o.file] += o.other;
        if (o.what == kind::sync_file) synced[o.file] = bytes[o.file].size();
        if (o.what == kind::create) names[o.name] = o.file;
        if (o.what == kind::unlink) names.erase(o.name);
        if (o.what == kind::rename) {
            names[o.other] = names[o.name];
            names.erase(o.name);
        }
        if (o.what == kind::sync_folder) all_names.clear();
        all_names.push_back(names);
    }
    std::vector<files> all;
    for (const auto &some : all_names) {
        files whole;
        for (const auto &[name, number] : some) whole[name] = bytes[number];
        all.push_back(whole);
        for (const auto &[name, number] : some)
            for (std::size_t size = synced[number]; size < bytes[number].size(); ++size) {
                all.push_back(whole);
                all.back()[name].resize(size);
            }
    }
    return all;
}

// What the verdict may be between two marks of the test
using expected = std::map<string, std::set<string>>;

// Returns the number of disks that were looked at.
std::size_t look_at_each(const std::vector<operation> &run, const files &before,
                         const expected &allowed, const std::function<string(const files &)> &look)
{
    string last = "begin";
    std::map<string, std::set<string>> seen;
    std::map<files, string> known;
    for (std::size_t done = 0; done <= run.size(); ++done) {
        if (done > 0 && run[done - 1].what == kind::mark) last = run[done - 1].name;
        for (const files &disk : disks(before, run, done)) {
            const auto [one, fresh] = known.try_emplace(disk);
            if (fresh) one->second = look(disk);
            seen[last].insert(one->second);
        }
    }
    EXPECT_EQ(allowed, seen);
    return known.size();
}

TEST_F(PowerLoss, OfAnApplyThatGoesWell)
{
    const files before = on_disk();
    file_watch watch;
    ASSERT_EQ("", the_file().write(the_journal(journal::phase::under_way)));
    watch.mark("under way");
    for (const auto &[name, memories] : interfaces)
        ASSERT_TRUE(state().stage(name, memories.second));
    watch.mark("staged");
    ASSERT_EQ("", the_file().write(the_journal(journal::phase::committed)));
    watch.mark("committed");
    for (const auto &[name, memories] : interfaces) ASSERT_TRUE(state().take_staged(name));
    watch.mark("taken");
    ASSERT_EQ("", the_file().remove());
    watch.mark("done");
    const std::vector<operation> run = watch.operations();
    const std::size_t looked = look_at_each(run, before,
                                            {{"begin", {"old", "under way"}},
                                             {"under way", {"under way"}},
                                             {"staged", {"under way", "committed"}},
                                             {"committed", {"committed"}},
                                             {"taken", {"committed", "new"}},
                                             {"done", {"new"}}},
                                            [&](const files &disk) {
                                                put(disk);
                                                return verdict();
                                            });
    EXPECT_LT(1000U, looked) << "each byte of two journals and three memories";
    put(before);
}

TEST_F(PowerLoss, OfAnApplyThatIsTakenBack)
{
    const files before = on_disk();
    file_watch watch;
    ASSERT_EQ("", the_file().write(the_journal(journal::phase::under_way)));
    watch.mark("under way");
    for (const auto &[name, memories] : interfaces)
        ASSERT_TRUE(state().stage(name, memories.second));
    for (const auto &[name, memories] : interfaces) state().drop_staged(name);
    watch.mark("dropped");
    ASSERT_EQ("", the_file().remove());
    watch.mark("done");
    const std::vector<operation> run = watch.operations();
    const std::size_t looked = look_at_each(run, before,
                                            {{"begin", {"old", "under way"}},
                                             {"under way", {"under way"}},
                                             {"dropped", {"under way", "old"}},
                                             {"done", {"old"}}},
                                            [&](const files &disk) {
                                                put(disk);
                                                return verdict();
                                            });
    EXPECT_LT(500U, looked);
    put(before);
    EXPECT_EQ(before, on_disk());
}

// ---- A call fails -------------------------------------------------------------------------------

// Makes each call of a body fail in turn. prepare: brings the folder to where the body begins.
void each_fault(const std::function<void()> &prepare, const std::function<void(file_watch &)> &body)
{
    int faults = 0;
    for (const char *function : {"open", "write", "fsync", "rename", "unlink"})
        for (const int error : {EIO, ENOSPC})
            for (int nth = 1;; ++nth) {
                prepare();
                file_watch watch(function, nth, error);
                SCOPED_TRACE(string(function) + " " + std::to_string(nth));
                body(watch);
                if (!watch.heal()) break;
                ++faults;
            }
    EXPECT_LT(2, faults);
}

TEST_F(PowerLoss, AFailedCallLeavesTheOldJournalOrTheNewOne)
{
    const journal old = the_journal(journal::phase::under_way);
    const journal fresh = the_journal(journal::phase::committed);
    ASSERT_EQ("", the_file().write(old));
    const files before = on_disk();
    const auto prepare = [&] { put(before); };
    string why;
    each_fault(prepare, [&](file_watch &watch) {
        const string said = the_file().write(fresh);
        EXPECT_EQ(watch.heal(), !said.empty());
        const auto j = the_file().read(why);
        ASSERT_TRUE(j) << why;
        EXPECT_TRUE(*j == old || *j == fresh);
        if (said.empty()) { EXPECT_EQ(fresh, *j); }
        EXPECT_FALSE(fs::exists(root_ + "/journal.new"));
    });
    each_fault(prepare, [&](file_watch &watch) {
        const string said = the_file().remove();
        EXPECT_EQ(watch.heal(), !said.empty());
        const auto j = the_file().read(why);
        EXPECT_TRUE(j ? *j == old : why.empty()) << why;
        EXPECT_FALSE(said.empty() && j);
    });
}

TEST_F(PowerLoss, AFailedCallLeavesTheOldMemoryOrNone)
{
    const files before = on_disk();
    const memory old = interfaces.at("q0").first;
    const memory fresh = interfaces.at("q0").second;
    const auto prepare = [&] { put(before); };
    each_fault(prepare, [&](file_watch &watch) {
        const bool written = state().write("q0", fresh);
        EXPECT_NE(watch.heal(), written);
        EXPECT_EQ(written ? fresh : memory{}, state().read("q0"));
        EXPECT_EQ(memory{}, state().read_staged("q0"));
    });
    each_fault(prepare, [&](file_watch &watch) {
        const bool staged = state().stage("q0", fresh);
        EXPECT_NE(watch.heal(), staged);
        EXPECT_EQ(old, state().read("q0"));
        EXPECT_EQ(staged ? fresh : memory{}, state().read_staged("q0"));
    });
    for (const memory &wanted : {fresh, memory{}}) {
        const auto stage = [&] {
            put(before);
            ASSERT_TRUE(state().stage("q0", wanted));
        };
        each_fault(stage, [&](file_watch &watch) {
            const bool taken = state().take_staged("q0");
            EXPECT_NE(watch.heal(), taken);
            const memory m = state().read("q0");
            EXPECT_TRUE(m == wanted || (!taken && m == old));
            EXPECT_TRUE(state().take_staged("q0"));
            EXPECT_EQ(wanted, state().read("q0"));
        });
    }
}

// What somebody plants between our unlink and our open is not written to.
TEST_F(PowerLoss, AFileThatIsPlantedMeanwhileIsLeftAlone)
{
    const string planted = root_ + "/journal.new";
    std::ofstream(root_ + "/elsewhere") << "untouched";
    fs::create_symlink(root_ + "/elsewhere", planted);
    file_watch watch("unlink", 1, ENOENT);  // as if the link came right after the unlink
    EXPECT_EQ("cannot write " + planted + ": File exists", the_file().write({}));
    EXPECT_EQ("untouched", on_disk()["elsewhere"]);
    EXPECT_TRUE(watch.heal());
}

// A disk that is full at any byte of the new journal
TEST_F(PowerLoss, AFullDiskLeavesTheOldJournal)
{
    const journal old = the_journal(journal::phase::under_way);
    const journal fresh = the_journal(journal::phase::committed);
    ASSERT_EQ("", the_file().write(fresh));
    const auto size = static_cast<std::size_t>(fs::file_size(root_ + "/journal"));
    ASSERT_EQ("", the_file().write(old));
    const auto before = std::signal(SIGXFSZ, SIG_IGN);
    rlimit room{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &room));
    for (std::size_t limit = 0; limit <= size; ++limit) {
        const rlimit less{limit, room.rlim_max};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &less));
        const string said = the_file().write(fresh);
        ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &room));
        string why;
        const auto j = the_file().read(why);
        EXPECT_EQ(limit < size ? "cannot write " + root_ + "/journal.new: File too large" : "",
                  said);
        ASSERT_TRUE(j) << why;
        EXPECT_EQ(limit < size ? old : fresh, *j);
        EXPECT_FALSE(fs::exists(root_ + "/journal.new"));
    }
    (void)std::signal(SIGXFSZ, before);
}

}  // namespace
