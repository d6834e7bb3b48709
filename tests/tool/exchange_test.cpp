// SPDX-License-Identifier: MIT
// Random pairs of rule lists, exchanged and brought back in the mangle table of a network namespace
// of their own: what a listing tells then, and whose counters went on. Once with iptables for the
// kernel's own tables, once with the one for nftables.
#include "chains.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <map>
#include <random>
#include <regex>

#include "iptables.h"
#include "process.h"
#include "text.h"

namespace {

using std::string;
using tool::command;
using tool::object;
using lines = std::vector<string>;
namespace fs = std::filesystem;

constexpr unsigned pairs = 50;

// A rule as a script has it and as it is listed, behind its chain's name
struct rule {
    const char *written;
    const char *listed;
};
const rule known[] = {
    {"-m dscp --dscp 0x2e -j MARK --set-mark 0x10 ",
     "-m dscp --dscp 0x2e -j MARK --set-xmark 0x10/0xffffffff"},
    {"-m dscp --dscp 0xa -j MARK --set-mark 0x11 ",
     "-m dscp --dscp 0x0a -j MARK --set-xmark 0x11/0xffffffff"},
    {"-p tcp -m tcp --dport 80 -j MARK --set-mark 0x10 ",
     "-p tcp -m tcp --dport 80 -j MARK --set-xmark 0x10/0xffffffff"},
    {"-p udp -m udp --sport 53:60 -j MARK --set-mark 0x12 ",
     "-p udp -m udp --sport 53:60 -j MARK --set-xmark 0x12/0xffffffff"},
    {"-s 10.0.0.0/8 -j MARK --set-mark 0x10 ", "-s 10.0.0.0/8 -j MARK --set-xmark 0x10/0xffffffff"},
    {"-m connmark --mark 100 -j MARK --set-mark 0x10",
     "-m connmark --mark 0x64 -j MARK --set-xmark 0x10/0xffffffff"},
    {"-d 192.168.7.1 -j ACCEPT ", "-d 192.168.7.1/32 -j ACCEPT"},
    {"-m mark --mark 0x5 -j ACCEPT ", "-m mark --mark 0x5 -j ACCEPT"},
    {"", ""}};

// The rules of an interface; numbers are places in `known`
struct rule_set {
    bool automark = true;  // the second chain is there, and the first leads to it
    int forward = 1;       // jumps
    int output = 1;
    std::vector<std::size_t> rules;
    std::vector<std::size_t> automark_rules;
};

// ---- As texts -----------------------------------------------------------------------------------

string with(const char *chain, const char *rest)
{
    return string("-A ") + chain + (*rest == 0 ? "" : " ") + rest;
}

// What `iptables -S` tells, less what is not the interface's
lines listing(const rule_set &set)
{
    lines all = {"-N QOS_q0"};
    if (set.automark) all.emplace_back("-N QOS_q0_AUTO");
    for (int i = 0; i < set.forward; ++i) all.emplace_back("-A FORWARD -o q0 -g QOS_q0");
    for (int i = 0; i < set.output; ++i) all.emplace_back("-A OUTPUT -o q0 -g QOS_q0");
    if (set.automark) all.emplace_back("-A QOS_q0 -m connmark ! --mark 0x0 -j QOS_q0_AUTO");
    for (const std::size_t i : set.rules) all.push_back(with("QOS_q0", known[i].listed));
    for (const std::size_t i : set.automark_rules)
        all.push_back(with("QOS_q0_AUTO", known[i].listed));
    return all;
}

// The commands of a script that makes it
std::vector<command> script(const rule_set &set)
{
    using kind = object::kind;
    std::vector<command> all = {
        {"-A FORWARD -o q0 -g QOS_q0", {kind::jump, 0, "FORWARD"}, 20, false},
        {"-A OUTPUT -o q0 -g QOS_q0", {kind::jump, 0, "OUTPUT"}, 21, false},
        {"-A QOS_q0 -m connmark ! --mark 0 -j QOS_q0_AUTO", {kind::rule, 0, "QOS_q0"}, 22, false}};
    for (const std::size_t i : set.rules)
        all.push_back({with("QOS_q0", known[i].written), {kind::rule, 0, "QOS_q0"}, 23, false});
    for (const std::size_t i : set.automark_rules)
        all.push_back(
            {with("QOS_q0_AUTO", known[i].written), {kind::rule, 0, "QOS_q0_AUTO"}, 24, false});
    return all;
}

// For iptables-restore -c: the n-th rule has seen n packets, and so has a foreign one behind a
// jump.
string input(const rule_set &set)
{
    string text = "*mangle\n:PREROUTING ACCEPT [0:0]\n:INPUT ACCEPT [0:0]\n:FORWARD ACCEPT [0:0]\n"
                  ":OUTPUT ACCEPT [0:0]\n:POSTROUTING ACCEPT [0:0]\n:other - [0:0]\n";
    int n = 0;
    for (const string &line : listing(set)) {
        if (line.starts_with("-N ")) {
            text += ":" + line.substr(3) + " - [0:0]\n";
            continue;
        }
        ++n;
        text += tool::format("[%d:%d] ", n, 2 * n) + line + "\n";
    }
    return text + "[777:888] -A FORWARD -o q1 -j other\nCOMMIT\n";
}

string text_of(const lines &all)
{
    string text;
    for (const string &line : all) text += line + "\n";
    return text;
}

// ---- At random ----------------------------------------------------------------------------------

class chance {
public:
    explicit chance(unsigned seed) : random_(seed) {}
    std::size_t below(std::size_t n) { return random_() % n; }
    bool once_in(std::size_t n) { return below(n) == 0; }

