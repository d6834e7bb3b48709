// SPDX-License-Identifier: MIT
// For the tests of apply as a transaction: all that the kernel and the state folder hold, compared
// before and after, what must not be left behind, and mordel run with an order to the spies.
#pragma once

#include <net/if.h>

#include <optional>

#include "spy.h"

namespace guest {

namespace fs = std::filesystem;

struct arguments {
    unsigned pairs = 2;
    unsigned positions = 6;
    unsigned kills = 6;
    unsigned seed = 1;
};
inline arguments wanted;

inline constexpr unsigned never = 1000000;  // a position that no run reaches
inline const string state_folder = "/var/run/mordel";
inline const string journal = state_folder + "/journal";
inline const string own_lock = state_folder + "/lock";

// ---- What there is to compare -------------------------------------------------------------------

inline lines interfaces;  // that the tests have made

inline string make_interface()
{
    interfaces.push_back(fresh_interface());
    return interfaces.back();
}

// Another interface's jump may stand before or behind.
inline string rules_with_sorted_jumps()
{
    lines all;
    lines jumps;
    for (const string &line : lines_of(rules_of()))
        (has(line, "-A FORWARD") || has(line, "-A OUTPUT") ? jumps : all).push_back(line);
    std::sort(jumps.begin(), jumps.end());
    // A listing has the chains in no order of meaning; the rules of a chain keep theirs.
    std::stable_sort(all.begin(), all.end(), [](const string &a, const string &b) {
        return a.substr(0, a.find(' ', 3)) < b.substr(0, b.find(' ', 3));
    });
    return joined(all, "\n") + "\n" + joined(jumps, "\n") + "\n";
}

inline string queue_length(const string &name)
{
    return squeezed(file_text("/sys/class/net/" + name + "/tx_queue_len"));
}

// The state folder's files, each as a line. The lock's file stays for ever.
inline string files_of_state()
{
    lines all;
    std::error_code none;
    for (const auto &file : fs::directory_iterator(state_folder, none)) {
        if (file.path() == own_lock) continue;
        const string text = file.is_regular_file(none) ? file_text(file.path()) : "no file";
        all.push_back("file " + file.path().string() + ", " + std::to_string(text.size()) +
                      " bytes, hash " + std::to_string(std::hash<string>()(text)));
    }
    std::sort(all.begin(), all.end());
    return joined(all, "\n") + "\n";
}

// What the kernel holds of all interfaces
inline string kernel()
{
    string all;
    for (const string &name : interfaces) {
        if (::if_nametoindex(name.c_str()) == 0) continue;
        all += name + " txqueuelen " + queue_length(name) + "\n";
        for (const string &line : lines_of(tree_of(name))) all += name + " " + line + "\n";
    }
    return all + rules_with_sorted_jumps();
}

// All that apply may touch
inline string everything() { return kernel() + files_of_state(); }

// The lines that one has and the other has not
inline string difference(const string &before, const string &after)
{
    lines a = lines_of(before);
    lines b = lines_of(after);
    std::sort(a.begin(), a.end());
    std::sort(b.begin(), b.end());
    lines gone;
    lines more;
    std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(gone));
    std::set_difference(b.begin(), b.end(), a.begin(), a.end(), std::back_inserter(more));
    string text;
    for (const string &line : gone) text += "- " + line + "\n";
    for (const string &line : more) text += "+ " + line + "\n";
    return text.empty() && before != after ? "the same lines in another order" : text;
}

// True when all is as before
inline bool expect_as(const string &before, const string &why)
{
    const string now = everything();
    EXPECT_TRUE(before == now) << why << "\n" << difference(before, now);
    return before == now;
}

// ---- What is left behind ------------------------------------------------------------------------

inline bool is_tool(const string &process)
{
    const string name = squeezed(file_text("/proc/" + process + "/comm"));
    return name == "tc" || name == "iptables" || name == "iptables-restor";
}

// The processes of mordel and of its tools, but for this one
inline lines processes_of_ours()
{
    lines all;
    std::error_code none;
    const fs::path command = fs::canonical(mordel_path);
    for (const auto &entry : fs::directory_iterator("/proc", none)) {
        const string id = entry.path().filename();
        const fs::path program = fs::read_symlink(entry.path() / "exe", none);
        if (none || id == std::to_string(::getpid()) || id == "self" || id == "thread-self")
            continue;
        if (program == command || is_tool(id))
            all.push_back(id + " " +
                          replaced(file_text(entry.path() / "cmdline"), string(1, '\0'), " "));
    }
    return all;
}

