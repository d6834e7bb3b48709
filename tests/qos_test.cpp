// SPDX-License-Identifier: MIT
// The tree model: interfaces, their default trees, classes, leaf qdiscs, lookups.
#include "tarnic_qos.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "faults.h"
#include "fence.h"
#include "support.h"
#include "tree_text.h"

namespace {

using names = std::vector<std::string>;
using test::traces;

// ---- Names -------------------------------------------------------------------------------------

class QosNames : public test::mordel_test {};

TEST_F(QosNames, EachTableHoldsItsRowsInOrder)
{
    using rows = std::vector<std::pair<int, std::string>>;
    const struct {
        const txt_map *table;
        rows expected;
    } cases[] = {
        {mordel::RootQdiscTypeMap,
         {{0, "R_pfifo_fast"}, {1, "R_HTB"}, {2, "R_HFSC"}, {3, "R_PRIO"}, {-1, "Unknown"}}},
        {mordel::ClassTypeMap, {{0, "C_HTB"}, {1, "C_HFSC"}, {2, "C_PRIO"}, {-1, "Unknown"}}},
        {mordel::LeafQdiscTypeMap,
         {{0, "L_pfifo"}, {1, "L_SFQ"}, {2, "L_RED"}, {3, "L_TBF"}, {-1, "Unknown"}}},
        {mordel::CurveTypeMap, {{0, "ul"}, {1, "sc"}, {2, "ls"}, {3, "rt"}, {-1, "Unknown"}}},
    };
    for (const auto &row : cases) {
        rows found;
        const txt_map *at = row.table;
        do found.emplace_back(at->id, at->text);
        while (at++->id != -1);
        EXPECT_EQ(row.expected, found);
        for (const auto &[id, text] : row.expected) {
            EXPECT_EQ(text, TxtMapById(row.table, id));
            EXPECT_EQ(id, id == -1 ? -1 : TxtMapByTxt(row.table, text.c_str()));
        }
        EXPECT_STREQ("Unknown", TxtMapById(row.table, static_cast<int>(row.expected.size()) - 1));
    }
}

TEST_F(QosNames, ClassTypeOfEachRootType)
{
    const std::vector<std::pair<int, int>> expected = {{0, -1}, {1, 0}, {2, 1}, {3, -1}, {-1, -1}};
    std::vector<std::pair<int, int>> found;
    const id_map *at = mordel::RootClassTypeMap;
    do found.emplace_back(at->id, at->value);
    while (at++->id != -1);
    EXPECT_EQ(expected, found);
    EXPECT_EQ(-1, MapById(mordel::RootClassTypeMap, R_pfifo_fast));
    EXPECT_EQ(C_HTB, MapById(mordel::RootClassTypeMap, R_HTB));
    EXPECT_EQ(C_HFSC, MapById(mordel::RootClassTypeMap, R_HFSC));
    EXPECT_EQ(-1, MapById(mordel::RootClassTypeMap, R_PRIO));
    EXPECT_EQ(-1, MapById(mordel::RootClassTypeMap, 4));
}

TEST_F(QosNames, TypesHaveTheirNumbers)
{
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3}),
              (std::vector<int>{R_pfifo_fast, R_HTB, R_HFSC, R_PRIO}));
    EXPECT_EQ((std::vector<int>{0, 1, 2}), (std::vector<int>{C_HTB, C_HFSC, C_PRIO}));
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3}), (std::vector<int>{L_pfifo, L_SFQ, L_RED, L_TBF}));
    EXPECT_EQ(
        (std::vector<int>{0, 1, 2, 3}),
        (std::vector<int>{mordel::curve_ul, mordel::curve_sc, mordel::curve_ls, mordel::curve_rt}));
}

// ---- Interfaces --------------------------------------------------------------------------------

class QosRoot : public test::mordel_test {};

// The record less its links: name bytes, speeds, type, empty rules.
void expect_record(const qos_if &rec, const std::string &name, u32 type)
{
    char stored[32] = {};
    name.copy(stored, 31);
    EXPECT_EQ(0, std::memcmp(stored, rec.ifname, sizeof stored)) << rec.ifname;
    EXPECT_EQ(20000U, rec.link_tx);
    EXPECT_EQ(512U, rec.link_rx);
    EXPECT_EQ(100000U, rec.phy_tx);
    EXPECT_EQ(1024U, rec.phy_rx);
    EXPECT_EQ(type, rec.root_type);
    EXPECT_EQ(&rec.rules, rec.rules.next);
    EXPECT_EQ(&rec.rules, rec.rules.prev);
}

TEST_F(QosRoot, ListIsEmptyAtStartAndAfterTheLastDeletion)
{
    EXPECT_EQ(&qos_root, qos_root.next);
    EXPECT_EQ(&qos_root, qos_root.prev);
    EXPECT_EQ(0, test::add_htb("eth0"));
    EXPECT_EQ(0U, list_empty(&qos_root));
    EXPECT_EQ(0, del_root_qdisc("eth0"));
    EXPECT_EQ(&qos_root, qos_root.next);
    EXPECT_EQ(&qos_root, qos_root.prev);
}

TEST_F(QosRoot, HtbStartsWithItsDefaultTree)
{
    class_root_param param{};
    param.default_class = 0x1234;
    param.automark = test::automark(1, 70);
    const test::fenced<class_root_param> given(param);
    const test::fenced_bytes rates(test::speeds, sizeof test::speeds);
    const test::fenced_text name("eth0");
    ASSERT_EQ(0, add_root_qdisc(reinterpret_cast<const u32 *>(rates.data()), name, R_HTB, given));
    ASSERT_EQ((names{"eth0"}), test::interface_names());
    qos_if &rec = *test::interfaces()[0];
    expect_record(rec, "eth0", R_HTB);
    EXPECT_EQ(0x1234, rec.param.classful.default_class);
    EXPECT_EQ(0, std::memcmp(&param, &rec.param.classful, sizeof param));
    EXPECT_EQ(test::default_htb, test::tree(rec.classes));
    EXPECT_EQ((traces{test::not_found("eth0")}), test::console());
    EXPECT_EQ("", test::log_raw());
}

