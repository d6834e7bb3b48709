// SPDX-License-Identifier: MIT
// What a hostile or broken system may do to apply, against a real kernel: full disks, planted
// files, a parent that ignores its children, no memory, no descriptors. The kernel is as before, or
// the policy is in force; something is said; nothing hangs.
#include <sys/resource.h>
#include <sys/stat.h>

#include "transaction.h"

namespace {

using namespace guest;

struct change {
    string name, old_file, new_file, before, after;
};

change prepared(const string &policy = two_classes)
{
    change c;
    c.name = make_interface();
    c.old_file = policy_file(for_interface(policy, c.name));
    c.new_file = policy_file(edited(for_interface(policy, c.name)));
    apply_file(c.new_file);
    c.after = everything();
    apply_file(c.old_file);
    c.before = everything();
    return c;
}

// mordel after `prepared` has been run in its process
environment spied_and(const std::function<void()> &prepared)
{
    environment e = spied();
    const auto by_spies = e.prepared;
    e.prepared = [=] {
        by_spies();
        prepared();
    };
    return e;
}

// Enough rules that the start script is longer than a page
string many_rules()
{
    string text = two_classes.substr(0, two_classes.rfind(']'));
    for (int i = 100; i < 130; ++i)
        text += "  { index = " + std::to_string(i) + ", match = { length = " + std::to_string(i) +
                " }, target = { mark = 0x10 } },\n";
    return text + "]\n";
}

TEST(Fault, AScriptThatTheDiskCutsIsNotRun)
{
    const change c = prepared(many_rules());
    by_hand("mount -t tmpfs -o size=4k tmpfs /var/tmp");
    const result r = mordel({"apply", "--script", c.new_file});
    by_hand("umount /var/tmp");
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "/var/tmp/qos_start")) << r.err;
    EXPECT_EQ(lines{}, changes());
    expect_as(c.before, r.err);
}

TEST(Fault, AParentThatIgnoresItsChildrenDoesNotMatter)
{
    const change c = prepared();
    const environment e = spied_and([] { (void)::signal(SIGCHLD, SIG_IGN); });
    remove_notes();
    const result applied = program(command_line({"apply", c.new_file}), "", e).end();
    EXPECT_EQ(0, applied.status) << applied.err;
    expect_as(c.after, applied.err);
    const result stopped = program(command_line({"stop", c.new_file}), "", e).end();
    EXPECT_EQ(0, stopped.status) << stopped.err;
    expect_default(c.name);
}

TEST(Fault, AParentThatBlocksAllSignalsDoesNotMatter)
{
    const change c = prepared();
    const environment e = spied_and([] {
        sigset_t all;
        (void)sigfillset(&all);
        (void)sigprocmask(SIG_BLOCK, &all, nullptr);
    });
    give({.at = 2, .signal = SIGTERM});
    const result r = program(command_line({"apply", c.new_file}), "", e).end();
    EXPECT_EQ(143, r.status) << r.err;
    expect_as(c.before, r.err);
}

// ---- The state folder ---------------------------------------------------------------------------

using planting = void (*)(const string &path);

constexpr char victim[] = "/run/victim";

const struct {
    const char *what;
    planting plant;
} plants[] = {
    {"a fifo", [](const string &path) { (void)::mkfifo(path.c_str(), 0600); }},
    {"a link", [](const string &path) { (void)::symlink(victim, path.c_str()); }},
    {"a dangling link", [](const string &path) { (void)::symlink("/run/nothing", path.c_str()); }},
    {"a folder", [](const string &path) { (void)::mkdir(path.c_str(), 0700); }},
};

// The names of the state folder's files while an apply goes on
lines names_of_state(const change &c)
{
    lines all = {"lock", "journal", "journal.new"};
    std::error_code none;
    for (const auto &file : fs::directory_iterator(state_folder, none)) {
        const string name = file.path().filename();
        if (has(name, c.name + ".")) {
            all.push_back(name);
            all.push_back(name + ".new");
        }
    }
    return all;
}

