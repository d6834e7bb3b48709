// SPDX-License-Identifier: MIT
// The tree model at its edges: names stored alike, memory that runs out, a console that cannot be
// written, trees as deep as they get, and long random histories against a model.
#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "faults.h"
#include "support.h"
#include "tarnic_qos.h"
#include "tree_text.h"

namespace {

using names = std::vector<std::string>;
using test::traces;

// ---- Names stored alike ------------------------------------------------------------------------

class QosAlike : public test::mordel_test {
protected:
    const std::string stored = std::string(30, 's') + "0";
    const std::string longer = stored + "-and-more";

    int declare(u32 type, u8 bands, const u32 *rates)
    {
        switch (type) {
        case R_HTB:
            return test::add_htb(longer, rates);
        case R_HFSC:
            return test::add_hfsc(longer, rates);
        case R_PRIO:
            return test::add_prio(longer, bands, rates);
        default:
            return test::add_pfifo_fast(longer, rates);
        }
    }
};

// The tree of a first interface (link 1000, phy 2000; 3 bands), then what a second (link 3000, phy
// 4000; 2 bands) adds to it. Class 2's leaf is reset in between: "%" is where a second SFQ shows.
struct alike_case {
    u32 first, second;
    std::string classes;
};

constexpr char first_htb[] = "1 - htb 2000 2000 1000000 1000000 0, pfifo 0\n"
                             "  2 - htb 2000 2000 6000 6000 0, %\n"
                             "  3 - htb 1000 1000 6000 6000 0, pfifo 0\n";
constexpr char first_hfsc[] = "1 - hfsc 0/0/2000 0/0/2000 0/0/0 0/0/0, pfifo 0\n"
                              "  2 - hfsc 0/0/2000 0/0/2000 0/0/0 0/0/0, %\n"
                              "  3 - hfsc 0/0/1000 0/0/1000 0/0/0 0/0/0, pfifo 0\n";
constexpr char first_prio[] = "1 Class1 prio, pfifo 0\n"
                              "2 Class2 prio, %\n"
                              "3 Class3 prio, pfifo 0\n";

TEST_F(QosAlike, TheFirstRecordGetsTheClassesOfBoth)
{
    const std::string bands = test::bands_text(2);
    // The parameters are those of the second's root type, in the class type of the first's: the
    // five HTB numbers are an HFSC class's first five, and the other way round.
    const std::string htb_in_htb = "1 - htb 4000 4000 1000000 1000000 0, pfifo 0\n";
    const std::string hfsc_in_htb = "1 - htb 0 0 4000 0 0, pfifo 0\n";
    const std::string htb_in_hfsc = "1 - hfsc 4000/4000/1000000 1000000/0/0 0/0/0 0/0/0, pfifo 0\n";
    const std::string hfsc_in_hfsc = "1 - hfsc 0/0/4000 0/0/4000 0/0/0 0/0/0, pfifo 0\n";
    const alike_case cases[] = {
        {R_pfifo_fast, R_pfifo_fast, ""},
        {R_pfifo_fast, R_HTB, ""},
        {R_pfifo_fast, R_HFSC, ""},
        {R_pfifo_fast, R_PRIO, bands},
        {R_HTB, R_pfifo_fast, first_htb},
        {R_HTB, R_HTB, first_htb + htb_in_htb},
        {R_HTB, R_HFSC, first_htb + hfsc_in_htb},
        {R_HTB, R_PRIO, first_htb + bands},
        {R_HFSC, R_pfifo_fast, first_hfsc},
        {R_HFSC, R_HTB, first_hfsc + htb_in_hfsc},
        {R_HFSC, R_HFSC, first_hfsc + hfsc_in_hfsc},
        {R_HFSC, R_PRIO, first_hfsc + bands},
        {R_PRIO, R_pfifo_fast, first_prio},
        {R_PRIO, R_HTB, first_prio},
        {R_PRIO, R_HFSC, first_prio},
        {R_PRIO, R_PRIO, first_prio + bands},
    };
    const u32 first_rates[4] = {1000, 1, 2000, 1};
    const u32 second_rates[4] = {3000, 2, 4000, 2};
    for (const auto &row : cases) {
        SCOPED_TRACE(std::to_string(row.first) + ", then " + std::to_string(row.second));
        const bool builds = row.second == R_HTB || row.second == R_HFSC;
        std::string expected = row.classes;
        if (const size_t at = expected.find('%'); at != std::string::npos)
            expected.replace(at, 1, builds ? "sfq 10" : "pfifo 0");

        ASSERT_EQ(0, declare(row.first, 3, first_rates));
        del_leaf_qdisc(stored.c_str(), 2);
        test::console();
        ASSERT_EQ(0, declare(row.second, 2, second_rates));
        EXPECT_EQ((traces{test::not_found(longer)}), test::console());
        ASSERT_EQ((names{stored, stored}), test::interface_names());
        const auto both = test::interfaces();
        EXPECT_EQ(row.first, both[0]->root_type);
        EXPECT_EQ(row.second, both[1]->root_type);
        EXPECT_EQ(2000U, both[0]->phy_tx);
        EXPECT_EQ(4000U, both[1]->phy_tx);
        EXPECT_EQ(expected, test::tree(both[0]->classes));
        EXPECT_EQ("", test::tree(both[1]->classes));

        EXPECT_EQ(both[0], mordel::root_qdisc_find_by_name(stored.c_str()));
        EXPECT_EQ(0, del_root_qdisc(stored.c_str()));
        EXPECT_EQ(both[1], mordel::root_qdisc_find_by_name(stored.c_str()));
        EXPECT_EQ(0, del_root_qdisc(stored.c_str()));
        EXPECT_EQ(1U, list_empty(&qos_root));
        test::console();
    }
}

TEST_F(QosAlike, DeletionFreesTheClassesOfBoth)
{
    for (const u32 first : {R_pfifo_fast, R_HTB, R_HFSC, R_PRIO}) {
        for (const u32 second : {R_pfifo_fast, R_HTB, R_HFSC, R_PRIO}) {
            SCOPED_TRACE(std::to_string(first) + ", then " + std::to_string(second));
            test::expect_nothing_kept([&] {
                ASSERT_EQ(0, declare(first, 3, test::speeds));
                ASSERT_EQ(0, declare(second, 2, test::speeds));
                ASSERT_EQ(0, del_root_qdisc(stored.c_str()));
                ASSERT_EQ(0, del_root_qdisc(stored.c_str()));
            });
        }
    }
}

TEST_F(QosAlike, DifferentNamesWithTheSame31CharactersAreStoredAlike)
{
    ASSERT_EQ(0, test::add_htb(stored));
    ASSERT_EQ(0, test::add_prio(stored + "x", 1));
    ASSERT_EQ(0, test::add_prio(stored + "y", 1));
    EXPECT_EQ((names{stored, stored, stored}), test::interface_names());
    const auto all = test::interfaces();
    EXPECT_EQ(test::default_htb + test::bands_text(1) + test::bands_text(1),
              test::tree(all[0]->classes));
    EXPECT_EQ("", test::tree(all[1]->classes));
    EXPECT_EQ("", test::tree(all[2]->classes));
    EXPECT_EQ(2, test::add_htb(stored));
    // With the first gone the next one answers to the name, without classes.
    EXPECT_EQ(1, check_Key(stored.c_str(), 2));
    EXPECT_EQ(0, del_root_qdisc(stored.c_str()));
    EXPECT_EQ(0, check_Key(stored.c_str(), 1));
    EXPECT_EQ(4, add_class(stored.c_str(), 0, 1, nullptr, nullptr));
}

// ---- Memory ------------------------------------------------------------------------------------

class QosMemory : public test::mordel_test {
protected:
    // What the n-th failing allocation of one declaration leaves.
    struct outcome {
        int code;
        std::string classes;  // of the only interface; "-": there is none
    };