TEST_F(QosRoot, HfscStartsWithItsDefaultTree)
{
    class_root_param param{};
    param.default_class = 0xFFFF;
    param.automark = test::automark(0, 900);
    const test::fenced<class_root_param> given(param);
    ASSERT_EQ(0, add_root_qdisc(test::speeds, "ppp0", R_HFSC, given));
    ASSERT_EQ((names{"ppp0"}), test::interface_names());
    qos_if &rec = *test::interfaces()[0];
    expect_record(rec, "ppp0", R_HFSC);
    EXPECT_EQ(0xFFFF, rec.param.classful.default_class);
    EXPECT_EQ(0, std::memcmp(&param, &rec.param.classful, sizeof param));
    EXPECT_EQ(test::default_hfsc, test::tree(rec.classes));
    EXPECT_EQ((traces{test::not_found("ppp0")}), test::console());
}

TEST_F(QosRoot, PrioStartsWithAClassPerBand)
{
    for (const u8 bands : {u8{0}, u8{1}, u8{2}, u8{3}, u8{16}, u8{255}}) {
        SCOPED_TRACE(int{bands});
        prio_root_param param{};
        param.bands = bands;
        for (u8 i = 0; i < 16; ++i) param.priomap[i] = u8(15 - i);
        param.automark = test::automark(0xFF, 1000);
        const test::fenced<prio_root_param> given(param);
        ASSERT_EQ(0, add_root_qdisc(test::speeds, "wan", R_PRIO, given));
        ASSERT_EQ((names{"wan"}), test::interface_names());
        qos_if &rec = *test::interfaces()[0];
        expect_record(rec, "wan", R_PRIO);
        EXPECT_EQ(bands, rec.param.prio.bands);
        EXPECT_EQ(0, std::memcmp(param.priomap, rec.param.prio.priomap, sizeof param.priomap));
        EXPECT_EQ(0, std::memcmp(&param.automark, &rec.param.prio.automark, sizeof param.automark));
        EXPECT_EQ(test::bands_text(bands), test::tree(rec.classes));
        EXPECT_EQ((traces{test::not_found("wan")}), test::console());
        ASSERT_EQ(0, del_root_qdisc("wan"));
    }
}

TEST_F(QosRoot, PfifoFastHasNoClasses)
{
    pfifo_fast_root_param param{};
    param.queue_len = 0xFEDCBA98;
    const test::fenced<pfifo_fast_root_param> given(param);
    ASSERT_EQ(0, add_root_qdisc(test::speeds, "lan", R_pfifo_fast, given));
    ASSERT_EQ((names{"lan"}), test::interface_names());
    qos_if &rec = *test::interfaces()[0];
    expect_record(rec, "lan", R_pfifo_fast);
    EXPECT_EQ(0xFEDCBA98, rec.param.pfifo_fast.queue_len);
    EXPECT_TRUE(test::all_zero(reinterpret_cast<const char *>(&rec.param) + sizeof param,
                               sizeof rec.param - sizeof param));
    EXPECT_EQ("", test::tree(rec.classes));
    EXPECT_EQ((traces{test::not_found("lan")}), test::console());
}

TEST_F(QosRoot, EverySpeedHasItsPlaceInTheDefaultTree)
{
    constexpr u32 rates[4] = {0xFFFFFFFF, 1, 0x80000000, 2};
    ASSERT_EQ(0, test::add_htb("a", rates));
    ASSERT_EQ(0, test::add_hfsc("b", rates));
    EXPECT_EQ("1 - htb 2147483648 2147483648 1000000 1000000 0, pfifo 0\n"
              "  2 - htb 2147483648 2147483648 6000 6000 0, sfq 10\n"
              "  3 - htb 4294967295 4294967295 6000 6000 0, pfifo 0\n",
              test::tree(test::interfaces()[0]->classes));
    EXPECT_EQ("1 - hfsc 0/0/2147483648 0/0/2147483648 0/0/0 0/0/0, pfifo 0\n"
              "  2 - hfsc 0/0/2147483648 0/0/2147483648 0/0/0 0/0/0, sfq 10\n"
              "  3 - hfsc 0/0/4294967295 0/0/4294967295 0/0/0 0/0/0, pfifo 0\n",
              test::tree(test::interfaces()[1]->classes));
}

TEST_F(QosRoot, DefaultLeafsAreZeroButForTheSfq)
{
    for (const auto add : {&test::add_htb, &test::add_hfsc}) {
        ASSERT_EQ(0, add("eth0", test::speeds));
        leaf_qdisc sfq{};
        sfq.type = L_SFQ;
        sfq.param.sfq.perturb = 10;
        for (const u32 handle : {1U, 2U, 3U}) {
            const qos_class *cls = mordel::class_find("eth0", handle);
            ASSERT_NE(nullptr, cls);
            const leaf_qdisc expected = handle == 2 ? sfq : leaf_qdisc{};
            EXPECT_EQ(0, std::memcmp(&expected, &cls->leaf, sizeof expected)) << handle;
        }
        ASSERT_EQ(0, del_root_qdisc("eth0"));
    }
}