// With something else at one of the names: done or refused, in bounded time
void expect_unharmed(const change &c)
{
    write_file(victim, "precious");
    const result r =
        program(command_line({"apply", "--wait", "2", c.new_file}), "", spied()).end(60);
    EXPECT_NE(128 + SIGKILL, r.status) << "it hung";
    EXPECT_TRUE(r.status == 0 || r.status == 1) << r.status << r.err;
    EXPECT_TRUE(r.status == 0 || !r.err.empty());
    EXPECT_EQ("precious", file_text(victim));
    EXPECT_FALSE(fs::exists("/run/nothing"));
    const string now = kernel();
    EXPECT_TRUE(c.before.starts_with(now) || c.after.starts_with(now))
        << r.err << difference(c.before, now);
}

// One kind of plant at each name by turns; the next seed has the kinds at other names.
TEST(Fault, PlantedFilesAreNotFollowedAndNotWaitedFor)
{
    const change c = prepared();
    unsigned turn = wanted.seed;
    for (const string &name : names_of_state(c)) {
        const auto &[what, plant] = plants[turn++ % std::size(plants)];
        SCOPED_TRACE(string(what) + " at " + name);
        const string path = state_folder + "/" + name;
        fs::remove_all(path);
        plant(path);
        remove_notes();
        expect_unharmed(c);
        fs::remove_all(path);
        if (everything() != c.before) apply_afresh(c.old_file);
    }
}

TEST(Fault, AFolderThatOthersMayWriteToIsRefused)
{
    const change c = prepared();
    (void)::chmod(state_folder.c_str(), 0777);
    const result r = mordel({"apply", c.new_file});
    (void)::chmod(state_folder.c_str(), 0700);
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "may be written to by others")) << r.err;
    EXPECT_EQ(lines{}, changes());
    if (!expect_as(c.before, r.err)) apply_afresh(c.old_file);
}

TEST(Fault, AFullStateFolderLeavesWhatRan)
{
    const change c = prepared();
    by_hand("cp -a " + state_folder + " /run/saved; mount -t tmpfs -o size=512k,mode=700 tmpfs " +
            state_folder + "; cp -a /run/saved/. " + state_folder + "; cat /dev/zero > " +
            state_folder + "/filler 2>/dev/null || :");
    const string before = kernel();
    const result r = mordel({"apply", c.new_file});
    EXPECT_EQ(1, r.status) << "without a journal nothing is begun";
    EXPECT_EQ(before, kernel());
    EXPECT_EQ(lines{}, changes());
    by_hand("umount " + state_folder + "; rm -r /run/saved");
    expect_as(c.before, r.err);
}

// A journal that is cut short or not ours was never begun by.
TEST(Fault, AJournalThatIsNoneIsNamed)
{
    const change c = prepared();
    for (const char *text : {"", "{", "{\"version\": 1}", "[1, 2]", "\xff\xfe"}) {
        SCOPED_TRACE(text);
        write_file(journal, text);
        (void)::chmod(journal.c_str(), 0600);
        const result r = mordel({"recover"});
        EXPECT_TRUE(r.status == 0 || r.status == 1) << r.status << r.err;
        EXPECT_EQ(lines{}, changes());
        (void)::unlink(journal.c_str());
        expect_as(c.before, r.err);
    }
}

// ---- Limits -------------------------------------------------------------------------------------

void limit(int what, rlim_t value)
{
    const rlimit both{value, value};
    (void)::setrlimit(static_cast<__rlimit_resource>(what), &both);
}

// Done, or failed in words with the kernel as before
void expect_done_or_refused(const change &c, const result &r)
{
    // 2: not even the policy could be read
    EXPECT_TRUE(r.status <= 2 || r.status == 127) << r.status << r.err;
    if (r.status == 1 || r.status == 2) { EXPECT_FALSE(squeezed(r.err).empty()); }
    EXPECT_FALSE(has(r.err, "is missing")) << r.err;
    expect_as(r.status == 0 ? c.after : c.before, r.err);
    expect_nothing_left();
    if (everything() != c.before) apply_afresh(c.old_file);
}