    static std::string only_tree()
    {
        const auto all = test::interfaces();
        return all.empty() ? "-" : test::tree(all[0]->classes);
    }

    // Declares with the 1st, 2nd, ... allocation failing, until none did: outcomes[n - 1].
    static void expect_outcomes(const std::function<int()> &declare,
                                const std::vector<outcome> &outcomes)
    {
        for (size_t n = 1; n <= outcomes.size(); ++n) {
            SCOPED_TRACE(n);
            {
                const test::watch watch("calloc", static_cast<int>(n));
                EXPECT_EQ(outcomes[n - 1].code, declare());
                EXPECT_EQ(n < outcomes.size(), watch.failed());
            }
            EXPECT_EQ(outcomes[n - 1].classes, only_tree());
            EXPECT_EQ((traces{test::not_found("eth0")}), test::console());
            const bool declared = outcomes[n - 1].classes != "-";
            EXPECT_EQ(declared ? 0 : 1, del_root_qdisc("eth0"));
            test::expect_nothing_kept([&] {
                const test::watch watch("calloc", static_cast<int>(n));
                declare();
                if (!list_empty(&qos_root)) del_root_qdisc("eth0");
            });
            test::console();
        }
    }
};

TEST_F(QosMemory, HtbDeclarationWithTheNthAllocationFailing)
{
    expect_outcomes([] { return test::add_htb("eth0"); },
                    {{3, "-"},
                     {0, ""},
                     {0, "1 - htb 100000 100000 1000000 1000000 0, pfifo 0\n"
                         "  3 - htb 20000 20000 6000 6000 0, pfifo 0\n"},
                     {0, "1 - htb 100000 100000 1000000 1000000 0, pfifo 0\n"
                         "  2 - htb 100000 100000 6000 6000 0, sfq 10\n"},
                     {0, test::default_htb}});
}

TEST_F(QosMemory, HfscDeclarationWithTheNthAllocationFailing)
{
    expect_outcomes([] { return test::add_hfsc("eth0"); },
                    {{3, "-"},
                     {0, ""},
                     {0, "1 - hfsc 0/0/100000 0/0/100000 0/0/0 0/0/0, pfifo 0\n"
                         "  3 - hfsc 0/0/20000 0/0/20000 0/0/0 0/0/0, pfifo 0\n"},
                     {0, "1 - hfsc 0/0/100000 0/0/100000 0/0/0 0/0/0, pfifo 0\n"
                         "  2 - hfsc 0/0/100000 0/0/100000 0/0/0 0/0/0, sfq 10\n"},
                     {0, test::default_hfsc}});
}

TEST_F(QosMemory, PrioDeclarationKeepsTheBandsMadeSoFar)
{
    expect_outcomes([] { return test::add_prio("eth0", 3); }, {{3, "-"},
                                                               {0, ""},
                                                               {0, test::bands_text(1)},
                                                               {0, test::bands_text(2)},
                                                               {0, test::bands_text(3)}});
}

TEST_F(QosMemory, PfifoFastDeclarationAllocatesTheRecordAlone)
{
    expect_outcomes([] { return test::add_pfifo_fast("eth0"); }, {{3, "-"}, {0, ""}});
}

TEST_F(QosMemory, ShortMemoryIsFoundBeforeAnUnknownRootType)
{
    const test::watch watch("calloc", 1);
    EXPECT_EQ(3, add_root_qdisc(test::speeds, "eth0", 4, nullptr));
    EXPECT_TRUE(watch.failed());
    EXPECT_EQ((traces{test::not_found("eth0")}), test::console());
    EXPECT_EQ(3, add_root_qdisc(test::speeds, "eth0", 4, nullptr));
    EXPECT_EQ((traces{test::not_found("eth0"), test::undefined_root("add_root_qdisc")}),
              test::console());
}

TEST_F(QosMemory, PrioBuilderReturnsThreeAndKeepsTheBandsMadeSoFar)
{
    ASSERT_EQ(0, test::add_prio("eth0", 0));
    test::console();
    for (int n = 1; n <= 5; ++n) {
        SCOPED_TRACE(n);
        {
            const test::watch watch("calloc", n);
            EXPECT_EQ(n < 5 ? 3 : 0, mordel::add_prio_classes("eth0", 4));
            EXPECT_EQ(n < 5, watch.failed());
            EXPECT_EQ(n < 5 ? static_cast<size_t>(n) : 4U, watch.calls("calloc").size())
                << "no further band is tried";
        }
        EXPECT_EQ(test::bands_text(n - 1), only_tree());
        while (!list_empty(&test::interfaces()[0]->classes))
            ASSERT_EQ(
                0, del_class("eth0", test::class_of(test::interfaces()[0]->classes.next).handle));
    }
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(QosMemory, ClassThatCannotBeAllocatedReturnsThree)
{
    ASSERT_EQ(0, test::add_htb("eth0"));
    test::console();
    const auto param = test::htb(1, 2, 3, 4, 5);
    for (const u32 parent : {0U, 3U}) {
        {
            const test::watch watch("calloc", 1);
            EXPECT_EQ(3, add_class("eth0", parent, 9, &param, "x"));
            EXPECT_EQ(1U, watch.calls("calloc").size());
        }
        EXPECT_EQ(test::default_htb, only_tree());
        EXPECT_EQ(0, check_Key("eth0", 9));
        EXPECT_EQ(1, check_Key("eth0", 3));
        {
            const test::watch watch("calloc", 2);
            EXPECT_EQ(0, add_class("eth0", parent, 9, &param, "x"));
            EXPECT_FALSE(watch.failed());
        }
        EXPECT_EQ(1, check_Key("eth0", 9));
        EXPECT_EQ(0, del_class("eth0", 9));
    }
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(QosMemory, OnlyDeclarationAndAdditionAllocate)
{
    ASSERT_EQ(0, test::add_htb("eth0"));
    const leaf_qdisc leaf = test::pfifo(1);
    for (const char *function : {"calloc", "malloc"}) {
        const test::watch watch(function, -1);
        EXPECT_EQ(0, add_leaf_qdisc("eth0", 3, &leaf));
        EXPECT_EQ(0, del_leaf_qdisc("eth0", 3));
        EXPECT_EQ(1, check_Key("eth0", 3));
        EXPECT_EQ(1, del_class("eth0", 9));
        EXPECT_NE(nullptr, mordel::class_find("eth0", 2));
        EXPECT_EQ(2, test::add_htb("eth0"));
        EXPECT_EQ(1, del_root_qdisc("eth1"));
        EXPECT_FALSE(watch.failed());
    }
    const test::watch watch("calloc", -1);
    EXPECT_EQ(0, del_class("eth0", 3));
    EXPECT_EQ(0, del_root_qdisc("eth0"));
    EXPECT_FALSE(watch.failed());
}

// ---- Console -----------------------------------------------------------------------------------

class QosTrace : public test::mordel_test {
protected:
    static constexpr int kept_flags = O_ACCMODE | O_APPEND | O_CLOEXEC | O_CREAT | O_TRUNC;

    // One open, one write of the whole text, one close, on the console.
    static void expect_one_trace(const std::vector<test::call> &calls, size_t from,
                                 const std::string &text)
    {
        ASSERT_LE(from + 3, calls.size());
        EXPECT_EQ("open", calls[from].function);
        EXPECT_EQ("/dev/console", calls[from].text);
        EXPECT_EQ(O_WRONLY | O_APPEND | O_CLOEXEC, calls[from].flags & kept_flags);
        EXPECT_EQ("write", calls[from + 1].function);
        EXPECT_EQ(text, calls[from + 1].text);
        EXPECT_EQ(calls[from].fd, calls[from + 1].fd);
        EXPECT_EQ("close", calls[from + 2].function);
        EXPECT_EQ(calls[from].fd, calls[from + 2].fd);
    }
};

TEST_F(QosTrace, IsOneOpenOneWriteOneClose)
{
    std::vector<test::call> calls;
    {
        const test::watch watch;
        EXPECT_EQ(3, add_root_qdisc(test::speeds, "eth0", 4, nullptr));
        calls = watch.calls();
    }
    const auto lines = test::console_lines();
    ASSERT_EQ(2U, lines.size());
    ASSERT_EQ(6U, calls.size());
    for (size_t i = 0; i < 2; ++i) {
        const std::string number = std::to_string(lines[i].line);
        const std::string text = "[      tarnic_qos:" + std::string(5 - number.size(), ' ') +
                                 number + " " +
                                 (i == 0 ? "root_qdisc_find_by_name()]:::eth0 not found!!\n"
                                         : "  add_root_qdisc()]:::Internel error occur at not "
                                           "define root qdisc type\n");
        expect_one_trace(calls, 3 * i, text);
    }
    EXPECT_NE(lines[0].line, lines[1].line);
}

// Every length near the sizes a buffer might have, so that none of them is a limit.
TEST_F(QosTrace, NamesOfAnyLengthAreWrittenWhole)
{
    std::vector<size_t> sizes = {2000, 4000, 4096, 20000};
    for (size_t size = 0; size <= 1100; ++size) sizes.push_back(size);
    for (const size_t size : sizes) {
        SCOPED_TRACE(size);
        std::string name(size, 'n');
        for (size_t i = 0; i < size; i += 7) name[i] = static_cast<char>('a' + i % 26);
        std::vector<test::call> calls;
        {
            const test::watch watch;
            ASSERT_EQ(1, del_root_qdisc(name.c_str()));
            calls = watch.calls();
        }
        const std::string raw = test::console_raw();
        ASSERT_EQ(name + " not found!!\n", raw.substr(raw.find(":::") + 3));
        ASSERT_EQ(3U, calls.size());
        expect_one_trace(calls, 0, raw);
    }
}

TEST_F(QosTrace, ShortMemoryForALongLineChangesNoResult)
{
    const std::string name(600, 'n');
    {
        const test::watch watch("malloc", -1);
        EXPECT_EQ(1, del_root_qdisc(name.c_str()));
        EXPECT_EQ(1U, watch.calls("open").size());
        EXPECT_EQ(1U, watch.calls("write").size());
        EXPECT_EQ(1U, watch.calls("close").size());
    }
    const std::string raw = test::console_raw();
    EXPECT_EQ(raw.size() - 1, raw.find('\n')) << "a line, whatever of it is left";
}

TEST_F(QosTrace, LongNameIsDeclaredLikeAnyOther)
{
    const std::string name(600, 'n');
    EXPECT_EQ(0, test::add_htb(name));
    EXPECT_EQ((names{std::string(31, 'n')}), test::interface_names());
    EXPECT_EQ((traces{test::not_found(name)}), test::console());
    EXPECT_EQ(test::default_htb, test::tree(test::interfaces()[0]->classes));
}

TEST_F(QosTrace, ConsoleThatFailsChangesNoResult)
{
    const auto param = test::htb(1, 2, 3, 4, 5);
    const leaf_qdisc leaf{};
    for (const char *function : {"open", "write", "close"}) {
        SCOPED_TRACE(function);
        test::console_raw();
        {
            const test::watch watch(function, -1, EIO);
            EXPECT_EQ(0, test::add_htb("eth0"));
            EXPECT_TRUE(watch.failed());
            EXPECT_EQ(3, add_root_qdisc(test::speeds, "eth1", 4, nullptr));
            EXPECT_EQ(1, add_class("eth1", 0, 1, &param, nullptr));
            EXPECT_EQ(1, del_class("eth1", 1));
            EXPECT_EQ(1, add_leaf_qdisc("eth1", 1, &leaf));
            EXPECT_EQ(1, del_leaf_qdisc("eth1", 1));
            EXPECT_EQ(0, check_Key("eth1", 1));
            EXPECT_EQ(1, del_root_qdisc("eth1"));
            EXPECT_EQ(test::default_htb, test::tree(test::interfaces()[0]->classes));
            test::interfaces()[0]->root_type = 4;
            EXPECT_EQ(0, del_class("eth0", 1));
            EXPECT_EQ(0, del_root_qdisc("eth0"));
            EXPECT_EQ(1U, list_empty(&qos_root));
            const size_t skipped = function == std::string("open") ? 0 : 10;
            EXPECT_EQ(10U, watch.calls("open").size());
            EXPECT_EQ(skipped, watch.calls("write").size());
            EXPECT_EQ(skipped, watch.calls("close").size());
        }
        EXPECT_EQ(function == std::string("close"), !test::console_raw().empty());
    }
    EXPECT_EQ("", test::log_raw());
}

// ---- Depth -------------------------------------------------------------------------------------

constexpr u16 levels = 2000;
constexpr u16 twig = 10000;  // the handle of level n's other child is twig + n

class QosDepth : public test::mordel_test {
protected:
    // A chain 1, 2, 3 ... where each class but the last has its twig first.
    static int build()
    {
        const auto param = test::htb(1, 2, 3, 4, 5);
        if (test::add_htb("eth0") != 0 || del_class("eth0", 1) != 0) return -1;
        int failed = add_class("eth0", 0, 1, &param, nullptr) != 0;
        for (u16 n = 1; n < levels; ++n) {
            failed += add_class("eth0", n, u32{twig} + n, &param, nullptr) != 0;
            failed += add_class("eth0", n, n + 1U, &param, nullptr) != 0;
        }
        return failed;
    }
};

TEST_F(QosDepth, TreeOfTwoThousandLevelsOnASmallStack)
{
    int unbuilt = -1;
    std::vector<int> keys;
    std::vector<int> found;
    std::vector<int> codes;
    keys.reserve(32);
    found.reserve(32);
    codes.reserve(32);
    test::on_a_small_stack([&] {
        unbuilt = build();
        for (const u32 key : {2000U, 1999U, 11999U, 10001U, 1U, 2001U, 12000U})
            keys.push_back(check_Key("eth0", key));
        for (const u32 handle : {1U, 2U, 1000U, 2000U, 11000U, 11999U}) {
            const qos_class *cls = mordel::class_find("eth0", handle);
            found.push_back(cls == nullptr ? -1 : cls->handle);
        }
        const leaf_qdisc leaf = test::pfifo(7);
        codes.push_back(add_leaf_qdisc("eth0", 2000, &leaf));
        codes.push_back(add_leaf_qdisc("eth0", 1999, &leaf));
        codes.push_back(del_leaf_qdisc("eth0", 2000));
        codes.push_back(del_class("eth0", 1001));
        for (const u32 key : {2000U, 1001U, 1000U, 11000U, 11001U, 10999U})
            keys.push_back(check_Key("eth0", key));
        codes.push_back(del_root_qdisc("eth0"));
        codes.push_back(check_Key("eth0", 1));
    });
    EXPECT_EQ(0, unbuilt);
    EXPECT_EQ((std::vector<int>{1, 0, 1, 1, 0, 0, 0, 0, 0, 0, 1, 0, 1}), keys);
    EXPECT_EQ((std::vector<int>{1, 2, 1000, 2000, 11000, 11999}), found);
    EXPECT_EQ((std::vector<int>{0, 4, 0, 0, 0, 0}), codes);
    EXPECT_EQ((traces{test::not_found("eth0"), test::not_found("eth0")}), test::console());
}

TEST_F(QosDepth, WholeTreeIsDeletedFromItsRootOnASmallStack)
{
    std::vector<int> codes;
    codes.reserve(32);
    test::on_a_small_stack([&] {
        codes.push_back(build());
        codes.push_back(del_class("eth0", 1));
        codes.push_back(del_root_qdisc("eth0"));
        codes.push_back(build());
        codes.push_back(del_root_qdisc("eth0"));
    });
    EXPECT_EQ((std::vector<int>{0, 0, 0, 0, 0}), codes);
    EXPECT_EQ(1U, list_empty(&qos_root));
}

// ---- Histories ---------------------------------------------------------------------------------

// The tree as plain recursion sees it.
struct model {
    u16 handle = 0;
    u32 leaf = 0;  // pfifo limit
    std::vector<std::unique_ptr<model>> below;

    model *find(u16 wanted)
    {
        for (const auto &child : below) {
            if (child->handle == wanted) return child.get();
            if (model *deeper = child->find(wanted)) return deeper;
        }
        return nullptr;
    }

    bool remove(u16 wanted)
    {
        for (size_t i = 0; i < below.size(); ++i) {
            if (below[i]->handle == wanted) {
                below.erase(below.begin() + static_cast<std::ptrdiff_t>(i));
                return true;
            }
            if (below[i]->remove(wanted)) return true;
        }
        return false;
    }

    std::string text(const std::string &indent = "") const
    {
        std::string all;
        for (const auto &child : below)
            all += indent + std::to_string(child->handle) + " - htb 1 2 3 4 5, pfifo " +
                   std::to_string(child->leaf) + "\n" + child->text(indent + "  ");
        return all;
    }
};

class QosHistory : public test::mordel_test {
protected:
    int expected_add(u16 parent, u16 handle)
    {
        model *above = parent == 0 ? &root : root.find(parent);
        if (above == nullptr) return 1;
        if (parent != 0 && root.find(handle) != nullptr) return 2;
        above->below.push_back(std::make_unique<model>());
        above->below.back()->handle = handle;
        return 0;
    }

    int expected_leaf(u16 handle, u32 limit, int busy)
    {
        model *cls = root.find(handle);
        if (cls == nullptr) return 1;
        if (!cls->below.empty()) return busy;
        cls->leaf = limit;
        return 0;
    }

    model root;
};

TEST_F(QosHistory, RandomOperationsAgreeWithARecursiveModel)
{
    const auto param = test::htb(1, 2, 3, 4, 5);
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::minstd_rand random(seed);
        const auto below = [&](u32 n) { return static_cast<u32>(random() >> 4) % n; };
        ASSERT_EQ(0, test::add_htb("eth0"));
        ASSERT_EQ(0, del_class("eth0", 1));
        root.below.clear();
        for (int step = 0; step < 400; ++step) {
            const u16 handle = u16(below(24));
            const u16 parent = u16(below(8) == 0 ? 0 : below(24));
            const u32 wrap = below(3) << 16;
            switch (below(10)) {
            case 0: {
                const int expected = root.remove(handle) ? 0 : 1;
                ASSERT_EQ(expected, del_class("eth0", wrap + handle));
                break;
            }
            case 1: {
                const leaf_qdisc leaf = test::pfifo(u32(step));
                ASSERT_EQ(expected_leaf(handle, u32(step), 4),
                          add_leaf_qdisc("eth0", wrap + handle, &leaf));
                break;
            }
            case 2:
                ASSERT_EQ(expected_leaf(handle, 0, 1), del_leaf_qdisc("eth0", wrap + handle));
                break;
            case 3: {
                const model *cls = root.find(handle);
                ASSERT_EQ(cls != nullptr && cls->below.empty() ? 1 : 0,
                          check_Key("eth0", wrap + handle));
                break;
            }
            default:
                ASSERT_EQ(expected_add(parent, handle),
                          add_class("eth0", wrap + parent, wrap + handle, &param, "x"));
            }
            ASSERT_EQ(root.text(), test::tree(test::interfaces()[0]->classes)) << step;
        }
        ASSERT_EQ(0, del_root_qdisc("eth0"));
    }
}

}  // namespace