TEST_F(QosRoot, SecondDeclarationOfANameReturnsTwoAndChangesNothing)
{
    ASSERT_EQ(0, test::add_htb("eth0"));
    test::console();
    const u32 other[4] = {1, 2, 3, 4};
    EXPECT_EQ(2, test::add_htb("eth0", other));
    EXPECT_EQ(2, test::add_hfsc("eth0", other));
    EXPECT_EQ(2, test::add_prio("eth0", 3, other));
    EXPECT_EQ(2, test::add_pfifo_fast("eth0", other));
    EXPECT_EQ(2, add_root_qdisc(other, "eth0", 4, nullptr)) << "the name is looked at first";
    {
        const test::watch watch("calloc", -1);
        EXPECT_EQ(2, test::add_htb("eth0", other));
        EXPECT_FALSE(watch.failed());
    }
    EXPECT_EQ((names{"eth0"}), test::interface_names());
    qos_if &rec = *test::interfaces()[0];
    expect_record(rec, "eth0", R_HTB);
    EXPECT_EQ(3, rec.param.classful.default_class);
    EXPECT_EQ(test::default_htb, test::tree(rec.classes));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(QosRoot, UnknownRootTypeReturnsThreeAndLeavesTheListAsItWas)
{
    ASSERT_EQ(0, test::add_htb("eth0"));
    test::console();
    for (const u32 type : {4U, 5U, 255U, 256U, 65536U, 65537U, 0x80000000U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(type);
        EXPECT_EQ(3, add_root_qdisc(test::speeds, "eth1", type, nullptr));
        EXPECT_EQ((names{"eth0"}), test::interface_names());
        EXPECT_EQ((traces{test::not_found("eth1"), test::undefined_root("add_root_qdisc")}),
                  test::console());
    }
    test::expect_nothing_kept([] { add_root_qdisc(test::speeds, "eth1", 4, nullptr); });
}

TEST_F(QosRoot, InterfacesAreAppended)
{
    ASSERT_EQ(0, test::add_htb("eth1"));
    ASSERT_EQ(0, test::add_pfifo_fast("eth0"));
    ASSERT_EQ(0, test::add_prio("ppp0", 2));
    ASSERT_EQ(0, test::add_hfsc("br0"));
    EXPECT_EQ((names{"eth1", "eth0", "ppp0", "br0"}), test::interface_names());
    EXPECT_EQ(test::default_htb, test::tree(test::interfaces()[0]->classes));
    EXPECT_EQ("", test::tree(test::interfaces()[1]->classes));
    EXPECT_EQ(test::bands_text(2), test::tree(test::interfaces()[2]->classes));
    EXPECT_EQ(test::default_hfsc, test::tree(test::interfaces()[3]->classes));

    EXPECT_EQ(0, del_root_qdisc("eth0"));
    EXPECT_EQ((names{"eth1", "ppp0", "br0"}), test::interface_names());
    EXPECT_EQ(0, del_root_qdisc("br0"));
    EXPECT_EQ((names{"eth1", "ppp0"}), test::interface_names());
    EXPECT_EQ(0, test::add_pfifo_fast("eth0"));
    EXPECT_EQ((names{"eth1", "ppp0", "eth0"}), test::interface_names());
    EXPECT_EQ(0, del_root_qdisc("eth1"));
    EXPECT_EQ((names{"ppp0", "eth0"}), test::interface_names());
    EXPECT_EQ(test::bands_text(2), test::tree(test::interfaces()[0]->classes));
}

TEST_F(QosRoot, CallerKeepsWhatItPassed)
{
    u32 rates[4] = {1, 2, 3, 4};
    char name[] = "eth0";
    class_root_param param{};
    param.default_class = 9;
    ASSERT_EQ(0, add_root_qdisc(rates, name, R_HTB, &param));
    std::memset(rates, 0xFF, sizeof rates);
    std::memset(name, 'x', 4);
    param.default_class = 10;
    const qos_if &rec = *test::interfaces()[0];
    EXPECT_STREQ("eth0", rec.ifname);
    EXPECT_EQ((std::vector<u32>{1, 2, 3, 4}),
              (std::vector<u32>{rec.link_tx, rec.link_rx, rec.phy_tx, rec.phy_rx}));
    EXPECT_EQ(9, rec.param.classful.default_class);
}

TEST_F(QosRoot, NameIsStoredUpTo31Characters)
{
    for (const size_t size : {0U, 1U, 30U, 31U, 32U, 33U, 40U}) {
        SCOPED_TRACE(size);
        const std::string name(size, 'n');
        const std::string stored = name.substr(0, 31);
        const test::fenced_text given(name);
        class_root_param param{};
        ASSERT_EQ(0, add_root_qdisc(test::speeds, given, R_HTB, &param));
        EXPECT_EQ((traces{test::not_found(name)}), test::console());
        ASSERT_EQ((names{stored}), test::interface_names());
        expect_record(*test::interfaces()[0], stored, R_HTB);
        EXPECT_EQ(test::default_htb, test::tree(test::interfaces()[0]->classes));

        EXPECT_EQ(2, test::add_htb(stored));
        EXPECT_EQ(1, check_Key(stored.c_str(), 3));
        EXPECT_EQ(traces{}, test::console());
        if (size > 31) {
            EXPECT_EQ(0, check_Key(given, 3));
            EXPECT_EQ(1, del_root_qdisc(given));
            EXPECT_EQ((traces{test::not_found(name), test::not_found(name)}), test::console());
        }
        EXPECT_EQ(0, del_root_qdisc(stored.c_str()));
        EXPECT_EQ(traces{}, test::console());
    }
}

TEST_F(QosRoot, DeletionOfAnUnknownNameReturnsOne)
{
    EXPECT_EQ(1, del_root_qdisc("eth0"));
    EXPECT_EQ((traces{test::not_found("eth0")}), test::console());
    ASSERT_EQ(0, test::add_htb("eth0"));
    ASSERT_EQ(0, del_root_qdisc("eth0"));
    test::console();
    EXPECT_EQ(1, del_root_qdisc("eth0"));
    EXPECT_EQ((traces{test::not_found("eth0")}), test::console());
}

TEST_F(QosRoot, DeletionFreesTheRecordWithClassesAndRules)
{
    const auto with_rules = [](int added) {
        EXPECT_EQ(0, added);
        const qos_match match{};
        const qos_target target{};
        for (const u8 index : {u8{5}, u8{0}, u8{255}})
            EXPECT_EQ(1, add_qos_rule("eth0", index, &match, &target));
        EXPECT_EQ(0, del_root_qdisc("eth0"));
        EXPECT_EQ(1U, list_empty(&qos_root));
    };
    test::expect_nothing_kept([&] { with_rules(test::add_pfifo_fast("eth0")); });
    test::expect_nothing_kept([&] { with_rules(test::add_htb("eth0")); });
    test::expect_nothing_kept([&] { with_rules(test::add_hfsc("eth0")); });
    test::expect_nothing_kept([&] { with_rules(test::add_prio("eth0", 7)); });
    test::expect_nothing_kept([] {
        EXPECT_EQ(0, test::add_htb("eth0"));
        EXPECT_EQ(0, del_root_qdisc("eth0"));
    });
}

TEST_F(QosRoot, DeclaredAnewAnInterfaceStartsAnew)
{
    ASSERT_EQ(0, test::add_htb("eth0"));
    const qos_match match{};
    const qos_target target{};
    ASSERT_EQ(1, add_qos_rule("eth0", 1, &match, &target));
    const auto param = test::htb(1, 2, 3, 4, 5);
    ASSERT_EQ(0, add_class("eth0", 3, 4, &param, "x"));
    ASSERT_EQ(0, del_root_qdisc("eth0"));
    ASSERT_EQ(0, test::add_hfsc("eth0"));
    expect_record(*test::interfaces()[0], "eth0", R_HFSC);
    EXPECT_EQ(test::default_hfsc, test::tree(test::interfaces()[0]->classes));
}

TEST_F(QosRoot, DeletionOfAnUndefinedRootTypeReleasesNoClasses)
{
    for (const u32 type : {4U, 5U, 256U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(type);
        ASSERT_EQ(0, test::add_prio("eth0", 1));
        ASSERT_EQ(0, test::add_htb("eth1"));
        test::console();
        qos_if &rec = *test::interfaces()[0];
        qos_class *band = &test::class_of(rec.classes.next);
        band->leaf = test::red(1, 2, 3, 4, 5);
        rec.root_type = type;
        EXPECT_EQ(0, del_root_qdisc("eth0"));
        EXPECT_EQ((traces{test::undefined_root("del_root_qdisc")}), test::console());
        EXPECT_EQ((names{"eth1"}), test::interface_names());
        EXPECT_EQ("Class1", std::string(band->name));
        EXPECT_EQ(u32{C_PRIO}, band->type);
        EXPECT_EQ(1, band->handle);
        EXPECT_EQ("red 1 2 3 4 5", test::text_of(band->leaf));
        std::free(band);  // ours now
        ASSERT_EQ(0, del_root_qdisc("eth1"));
    }
}

TEST_F(QosRoot, DeletionOfAnUndefinedRootTypeFreesTheRecord)
{
    const auto run = [] {
        const qos_match match{};
        const qos_target target{};
        ASSERT_EQ(0, test::add_pfifo_fast("eth0"));
        ASSERT_EQ(1, add_qos_rule("eth0", 1, &match, &target));
        test::interface_of(qos_root.next).root_type = 4;
        ASSERT_EQ(0, del_root_qdisc("eth0"));
        ASSERT_EQ(1U, list_empty(&qos_root));
    };
    test::expect_nothing_kept(run);
}

TEST_F(QosRoot, NamesAreComparedWholeAndWithCase)
{
    ASSERT_EQ(0, test::add_htb("eth0"));
    ASSERT_EQ(0, test::add_htb("ETH0"));
    ASSERT_EQ(0, test::add_htb("eth"));
    ASSERT_EQ(0, test::add_htb("eth00"));
    ASSERT_EQ(0, test::add_htb(""));
    const auto all = test::interfaces();
    ASSERT_EQ(5U, all.size());
    test::console();
    EXPECT_EQ(all[0], mordel::root_qdisc_find_by_name("eth0"));
    EXPECT_EQ(all[1], mordel::root_qdisc_find_by_name("ETH0"));
    EXPECT_EQ(all[2], mordel::root_qdisc_find_by_name("eth"));
    EXPECT_EQ(all[3], mordel::root_qdisc_find_by_name("eth00"));
    EXPECT_EQ(all[4], mordel::root_qdisc_find_by_name(""));
    EXPECT_EQ(traces{}, test::console());
    for (const char *unknown : {"eth1", "Eth0", "et", "eth000", " eth0", "eth0 "}) {
        EXPECT_EQ(nullptr, mordel::root_qdisc_find_by_name(unknown));
        EXPECT_EQ((traces{test::not_found(unknown)}), test::console());
    }
}

TEST_F(QosRoot, LookupInTheEmptyListTracesTheName)
{
    for (const char *name : {"eth0", "", "%s%n%d", "a name"}) {
        EXPECT_EQ(nullptr, mordel::root_qdisc_find_by_name(name));
        EXPECT_EQ((traces{test::not_found(name)}), test::console());
    }
}

TEST_F(QosRoot, EveryFunctionTracesAnUnknownInterfaceOnce)
{
    const leaf_qdisc leaf{};
    const auto param = test::htb(1, 2, 3, 4, 5);
    const traces once{test::not_found("eth9")};
    EXPECT_EQ(1, add_class("eth9", 0, 1, &param, nullptr));
    EXPECT_EQ(once, test::console());
    EXPECT_EQ(1, add_class("eth9", 1, 2, &param, nullptr));
    EXPECT_EQ(once, test::console());
    EXPECT_EQ(1, del_class("eth9", 1));
    EXPECT_EQ(once, test::console());
    EXPECT_EQ(1, add_leaf_qdisc("eth9", 1, &leaf));
    EXPECT_EQ(once, test::console());
    EXPECT_EQ(1, del_leaf_qdisc("eth9", 1));
    EXPECT_EQ(once, test::console());
    EXPECT_EQ(0, check_Key("eth9", 1));
    EXPECT_EQ(once, test::console());
    EXPECT_EQ(nullptr, mordel::class_find("eth9", 1));
    EXPECT_EQ(once, test::console());
    EXPECT_EQ(1, mordel::add_prio_classes("eth9", 3));
    EXPECT_EQ(once, test::console());
    EXPECT_EQ(1, del_root_qdisc("eth9"));
    EXPECT_EQ(once, test::console());
}

// ---- Classes -----------------------------------------------------------------------------------

class QosClass : public test::mordel_test {
protected:
    void SetUp() override
    {
        test::mordel_test::SetUp();
        ASSERT_EQ(0, test::add_htb("eth0"));
        test::console();
    }

    std::string tree() { return test::tree(test::interfaces()[0]->classes); }

    // An empty tree, for handles of one's own.
    void clear()
    {
        ASSERT_EQ(0, del_class("eth0", 1));
        ASSERT_EQ("", tree());
    }

    int add(u32 parent, u32 handle) { return add_class("eth0", parent, handle, &param, nullptr); }

    htb_class_param param = test::htb(1, 2, 3, 4, 5);
};

TEST_F(QosClass, IsAppendedToItsParentsChildren)
{
    const auto a = test::htb(11, 12, 13, 14, 15);
    const auto b = test::htb(21, 22, 23, 24, 25);
    const auto c = test::htb(31, 32, 33, 34, 35);
    EXPECT_EQ(0, add_class("eth0", 1, 9, test::fenced<htb_class_param>(a), "first"));
    EXPECT_EQ(0, add_class("eth0", 1, 4, test::fenced<htb_class_param>(b), nullptr));
    EXPECT_EQ(0, add_class("eth0", 9, 5, test::fenced<htb_class_param>(c), ""));
    EXPECT_EQ("1 - htb 100000 100000 1000000 1000000 0, pfifo 0\n"
              "  2 - htb 100000 100000 6000 6000 0, sfq 10\n"
              "  3 - htb 20000 20000 6000 6000 0, pfifo 0\n"
              "  9 - htb 11 12 13 14 15, pfifo 0\n"
              "    5 - htb 31 32 33 34 35, pfifo 0\n"
              "  4 - htb 21 22 23 24 25, pfifo 0\n",
              tree());
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(QosClass, HfscParametersAreCopiedWhole)
{
    ASSERT_EQ(0, test::add_hfsc("eth1"));
    hfsc_class_param curves{};
    curves.ul = {1, 2, 3};
    curves.sc = {4, 5, 6};
    curves.ls = {7, 8, 9};
    curves.rt = {10, 11, 0xFFFFFFFF};
    EXPECT_EQ(0, add_class("eth1", 3, 4, test::fenced<hfsc_class_param>(curves), "x"));
    curves.ul = {};
    EXPECT_EQ("1 - hfsc 0/0/100000 0/0/100000 0/0/0 0/0/0, pfifo 0\n"
              "  2 - hfsc 0/0/100000 0/0/100000 0/0/0 0/0/0, sfq 10\n"
              "  3 - hfsc 0/0/20000 0/0/20000 0/0/0 0/0/0, pfifo 0\n"
              "    4 - hfsc 1/2/3 4/5/6 7/8/9 10/11/4294967295, pfifo 0\n",
              test::tree(test::interfaces()[1]->classes));
    EXPECT_EQ(test::default_htb, tree());
}

TEST_F(QosClass, StartsZeroButForWhatIsSet)
{
    ASSERT_EQ(0, add(3, 0xABCD));
    const qos_class *cls = mordel::class_find("eth0", 0xABCD);
    ASSERT_NE(nullptr, cls);
    EXPECT_EQ(u32{C_HTB}, cls->type);
    EXPECT_EQ(0xABCD, cls->handle);
    EXPECT_TRUE(test::all_zero(cls->name, sizeof cls->name));
    EXPECT_TRUE(test::all_zero(&cls->leaf, sizeof cls->leaf));
    EXPECT_EQ(&cls->children, cls->children.next);
    EXPECT_EQ(&cls->children, cls->children.prev);
}

TEST_F(QosClass, TopLevelTakesAnyHandleAgain)
{
    EXPECT_EQ(0, add(0, 1));
    EXPECT_EQ(0, add(0, 2));
    EXPECT_EQ(0, add(0, 2));
    EXPECT_EQ(0, add(0, 7));
    EXPECT_EQ(std::string(test::default_htb) + "1 - htb 1 2 3 4 5, pfifo 0\n"
                                               "2 - htb 1 2 3 4 5, pfifo 0\n"
                                               "2 - htb 1 2 3 4 5, pfifo 0\n"
                                               "7 - htb 1 2 3 4 5, pfifo 0\n",
              tree());
    EXPECT_EQ(2, add(1, 7)) << "top-level handles count where a parent is given";
    EXPECT_EQ(0, add(7, 8));
}

TEST_F(QosClass, HandleThatExistsAnywhereReturnsTwo)
{
    ASSERT_EQ(0, add(3, 4));
    const std::string before = tree();
    for (const u32 parent : {1U, 2U, 3U, 4U})
        for (const u32 handle : {1U, 2U, 3U, 4U}) EXPECT_EQ(2, add(parent, handle));
    EXPECT_EQ(before, tree());
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(QosClass, UnknownParentReturnsOne)
{
    for (const u32 parent : {4U, 5U, 0xFFFFU}) {
        EXPECT_EQ(1, add(parent, 5)) << parent;
        EXPECT_EQ(1, add(parent, 2)) << "the parent is looked at before the handle";
    }
    EXPECT_EQ(test::default_htb, tree());
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(QosClass, RootTypesThatTakeNoneReturnFourBeforeAnyOtherCheck)
{
    ASSERT_EQ(0, test::add_pfifo_fast("lan"));
    ASSERT_EQ(0, test::add_prio("wan", 3));
    test::console();
    const test::watch watch("calloc", -1);
    for (const char *name : {"lan", "wan"})
        for (const u32 parent : {0U, 1U, 9U})
            for (const u32 handle : {1U, 2U, 8U})
                EXPECT_EQ(4, add_class(name, parent, handle, nullptr, nullptr));
    test::interfaces()[1]->root_type = 77;
    EXPECT_EQ(4, add_class("lan", 0, 1, nullptr, nullptr)) << "no such root type";
    test::interfaces()[1]->root_type = R_pfifo_fast;
    EXPECT_FALSE(watch.failed());
    EXPECT_EQ("", test::tree(test::interfaces()[1]->classes));
    EXPECT_EQ(test::bands_text(3), test::tree(test::interfaces()[2]->classes));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(QosClass, ChecksComeBeforeTheAllocation)
{
    const test::watch watch("calloc", -1);
    EXPECT_EQ(1, add_class("eth9", 1, 5, &param, nullptr));
    EXPECT_EQ(1, add(9, 2));
    EXPECT_EQ(2, add(1, 2));
    EXPECT_FALSE(watch.failed());
    EXPECT_EQ(3, add(1, 5));
    EXPECT_EQ(3, add(0, 1));
    EXPECT_TRUE(watch.failed());
    EXPECT_EQ(test::default_htb, tree());
}

TEST_F(QosClass, HandleZeroIsAHandleButNoParent)
{
    clear();
    EXPECT_EQ(0, check_Key("eth0", 0));
    EXPECT_EQ(0, add(0, 0));
    EXPECT_EQ(1, check_Key("eth0", 0));
    EXPECT_EQ(0, add(0, 1));
    EXPECT_EQ(2, add(1, 0));
    EXPECT_EQ("0 - htb 1 2 3 4 5, pfifo 0\n1 - htb 1 2 3 4 5, pfifo 0\n", tree());
    EXPECT_EQ(0, del_class("eth0", 0));
    EXPECT_EQ("1 - htb 1 2 3 4 5, pfifo 0\n", tree());
    EXPECT_EQ(0, add(1, 0));
    EXPECT_EQ(0, del_class("eth0", 65536));
    EXPECT_EQ("1 - htb 1 2 3 4 5, pfifo 0\n", tree());
}

TEST_F(QosClass, HandlesAreTakenModulo65536InEveryArgument)
{
    for (const u32 wrap : {0x10000U, 0x20000U, 0xFFFF0000U}) {
        SCOPED_TRACE(wrap);
        EXPECT_EQ(2, add(wrap + 1, wrap + 3));
        EXPECT_EQ(1, add(wrap + 4, 5));
        EXPECT_EQ(0, add(wrap + 3, wrap + 4));
        EXPECT_EQ(0, add(wrap + 4, wrap + 0xFFFF));
        EXPECT_EQ(0, add(wrap, wrap + 1)) << "a parent that wraps to 0 means top level";
        EXPECT_EQ(std::string(test::default_htb) + "    4 - htb 1 2 3 4 5, pfifo 0\n"
                                                   "      65535 - htb 1 2 3 4 5, pfifo 0\n"
                                                   "1 - htb 1 2 3 4 5, pfifo 0\n",
                  tree());
        EXPECT_EQ(1, check_Key("eth0", wrap + 2));
        EXPECT_EQ(0, check_Key("eth0", wrap + 1));
        EXPECT_EQ(1, check_Key("eth0", wrap + 0xFFFF));
        EXPECT_EQ(mordel::class_find("eth0", 2), mordel::class_find("eth0", wrap + 2));
        EXPECT_EQ(mordel::class_find("eth0", 0xFFFF),
                  mordel::class_find_in_list(&test::interfaces()[0]->classes, wrap + 0xFFFF));

        const auto limited = test::pfifo(50);
        EXPECT_EQ(0, add_leaf_qdisc("eth0", wrap + 2, &limited));
        EXPECT_EQ("pfifo 50", test::text_of(mordel::class_find("eth0", 2)->leaf));
        EXPECT_EQ(4, add_leaf_qdisc("eth0", wrap + 1, &limited));
        EXPECT_EQ(1, add_leaf_qdisc("eth0", wrap + 5, &limited));
        EXPECT_EQ(0, del_leaf_qdisc("eth0", wrap + 2));
        EXPECT_EQ("pfifo 0", test::text_of(mordel::class_find("eth0", 2)->leaf));
        EXPECT_EQ(1, del_leaf_qdisc("eth0", wrap + 1));

        EXPECT_EQ(1, del_class("eth0", wrap + 5));
        EXPECT_EQ(0, del_class("eth0", wrap + 1));
        EXPECT_EQ("1 - htb 1 2 3 4 5, pfifo 0\n", tree());
        ASSERT_EQ(0, del_root_qdisc("eth0"));
        ASSERT_EQ(0, test::add_htb("eth0"));
    }
}

TEST_F(QosClass, DeletionTakesTheSubtreeAlone)
{
    ASSERT_EQ(0, add(3, 4));
    ASSERT_EQ(0, add(4, 5));
    ASSERT_EQ(0, add(4, 6));
    ASSERT_EQ(0, add(3, 7));
    ASSERT_EQ(0, add(1, 8));
    EXPECT_EQ(0, del_class("eth0", 4));
    EXPECT_EQ("1 - htb 100000 100000 1000000 1000000 0, pfifo 0\n"
              "  2 - htb 100000 100000 6000 6000 0, sfq 10\n"
              "  3 - htb 20000 20000 6000 6000 0, pfifo 0\n"
              "    7 - htb 1 2 3 4 5, pfifo 0\n"
              "  8 - htb 1 2 3 4 5, pfifo 0\n",
              tree());
    for (const u32 gone : {4U, 5U, 6U}) EXPECT_EQ(1, del_class("eth0", gone)) << gone;
    EXPECT_EQ(0, del_class("eth0", 3));
    EXPECT_EQ(0, del_class("eth0", 2));
    EXPECT_EQ("1 - htb 100000 100000 1000000 1000000 0, pfifo 0\n"
              "  8 - htb 1 2 3 4 5, pfifo 0\n",
              tree());
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(QosClass, DeletionOfClassOneEmptiesTheDefaultTree)
{
    ASSERT_EQ(0, test::add_htb("eth1"));
    EXPECT_EQ(0, del_class("eth0", 1));
    EXPECT_EQ("", tree());
    for (const u32 handle : {1U, 2U, 3U}) {
        EXPECT_EQ(0, check_Key("eth0", handle));
        EXPECT_EQ(1, del_class("eth0", handle));
    }
    EXPECT_EQ(test::default_htb, test::tree(test::interfaces()[1]->classes));
}

TEST_F(QosClass, DeletionTakesTheFirstOfTwoInPreOrder)
{
    ASSERT_EQ(0, add(0, 1));
    ASSERT_EQ(0, add(0, 3));
    EXPECT_EQ(0, del_class("eth0", 3));
    EXPECT_EQ("1 - htb 100000 100000 1000000 1000000 0, pfifo 0\n"
              "  2 - htb 100000 100000 6000 6000 0, sfq 10\n"
              "1 - htb 1 2 3 4 5, pfifo 0\n"
              "3 - htb 1 2 3 4 5, pfifo 0\n",
              tree());
    EXPECT_EQ(0, del_class("eth0", 1));
    EXPECT_EQ("1 - htb 1 2 3 4 5, pfifo 0\n3 - htb 1 2 3 4 5, pfifo 0\n", tree());
    EXPECT_EQ(0, del_class("eth0", 3));
    EXPECT_EQ(0, del_class("eth0", 1));
    EXPECT_EQ("", tree());
}

TEST_F(QosClass, DeletionFreesEveryRecord)
{
    const auto with_twins = [this] {
        ASSERT_EQ(0, test::add_htb("eth1"));
        for (const u32 handle : {1U, 1U, 3U, 0U, 1U})
            ASSERT_EQ(0, add_class("eth1", 0, handle, &param, nullptr));
        ASSERT_EQ(0, add_class("eth1", 3, 8, &param, nullptr));
        ASSERT_EQ(0, add_class("eth1", 8, 9, &param, nullptr));
        ASSERT_EQ(0, del_root_qdisc("eth1"));
    };
    test::expect_nothing_kept(with_twins);
    test::expect_nothing_kept([this] {
        ASSERT_EQ(0, add(3, 8));
        ASSERT_EQ(0, add(8, 9));
        ASSERT_EQ(0, add(8, 10));
        ASSERT_EQ(0, del_class("eth0", 8));
    });
    test::expect_nothing_kept([this] {
        ASSERT_EQ(0, add(3, 8));
        ASSERT_EQ(0, add(8, 9));
        ASSERT_EQ(0, add(8, 10));
        mordel::class_free_tree(mordel::class_find("eth0", 8));
    });
    EXPECT_EQ(test::default_htb, tree());
}

TEST_F(QosClass, PrioClassesCanBeDeletedAndGivenLeafs)
{
    ASSERT_EQ(0, test::add_prio("wan", 3));
    const auto leaf = test::red(1, 2, 3, 4, 5);
    EXPECT_EQ(0, add_leaf_qdisc("wan", 3, &leaf));
    EXPECT_EQ(1, check_Key("wan", 3));
    EXPECT_EQ(0, check_Key("wan", 4));
    EXPECT_EQ(0, del_class("wan", 2));
    EXPECT_EQ("1 Class1 prio, pfifo 0\n3 Class3 prio, red 1 2 3 4 5\n",
              test::tree(test::interfaces()[1]->classes));
}

TEST_F(QosClass, PrioBuilderAppendsBandsWhateverIsThere)
{
    ASSERT_EQ(0, test::add_prio("wan", 2));
    EXPECT_EQ(0, mordel::add_prio_classes("wan", 0));
    EXPECT_EQ(test::bands_text(2), test::tree(test::interfaces()[1]->classes));
    EXPECT_EQ(0, mordel::add_prio_classes("wan", 3));
    EXPECT_EQ(test::bands_text(2) + test::bands_text(3),
              test::tree(test::interfaces()[1]->classes));
    EXPECT_EQ(0, mordel::add_prio_classes("eth0", 1));
    EXPECT_EQ(test::default_htb + test::bands_text(1), tree());
}

// ---- Leaf qdiscs -------------------------------------------------------------------------------

class QosLeaf : public QosClass {
protected:
    std::string leaf(u32 handle) { return test::text_of(mordel::class_find("eth0", handle)->leaf); }

    int set(u32 handle, const leaf_qdisc &record)
    {
        return add_leaf_qdisc("eth0", handle, test::fenced<leaf_qdisc>(record));
    }
};

TEST_F(QosLeaf, IsCopiedWholeWhateverItsType)
{
    for (const u32 type : {0U, 1U, 2U, 3U, 4U, 77U, 0xFFFFFFFFU}) {
        leaf_qdisc record{};
        std::memset(&record, 0xA5, sizeof record);
        record.type = type;
        record.param.tbf.rate = type + 1;
        EXPECT_EQ(0, set(3, record));
        EXPECT_EQ(0, std::memcmp(&record, &mordel::class_find("eth0", 3)->leaf, sizeof record));
    }
    EXPECT_EQ("sfq 10", leaf(2));
    EXPECT_EQ("pfifo 0", leaf(1));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(QosLeaf, EveryTypeHasItsFields)
{
    leaf_qdisc record{};
    record.type = L_SFQ;
    record.param.sfq.perturb = 255;
    EXPECT_EQ(0, set(3, record));
    EXPECT_EQ("sfq 255", leaf(3));
    EXPECT_EQ(0, set(3, test::red(1, 2, 3, 4, 5)));
    EXPECT_EQ("red 1 2 3 4 5", leaf(3));
    record = {};
    record.type = L_TBF;
    record.param.tbf.latency = 6;
    record.param.tbf.rate = 7;
    record.param.tbf.burst = 8;
    EXPECT_EQ(0, set(3, record));
    EXPECT_EQ("tbf 6 7 8", leaf(3));
    EXPECT_EQ(0, set(3, test::pfifo(0xFFFFFFFF)));
    EXPECT_EQ("pfifo 4294967295", leaf(3));
}

TEST_F(QosLeaf, IsSetOnLeafClassesOnly)
{
    EXPECT_EQ(4, set(1, test::pfifo(1)));
    EXPECT_EQ(0, set(2, test::pfifo(2)));
    EXPECT_EQ(0, set(3, test::pfifo(3)));
    EXPECT_EQ(1, set(4, test::pfifo(4)));
    EXPECT_EQ(1, set(0, test::pfifo(5)));
    EXPECT_EQ((names{"pfifo 0", "pfifo 2", "pfifo 3"}), (names{leaf(1), leaf(2), leaf(3)}));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(QosLeaf, ResetZeroesTheWholeRecord)
{
    leaf_qdisc record{};
    std::memset(&record, 0xFF, sizeof record);
    ASSERT_EQ(0, set(3, record));
    EXPECT_EQ(0, del_leaf_qdisc("eth0", 3));
    EXPECT_TRUE(test::all_zero(&mordel::class_find("eth0", 3)->leaf, sizeof record));
    EXPECT_EQ(0, del_leaf_qdisc("eth0", 3));
    EXPECT_EQ(0, del_leaf_qdisc("eth0", 2));
    EXPECT_TRUE(test::all_zero(&mordel::class_find("eth0", 2)->leaf, sizeof record));
    EXPECT_EQ(1, del_leaf_qdisc("eth0", 1));
    EXPECT_EQ(1, del_leaf_qdisc("eth0", 4));
    EXPECT_EQ(1, del_leaf_qdisc("eth0", 0));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(QosLeaf, IsKeptWhileTheClassHasChildren)
{
    ASSERT_EQ(0, set(3, test::red(1, 2, 3, 4, 5)));
    ASSERT_EQ(0, add(3, 4));
    ASSERT_EQ(0, add(3, 5));
    EXPECT_EQ(0, check_Key("eth0", 3));
    EXPECT_EQ(4, set(3, test::pfifo(9)));
    EXPECT_EQ(1, del_leaf_qdisc("eth0", 3));
    EXPECT_EQ("red 1 2 3 4 5", leaf(3));
    EXPECT_EQ("pfifo 0", leaf(4));
    ASSERT_EQ(0, del_class("eth0", 4));
    EXPECT_EQ(0, check_Key("eth0", 3));
    EXPECT_EQ(4, set(3, test::pfifo(9)));
    ASSERT_EQ(0, del_class("eth0", 5));
    EXPECT_EQ(1, check_Key("eth0", 3));
    EXPECT_EQ("red 1 2 3 4 5", leaf(3));
    EXPECT_EQ(0, set(3, test::pfifo(9)));
    EXPECT_EQ("pfifo 9", leaf(3));
}

TEST_F(QosLeaf, ClassMadeAnewStartsWithoutOne)
{
    ASSERT_EQ(0, set(3, test::red(1, 2, 3, 4, 5)));
    ASSERT_EQ(0, del_class("eth0", 3));
    ASSERT_EQ(0, add(1, 3));
    EXPECT_EQ("pfifo 0", leaf(3));
}

TEST_F(QosLeaf, GoesToTheFirstOfTwoClassesInPreOrder)
{
    ASSERT_EQ(0, add(0, 3));
    ASSERT_EQ(0, set(3, test::pfifo(77)));
    EXPECT_EQ("1 - htb 100000 100000 1000000 1000000 0, pfifo 0\n"
              "  2 - htb 100000 100000 6000 6000 0, sfq 10\n"
              "  3 - htb 20000 20000 6000 6000 0, pfifo 77\n"
              "3 - htb 1 2 3 4 5, pfifo 0\n",
              tree());
}

// ---- Lookups -----------------------------------------------------------------------------------

class QosFind : public QosClass {};

TEST_F(QosFind, KeyIsALeafClass)
{
    EXPECT_EQ(0, check_Key("eth0", 0));
    EXPECT_EQ(0, check_Key("eth0", 1));
    EXPECT_EQ(1, check_Key("eth0", 2));
    EXPECT_EQ(1, check_Key("eth0", 3));
    EXPECT_EQ(0, check_Key("eth0", 4));
    ASSERT_EQ(0, add(2, 4));
    EXPECT_EQ(0, check_Key("eth0", 2));
    EXPECT_EQ(1, check_Key("eth0", 4));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(QosFind, FirstInPreOrderWins)
{
    // 1 (5 (6), 7), 6, 5: c[i] in that order.
    clear();
    const u32 added[][2] = {{0, 1}, {1, 5}, {5, 6}, {1, 7}, {0, 6}, {0, 5}};
    for (const auto &[parent, handle] : added) ASSERT_EQ(0, add(parent, handle));
    list_head &top = test::interfaces()[0]->classes;
    qos_class *c[6] = {};
    c[0] = &test::class_of(top.next);
    c[1] = &test::class_of(c[0]->children.next);
    c[2] = &test::class_of(c[1]->children.next);
    c[3] = &test::class_of(c[0]->children.prev);
    c[4] = &test::class_of(c[0]->node.next);
    c[5] = &test::class_of(top.prev);
    for (size_t i = 0; i < 6; ++i) ASSERT_EQ(added[i][1], c[i]->handle);

    EXPECT_EQ(c[0], mordel::class_find_in_list(&top, 1));
    EXPECT_EQ(c[1], mordel::class_find_in_list(&top, 5));
    EXPECT_EQ(c[2], mordel::class_find_in_list(&top, 6));
    EXPECT_EQ(c[3], mordel::class_find_in_list(&top, 7));
    EXPECT_EQ(nullptr, mordel::class_find_in_list(&top, 0));
    EXPECT_EQ(nullptr, mordel::class_find_in_list(&top, 8));
    EXPECT_EQ(c[1], mordel::class_find_in_list(&top, 0x70005));
    // A list below the top is searched alone, its own level and below.
    EXPECT_EQ(c[2], mordel::class_find_in_list(&c[1]->children, 6));
    EXPECT_EQ(nullptr, mordel::class_find_in_list(&c[1]->children, 5));
    EXPECT_EQ(c[1], mordel::class_find_in_list(&c[0]->children, 5));
    EXPECT_EQ(c[2], mordel::class_find_in_list(&c[0]->children, 6));
    EXPECT_EQ(c[3], mordel::class_find_in_list(&c[0]->children, 7));
    EXPECT_EQ(nullptr, mordel::class_find_in_list(&c[0]->children, 1));
    EXPECT_EQ(nullptr, mordel::class_find_in_list(&c[3]->children, 6));
    // The deeper one of the earlier branch goes before a later sibling; without it the sibling.
    mordel::class_free_tree(c[1]);
    EXPECT_EQ(c[4], mordel::class_find_in_list(&top, 6));
    EXPECT_EQ(c[5], mordel::class_find_in_list(&top, 5));
    EXPECT_EQ(c[3], mordel::class_find_in_list(&top, 7));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(QosFind, NothingIsFoundInAnEmptyList)
{
    list_head empty{&empty, &empty};
    for (const u32 handle : {0U, 1U, 65535U, 65536U})
        EXPECT_EQ(nullptr, mordel::class_find_in_list(&empty, handle));
}

TEST_F(QosFind, EachInterfaceHasItsOwnHandles)
{
    ASSERT_EQ(0, test::add_hfsc("eth1"));
    EXPECT_EQ(0, add(3, 4));
    EXPECT_EQ(1, check_Key("eth0", 4));
    EXPECT_EQ(0, check_Key("eth1", 4));
    EXPECT_EQ(u32{C_HTB}, mordel::class_find("eth0", 2)->type);
    EXPECT_EQ(u32{C_HFSC}, mordel::class_find("eth1", 2)->type);
    EXPECT_EQ(nullptr, mordel::class_find("eth1", 4));
}

TEST_F(QosFind, EveryHandleOfTheFullRangeIsFound)
{
    clear();
    ASSERT_EQ(0, add(0, 1));
    for (const u32 handle : {0x00FFU, 0x0100U, 0x0FFFU, 0x1000U, 0x7FFFU, 0x8000U, 0xFFFFU}) {
        EXPECT_EQ(0, check_Key("eth0", handle));
        ASSERT_EQ(0, add(1, handle));
        EXPECT_EQ(1, check_Key("eth0", handle));
        EXPECT_EQ(handle, mordel::class_find("eth0", handle)->handle);
    }
}

}  // namespace