TEST(Fault, NoMemoryLeavesWhatRan)
{
    const change c = prepared(many_rules());
    unsigned refused = 0;
    const auto with = [](rlim_t room, const lines &command) {
        return program(command, "", {plain_path, {}, [=] { limit(RLIMIT_AS, room); }}).end();
    };
    // Down to where the program itself finds no room.
    for (rlim_t room = 32 << 20; with(room, {mordel_path, "--version"}).status == 0;
         room -= room / 8) {
        SCOPED_TRACE(room);
        remove_notes();
        // The spies need more than mordel does: here the real tools are run.
        const result r = with(room, command_line({"apply", c.new_file}));
        refused += r.status != 0 ? 1U : 0U;
        expect_done_or_refused(c, r);
        if (HasFailure()) break;
    }
    EXPECT_LT(0U, refused);
}

TEST(Fault, NoDescriptorsLeaveWhatRan)
{
    const change c = prepared();
    for (rlim_t most = 4; most <= 9; ++most) {
        SCOPED_TRACE(most);
        remove_notes();
        const result r = program(command_line({"apply", c.new_file}), "",
                                 {plain_path, {}, [=] { limit(RLIMIT_NOFILE, most); }})
                             .end();
        expect_done_or_refused(c, r);
        if (HasFailure()) break;
    }
}

TEST(Fault, AToolThatDiesIsNamedWithItsSignal)
{
    const change c = prepared();
    const string folder = "/run/dying";
    fs::create_directories(folder);
    for (const string tool : {"tc", "iptables-restore"}) {
        SCOPED_TRACE(tool);
        // The n-th call dies, so that trial and taking back have a tool that works.
        write_file(folder + "/" + tool,
                   "#!/bin/sh\n[ \"$(readlink /proc/self/ns/net)\" = \"$(readlink "
                   "/proc/1/ns/net)\" ] && [ ! -e /run/died ] && case \"$*\" in *--test*) ;; *) "
                   ": >/run/died; kill -9 $$ ;; esac\nPATH=${PATH#*:}\nexec " +
                       tool + " \"$@\"\n");
        (void)::chmod((folder + "/" + tool).c_str(), 0755);
        (void)::unlink("/run/died");
        const string file = policy_file(replaced(file_text(c.new_file), "dscp = 10", "dscp = 20"));
        const result r =
            program(command_line({"apply", file}), "", {folder + ":" + plain_path, {}, {}}).end();
        EXPECT_TRUE(fs::exists("/run/died"));
        EXPECT_EQ(1, r.status);
        EXPECT_TRUE(has(r.err, tool + ": was killed by signal 9 (Killed)")) << r.err;
        if (!expect_as(c.before, r.err)) apply_afresh(c.old_file);
        (void)fs::remove(folder + "/" + tool);
    }
}

TEST(Fault, AReportThatCannotBeWrittenIsNoFailedApply)
{
    const change c = prepared();
    const result r = run({"/bin/sh", "-c", mordel_path + " apply " + c.new_file + " >/dev/full"});
    EXPECT_EQ(3, r.status) << r.err;
    expect_as(c.after, r.err);
}

TEST(Fault, AnUnsetPathMeansTheUsualPlaces)
{
    // The guest has the legacy iptables in a place of its own; its root is no other machine's.
    by_hand("for tool in iptables iptables-restore; do"
            " ln -sf \"$(command -v xtables-legacy-multi)\" /usr/local/sbin/$tool; done");
    const change c = prepared();
    const result r = program(command_line({"apply", c.new_file}), "",
                             {plain_path, {}, [] { (void)::unsetenv("PATH"); }})
                         .end();
    EXPECT_EQ(0, r.status) << r.err;
    expect_as(c.after, r.err);
}

}  // namespace