inline bool is_locked(const string &path)
{
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    const bool locked = fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) != 0;
    (void)::close(fd);
    return locked;
}

// Polls, for what another process does. The bound only ends a hang.
inline bool comes_true(const std::function<bool()> &condition, int seconds = 60)
{
    const auto last = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > last) return false;
        (void)::usleep(50000);
    }
    return true;
}

inline void expect_nothing_left()
{
    EXPECT_TRUE(comes_true([] { return processes_of_ours().empty(); }, 10))
        << joined(processes_of_ours(), "\n");
    EXPECT_FALSE(fs::exists(journal));
    std::error_code none;
    for (const auto &file : fs::directory_iterator(state_folder, none))
        EXPECT_FALSE(has(file.path().filename(), ".new")) << file.path();
    EXPECT_FALSE(is_locked(own_lock));
    EXPECT_FALSE(fs::exists(overlap_file)) << "two tools were at work at once";
}

// Each test begins with nothing in the kernel and in the state folder: what a failed one has left
// would make others fail, and each interface more costs every comparison.
class clean_kernel : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo &) override
    {
        for (const string &process : processes_of_ours())
            (void)::kill(std::atoi(process.c_str()), SIGKILL);
        string links;
        for (const string &name : interfaces) links += "link del " + name + "\n";
        (void)run({"ip", "-force", "-batch", "-"}, links);
        interfaces.clear();
        (void)run({"iptables-restore", "-w"}, "*mangle\nCOMMIT\n");
        std::error_code none;
        for (const auto &file : fs::directory_iterator(state_folder, none))
            fs::remove_all(file.path(), none);
        remove_notes();
    }
};

// ---- The command --------------------------------------------------------------------------------

// With the spies watching, and without an order to them
inline result mordel(const lines &words, const environment &e = spied())
{
    remove_notes();
    return program(command_line(words), "", e).end();
}

inline result mordel_with(const order &o, const lines &words, const environment &e = spied())
{
    give(o);
    return program(command_line(words), "", e).end();
}

// An apply that has to work
inline void apply_file(const string &file, const lines &more = {})
{
    lines words = {"apply", file};
    words.insert(words.end(), more.begin(), more.end());
    const result r = mordel(words);
    ASSERT_EQ(0, r.status) << r.err << file_text(file);
}

// How many positions the apply of a file has; it is applied.
inline unsigned positions_to(const string &file, const lines &more = {},
                             const environment &e = spied())
{
    lines words = {"apply", file};
    words.insert(words.end(), more.begin(), more.end());
    const result r = mordel_with({.at = never}, words, e);
    EXPECT_EQ(0, r.status) << r.err;
    return static_cast<unsigned>(std::atoi(file_text(count_file).c_str()));
}

// From nothing, so that no earlier test plays a part
inline void apply_afresh(const string &file)
{
    (void)mordel({"stop", file});
    apply_file(file);
}

inline json first_interface(const result &r)
{
    const json all = r.parsed();
    EXPECT_FALSE(all.is_discarded()) << "no report: " << r.out << r.err;
    if (all.is_discarded() || !all.contains("interfaces") || all["interfaces"].empty()) return {};
    return all["interfaces"][0];
}

inline void expect_told(const result &r, const string &part)
{
    EXPECT_TRUE(has(r.err, part)) << "not told: " << part << "\n" << r.err;
}

inline constexpr char brought_back[] = "brought back to what it held before";

inline const string two_classes = R"([[interface]]
name = "@"
root = "htb"
phy_tx = "100mbit"
link_tx = "20mbit"
class = [
  { handle = 0x10, rate = "2mbit", ceil = "20mbit", leaf = { type = "pfifo", limit = 50 } },
  { handle = 0x11, rate = "4mbit", leaf = { type = "sfq", perturb = 10 } },
]
rule = [
  { index = 10, match = { dscp = 46 }, target = { mark = 0x10 } },
  { index = 20, match = { dscp = 10 }, target = { mark = 0x11 } },
  { index = 30, match = { dscp = 12 }, target = { mark = 0x10 } },
]
)";

inline const string third_class = "  { handle = 0x20, rate = \"1mbit\" },\n]\nrule";

inline string with_third_class(const string &text)
{
    return replaced(text, "]\nrule", third_class);
}

// Class 1:10 with another rate, and one more class: a change, three additions, no rule
inline string edited(const string &text)
{
    return with_third_class(replaced(text, "rate = \"2mbit\"", "rate = \"3mbit\""));
}

}  // namespace guest