    std::vector<std::size_t> list()
    {
        std::vector<std::size_t> all(below(20));
        for (std::size_t &i : all) i = below(std::size(known));
        return all;
    }
    // Some deleted, some inserted, some moved; now and then quite another list
    std::vector<std::size_t> changed(std::vector<std::size_t> all)
    {
        if (once_in(5)) return list();
        for (auto left = below(4); left > 0 && !all.empty(); --left)
            all.erase(all.begin() + static_cast<std::ptrdiff_t>(below(all.size())));
        for (auto left = below(4); left > 0; --left)
            all.insert(all.begin() + static_cast<std::ptrdiff_t>(below(all.size() + 1)),
                       below(std::size(known)));
        if (!all.empty() && once_in(2)) std::swap(all.front(), all[below(all.size())]);
        return all;
    }
    rule_set before()
    {
        rule_set set;
        set.automark = !once_in(10);
        set.forward = static_cast<int>(once_in(5) ? below(4) : 1);
        set.output = static_cast<int>(once_in(5) ? below(4) : 1);
        set.rules = list();
        if (set.automark) set.automark_rules = list();
        return set;
    }
    rule_set after(const rule_set &before)
    {
        rule_set set;
        set.rules = changed(before.rules);
        set.automark_rules = changed(before.automark_rules);
        return set;
    }

private:
    std::mt19937 random_;
};

// ---- Counters -----------------------------------------------------------------------------------

struct counted {
    string rule;
    int packets;
};

// The rules of a chain with their counters, from "-A CHAIN ... -c 3 6 -j ..."
std::vector<counted> counters(const string &chain)
{
    const tool::run_result listed = tool::run({"iptables", "-t", "mangle", "-v", "-S", chain});
    static const std::regex form(R"((.*?) -c (\d+) \d+(.*))");
    std::vector<counted> all;
    for (const string &line : tool::lines_of(listed.out)) {
        std::smatch part;
        if (line.starts_with("-A") && std::regex_match(line, part, form))
            all.push_back({part[1].str() + part[3].str(), std::stoi(part[2].str())});
    }
    return all;
}

// The textbook's table
std::size_t most_in_common(const lines &a, const lines &b)
{
    std::vector<std::vector<std::size_t>> n(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i < a.size(); ++i)
        for (std::size_t j = 0; j < b.size(); ++j)
            n[i + 1][j + 1] = a[i] == b[j] ? n[i][j] + 1 : std::max(n[i][j + 1], n[i + 1][j]);
    return n[a.size()][b.size()];
}

lines of_chain(const lines &all, const string &chain)
{
    lines own;
    for (const string &line : all)
        if (line == "-A " + chain || line.starts_with("-A " + chain + " ")) own.push_back(line);
    return own;
}

// Whether as many rules as can be went on counting, each with what it had counted; "" when they did
string counting(const rule_set &before, const rule_set &after)
{
    const lines old = listing(before);
    lines numbered;  // the n-th is the one that has seen n + 1 packets
    std::copy_if(old.begin(), old.end(), std::back_inserter(numbered),
                 [](const string &line) { return line.starts_with("-A"); });
    for (const char *chain : {"QOS_q0", "QOS_q0_AUTO"}) {
        const lines is = of_chain(listing(after), chain);
        const std::vector<counted> seen = counters(chain);
        std::size_t went_on = 0;
        if (seen.size() != is.size()) return "not all counters are listed";
        for (const counted &c : seen) {
            if (c.packets == 0) continue;
            ++went_on;
            if (numbered.at(static_cast<std::size_t>(c.packets) - 1) != c.rule)
                return c.rule + " has the counter of another rule";
        }
        if (went_on != most_in_common(of_chain(old, chain), is))
            return tool::format("%zu rules of %s kept their counters", went_on, chain);
    }
    for (const counted &c : counters("FORWARD"))
        if (c.rule == "-A FORWARD -o q1 -j other" && c.packets == 777) return "";
    return "the foreign rule is not as it was";
}

// ---- The proof ----------------------------------------------------------------------------------

// "", or what is wrong
string exchanged_and_restored(const rule_set &before, const rule_set &after)
{
    const tool::iptables tables("q0", 5);
    string why;
    const lines old = listing(before);
    const lines wanted = listing(after);
    if (!tool::run({"iptables-restore", "-c"}, input(before)).ok()) return "cannot be set up";
    if (tables.list(why) != old) return "is listed otherwise";
    if (tables.tried(tool::texts_of(lines_to_load(script(after), "q0"))) != wanted)
        return "is tried otherwise";
    const auto exchange = lines_to_exchange(script(after), "q0", old, old, wanted);
    if (!exchange) return "nobody can tell";
    lines commands;
    for (const tool::exchanged_line &line : *exchange) commands.push_back(line.what.text);
    const tool::run_result loaded = tables.restore(commands);
    if (!loaded.ok()) return "refused: " + loaded.err + text_of(commands);
    if (const auto is = tables.list(why); is != wanted)
        return "is\n" + text_of(is.value_or(lines())) + "behind\n" + text_of(commands);
    if (const string wrong = counting(before, after); !wrong.empty())
        return wrong + " behind\n" + text_of(commands);
    const lines back = tool::texts_of(tool::lines_to_restore(wanted, old));
    if (!tables.restore(back).ok()) return "cannot be brought back by\n" + text_of(back);
    if (const auto is = tables.list(why); is != old)
        return "is not brought back but\n" + text_of(is.value_or(lines()));
    return "";
}

string all_pairs()
{
    if (!tool::run({"iptables-restore", "-c"}, input({})).ok()) return "no mangle table";
    for (unsigned i = 0; i < pairs; ++i) {
        chance random(i);
        const rule_set before = random.before();
        const rule_set after = random.after(before);
        const string wrong = exchanged_and_restored(before, after);
        if (!wrong.empty())
            return tool::format("pair %u: %s\nfrom\n%sto\n%s", i, wrong.c_str(),
                                text_of(listing(before)).c_str(), text_of(listing(after)).c_str());
    }
    return "";
}

// What a load that only tests does; "" when that is nothing, and it tells what would be refused
string tested()
{
    if (!tool::run({"iptables-restore", "-c"}, input({})).ok()) return "no mangle table";
    const tool::iptables tables("q0", 5);
    const tool::iptables tests = tables.for_a_test();
    string why;
    if (!tests.restore({"-I QOS_q0 1 -j ACCEPT", "-D QOS_q0 2"}).ok()) return "a load is refused";
    if (tables.list(why) != listing({})) return "a test changed the chains";
    // The one for nftables looks at no more than the words.
    if (tests.restore({"-A QOS_q0 -m dscp --dscp 99"}).ok()) return "a wrong rule is taken";
    return "";
}

class InTheKernel : public testing::TestWithParam<const char *> {
protected:
    void SetUp() override
    {
        string path = testing::TempDir() + "mordel-exchange-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(path.data()));
        folder_ = path;
        old_path_ = std::getenv("PATH");
    }
    ~InTheKernel() override
    {
        (void)::setenv("PATH", old_path_.c_str(), 1);
        (void)::unsetenv("XTABLES_LOCKFILE");
        fs::remove_all(folder_);
    }
    // Puts this program in the place of iptables; false when it is not installed.
    bool take(const string &program)
    {
        for (const char *where : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/usr/local/sbin/"}) {
            if (!fs::exists(where + program)) continue;
            for (const char *name : {"/iptables", "/iptables-restore"})
                fs::create_symlink(where + program, folder_ + name);
            (void)::setenv("PATH", (folder_ + ":" + old_path_).c_str(), 1);
            // Not the lock of the machine's own iptables
            (void)::setenv("XTABLES_LOCKFILE", (folder_ + "/lock").c_str(), 1);
            return true;
        }
        return false;
    }

    // Runs a proof in a network namespace of its own, with the program in the place of iptables.
    void prove(string (*proof)())
    {
        if (!take(GetParam())) GTEST_SKIP() << GetParam() << " is not installed";
        if (!tool::in_own_network([] { return string("is there"); }))
            GTEST_SKIP() << "no network namespace";
        const auto wrong = tool::in_own_network(proof);
        ASSERT_TRUE(wrong);
        if (*wrong == "no mangle table") GTEST_SKIP() << *wrong << " for " << GetParam();
        EXPECT_EQ("", *wrong);
    }

    string folder_;
    string old_path_;
};

TEST_P(InTheKernel, RulesAreExchangedAndTheUntouchedCountOn) { prove(all_pairs); }

TEST_P(InTheKernel, TestOfALoadChangesNothing) { prove(tested); }

INSTANTIATE_TEST_SUITE_P(Exchange, InTheKernel,
                         testing::Values("xtables-legacy-multi", "xtables-nft-multi"),
                         [](const auto &program) {
                             return program.index == 0 ? "OfItsOwnTables" : "OfNftables";
                         });

}  // namespace
