// SPDX-License-Identifier: MIT
// The rule records: the subsystem's names, each interface's ordered list, the automark value.
#include <fcntl.h>

#include <array>
#include <cstring>

#include "faults.h"
#include "support.h"
#include "tarnic_iptables.h"
#include "tarnic_qos.h"

namespace {

using test::not_found;
using test::traced;
using test::traces;

using row = std::pair<int, std::string>;
using rows = std::vector<row>;

traced said(const char *function, const char *message)
{
    return {"tarnic_iptables", function, message};
}

// The rows up to and with the closing one; one row too many or too few fails.
rows rows_of(const txt_map *map)
{
    rows all;
    do all.emplace_back(map->id, map->text);
    while (map++->id != -1);
    return all;
}

void add_htb(const char *ifname)
{
    const u32 speeds[4] = {20000, 0, 100000, 0};
    const class_root_param param{};
    ASSERT_EQ(0, add_root_qdisc(speeds, ifname, R_HTB, &param));
}

int add_rule(const char *ifname, int index, const qos_target &target = {})
{
    const qos_match match{};
    return add_qos_rule(ifname, static_cast<u8>(index), &match, &target);
}

qos_target marking(int mark)
{
    qos_target target{};
    target.flags = 1U << mordel::target_mark;
    target.mark = static_cast<u16>(mark);
    return target;
}

// The rules of an interface in list order, with the links checked both ways.
std::vector<const qos_rule *> rules_of(const char *ifname)
{
    std::vector<const qos_rule *> all;
    const list_head *head = find_rule_list_by_name(ifname);
    for (const list_head *node = head->next; node != head; node = node->next) {
        EXPECT_EQ(node, node->next->prev);
        EXPECT_EQ(node, node->prev->next);
        all.push_back(reinterpret_cast<const qos_rule *>(node));
    }
    return all;
}

std::vector<int> indexes_of(const char *ifname)
{
    std::vector<int> all;
    for (const qos_rule *rule : rules_of(ifname)) all.push_back(rule->index);
    return all;
}

size_t allocations(const test::watch &watch)
{
    return watch.calls("calloc").size() + watch.calls("malloc").size();
}

// Every byte of a record, whatever field or gap it is in.
template <typename Record>
std::array<u8, sizeof(Record)> raw(const Record &record)
{
    std::array<u8, sizeof(Record)> bytes{};
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

class RuleNames : public test::mordel_test {};

// eth0 is an HTB interface with its default tree: class 1 above the leaf classes 2 and 3.
class RuleList : public test::mordel_test {
protected:
    void SetUp() override
    {
        mordel_test::SetUp();
        add_htb("eth0");
        test::console();
    }
};

TEST_F(RuleNames, EachTableHoldsItsRowsInOrder)
{
    EXPECT_EQ((rows{{0, "Sun"},
                    {1, "Mon"},
                    {2, "Tue"},
                    {3, "Wed"},
                    {4, "Thu"},
                    {5, "Fri"},
                    {6, "Sat"},
                    {-1, "Unknown"}}),
              rows_of(mordel::WeekStrMap));
    EXPECT_EQ(
        (rows{{0, "CS0"},   {1, "CS1"},   {2, "CS2"},   {3, "CS3"},   {4, "CS4"},     {5, "CS5"},
              {6, "CS6"},   {7, "CS7"},   {8, "BE"},    {9, "AF11"},  {10, "AF12"},   {11, "AF13"},
              {12, "AF21"}, {13, "AF22"}, {14, "AF23"}, {15, "AF31"}, {16, "AF32"},   {17, "AF33"},
              {18, "AF41"}, {19, "AF42"}, {20, "AF43"}, {21, "EF"},   {-1, "Unknown"}}),
        rows_of(mordel::DscpClassStrMap));
    EXPECT_EQ((rows{{16, "Minimize-Delay"},
                    {8, "Maximize-Throughput"},
                    {4, "Maximize-Reliability"},
                    {2, "Minimize-Cost"},
                    {0, "Normal-Service"},
                    {-1, "Unknown"}}),
              rows_of(mordel::TosStrMap));
    EXPECT_EQ((rows{{0, "sip"}, {1, "Q.931"}, {2, "ftp"}, {-1, "Unknown"}}),
              rows_of(mordel::AlgStrMap));
    EXPECT_EQ((rows{{0, "SYN"},
                    {1, "ACK"},
                    {2, "FIN"},
                    {3, "RST"},
                    {4, "URG"},
                    {5, "PSH"},
                    {-1, "Unknown"}}),
              rows_of(mordel::TcpFlagStrMap));
    EXPECT_EQ((rows{{0, "-A"}, {1, "-D"}, {-1, "Unknown"}}), rows_of(mordel::RuleActStrMap));
    EXPECT_EQ((rows{{0, "QF_802_1P"},
                    {1, "QF_802_1Q"},
                    {2, "QF_MAC"},
                    {3, "QF_IP"},
                    {4, "QF_DSCP"},
                    {5, "QF_TOS"},
                    {6, "QF_ALG"},
                    {7, "QF_PKTLEN"},
                    {8, "QF_PROTOCOL"},
                    {9, "QF_DOMAIN"},
                    {1, "ALG_H323"},
                    {10, "QF_URL"},
                    {-1, "Unknown"}}),
              rows_of(mordel::QfStrMap));
}

TEST_F(RuleNames, MatchAndTargetBitsAreTheirIds)
{
    for (int id = 0; id < mordel::match_kinds; ++id)
        EXPECT_STRNE("Unknown", TxtMapById(mordel::QfStrMap, id)) << id;
    EXPECT_EQ(0, mordel::QF_802_1P);
    EXPECT_EQ(1, mordel::QF_802_1Q);
    EXPECT_EQ(2, mordel::QF_MAC);
    EXPECT_EQ(3, mordel::QF_IP);
    EXPECT_EQ(4, mordel::QF_DSCP);
    EXPECT_EQ(5, mordel::QF_TOS);
    EXPECT_EQ(6, mordel::QF_ALG);
    EXPECT_EQ(7, mordel::QF_PKTLEN);
    EXPECT_EQ(8, mordel::QF_PROTOCOL);
    EXPECT_EQ(9, mordel::QF_DOMAIN);
    EXPECT_EQ(10, mordel::QF_URL);
    EXPECT_EQ(11, mordel::match_kinds);
    EXPECT_EQ(0, mordel::target_mark);
    EXPECT_EQ(1, mordel::target_tos);
    EXPECT_EQ(2, mordel::target_dscp);
    EXPECT_EQ(3, mordel::target_mkvlan);
    EXPECT_EQ(4, mordel::target_log);
}

TEST_F(RuleNames, TheSecondRowOfIdOneIsReachedByTextAlone)
{
    EXPECT_STREQ("QF_802_1Q", TxtMapById(mordel::QfStrMap, 1));
    EXPECT_EQ(1, TxtMapByTxt(mordel::QfStrMap, "ALG_H323"));
    EXPECT_EQ(1, TxtMapByTxtNoCase(mordel::QfStrMap, "alg_h323"));
    EXPECT_EQ(1, TxtMapByTxtStr(mordel::QfStrMap, "the ALG_H323 row"));
    EXPECT_EQ(10, TxtMapByTxt(mordel::QfStrMap, "QF_URL"));
}

TEST_F(RuleNames, UnknownIdsAreUnknownInEachTable)
{
    const std::pair<const txt_map *, int> firsts[] = {
        {mordel::WeekStrMap, 7}, {mordel::DscpClassStrMap, 22}, {mordel::TosStrMap, 1},
        {mordel::AlgStrMap, 3},  {mordel::TcpFlagStrMap, 6},    {mordel::RuleActStrMap, 2},
        {mordel::QfStrMap, 11},
    };
    for (const auto &[map, id] : firsts) {
        EXPECT_STREQ("Unknown", TxtMapById(map, id));
        EXPECT_STREQ("Unknown", TxtMapById(map, -1));
        EXPECT_STREQ("Unknown", TxtMapById(map, INT32_MIN));
        EXPECT_EQ(-1, TxtMapByTxt(map, "no such text"));
    }
}

TEST_F(RuleNames, AutomarkValueIsEighteenBytes)
{
    EXPECT_EQ(18U, sizeof(automark_value));
    EXPECT_EQ(0U, offsetof(automark_value, enable));
    EXPECT_EQ(2U, offsetof(automark_value, mark));
}

TEST_F(RuleList, IsTheHeadInsideTheInterfaceRecord)
{
    add_htb("eth1");
    test::console();
    EXPECT_EQ(&mordel::root_qdisc_find_by_name("eth0")->rules, find_rule_list_by_name("eth0"));
    EXPECT_EQ(&mordel::root_qdisc_find_by_name("eth1")->rules, find_rule_list_by_name("eth1"));
    EXPECT_NE(find_rule_list_by_name("eth0"), find_rule_list_by_name("eth1"));
    EXPECT_EQ(1U, list_empty(find_rule_list_by_name("eth0")));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(RuleList, OfAnUnknownInterfaceIsNull)
{
    EXPECT_EQ(nullptr, find_rule_list_by_name("ETH0"));
    EXPECT_EQ((traces{not_found("ETH0")}), test::console());
    ASSERT_EQ(0, del_root_qdisc("eth0"));
    EXPECT_EQ(nullptr, find_rule_list_by_name("eth0"));
    EXPECT_EQ((traces{not_found("eth0")}), test::console());
}

TEST_F(RuleList, IsKeptInAscendingOrder)
{
    struct {
        std::vector<int> added, kept;
    } const cases[] = {
        {{5, 2, 9}, {2, 5, 9}},
        {{1, 2, 3}, {1, 2, 3}},
        {{3, 2, 1}, {1, 2, 3}},
        {{255, 0, 128, 127, 1, 254}, {0, 1, 127, 128, 254, 255}},
        {{0}, {0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.added));
        for (const int index : c.added) EXPECT_EQ(1, add_rule("eth0", index));
        EXPECT_EQ(c.kept, indexes_of("eth0"));
        for (const int index : c.added) EXPECT_EQ(1, del_qos_rule("eth0", static_cast<u8>(index)));
        EXPECT_EQ(1U, list_empty(find_rule_list_by_name("eth0")));
    }
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(RuleList, HoldsEachOfThe256Indexes)
{
    std::vector<int> all;
    for (int i = 0; i < 256; ++i) {
        EXPECT_EQ(1, add_rule("eth0", (i * 77 + 31) % 256));
        all.push_back(i);
    }
    EXPECT_EQ(all, indexes_of("eth0"));
}

TEST_F(RuleList, TakesBothRecordsWhole)
{
    qos_match match{};
    qos_target target{};
    std::memset(&match, 0xa5, sizeof match);
    std::memset(&target, 0x5a, sizeof target);
    target.flags = 0xfffffffe;  // all but MARK
    const qos_match given_match = match;
    const qos_target given_target = target;
    ASSERT_EQ(1, add_qos_rule("eth0", 77, &match, &target));
    std::memset(&match, 0, sizeof match);  // the rule holds copies
    std::memset(&target, 0, sizeof target);
    const auto rules = rules_of("eth0");
    ASSERT_EQ(1U, rules.size());
    EXPECT_EQ(77, rules[0]->index);
    EXPECT_EQ(raw(given_match), raw(rules[0]->match));
    EXPECT_EQ(raw(given_target), raw(rules[0]->target));
}

TEST_F(RuleList, RefusesAnIndexTwiceWhereverItStands)
{
    const std::vector<int> all = {0, 2, 5, 9, 255};
    for (const int index : all) ASSERT_EQ(1, add_rule("eth0", index));
    const auto before = rules_of("eth0");
    for (const int index : all) {
        EXPECT_EQ(0, add_rule("eth0", index)) << index;
        EXPECT_EQ((traces{said("add_qos_rule", "Index already exist!!")}), test::console());
    }
    EXPECT_EQ(before, rules_of("eth0"));
    EXPECT_EQ(all, indexes_of("eth0"));
}

TEST_F(RuleList, TestsTheIndexBeforeTheMark)
{
    ASSERT_EQ(1, add_rule("eth0", 5));
    EXPECT_EQ(0, add_rule("eth0", 5, marking(99)));
    EXPECT_EQ((traces{said("add_qos_rule", "Index already exist!!")}), test::console());
    EXPECT_EQ(0, add_rule("eth0", 4, marking(99)));
    EXPECT_EQ((traces{said("add_qos_rule", "Mark key not found!!")}), test::console());
    EXPECT_EQ((std::vector<int>{5}), indexes_of("eth0"));
}

TEST_F(RuleList, IsTheInterfacesOwn)
{
    add_htb("eth1");
    test::console();
    EXPECT_EQ(1, add_rule("eth0", 5));
    EXPECT_EQ(1, add_rule("eth1", 5));
    EXPECT_EQ(1, add_rule("eth1", 4));
    EXPECT_EQ((std::vector<int>{5}), indexes_of("eth0"));
    EXPECT_EQ((std::vector<int>{4, 5}), indexes_of("eth1"));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(RuleList, TakesAMarkThatIsALeafClass)
{
    const htb_class_param param{};
    ASSERT_EQ(0, add_class("eth0", 2, 0xffff, &param, ""));
    struct {
        int mark, result;
    } const cases[] = {{3, 1}, {0xffff, 1}, {1, 0}, {2, 0}, {4, 0}, {0, 0}, {0x3000, 0}};
    int index = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.mark);
        EXPECT_EQ(c.result, add_rule("eth0", ++index, marking(c.mark)));
        EXPECT_EQ(c.result == 1 ? traces{} : traces{said("add_qos_rule", "Mark key not found!!")},
                  test::console());
    }
    EXPECT_EQ((std::vector<int>{1, 2}), indexes_of("eth0"));
}

TEST_F(RuleList, TestsTheMarkWhateverOtherTargetsThereAre)
{
    qos_target target = marking(99);
    target.flags = 0xffffffff;
    EXPECT_EQ(0, add_rule("eth0", 1, target));
    target.flags = 0xfffffffe;
    EXPECT_EQ(1, add_rule("eth0", 1, target));
    EXPECT_EQ((traces{said("add_qos_rule", "Mark key not found!!")}), test::console());
}

TEST_F(RuleList, TestsTheMarkInItsOwnInterface)
{
    const u32 speeds[4] = {};
    const pfifo_fast_root_param fifo{};
    prio_root_param prio{};
    prio.bands = 8;
    const htb_class_param param{};
    ASSERT_EQ(0, add_root_qdisc(speeds, "ppp0", R_pfifo_fast, &fifo));
    ASSERT_EQ(0, add_root_qdisc(speeds, "wlan0", R_PRIO, &prio));
    ASSERT_EQ(0, add_class("eth0", 1, 9, &param, ""));
    test::console();
    EXPECT_EQ(0, add_rule("ppp0", 1, marking(3)));
    EXPECT_EQ(0, add_rule("wlan0", 1, marking(9)));
    EXPECT_EQ((traces(2, said("add_qos_rule", "Mark key not found!!"))), test::console());
    EXPECT_EQ(1, add_rule("wlan0", 1, marking(8)));
    EXPECT_EQ(1, add_rule("eth0", 1, marking(9)));
    EXPECT_EQ(1, add_rule("ppp0", 1));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(RuleList, OfAnUnknownInterfaceTakesNothing)
{
    test::watch watch;
    EXPECT_EQ(0, add_rule("eth9", 1, marking(99)));
    EXPECT_EQ(0U, allocations(watch));
    EXPECT_EQ((traces{not_found("eth9"), said("add_qos_rule", "QoS tree not found!!")}),
              test::console());
}

TEST_F(RuleList, AllocatesOnceAllTestsPassed)
{
    ASSERT_EQ(1, add_rule("eth0", 5));
    test::watch watch;
    EXPECT_EQ(0, add_rule("eth0", 5));
    EXPECT_EQ(0, add_rule("eth0", 4, marking(99)));
    EXPECT_EQ(0, add_rule("eth0", 6, marking(1)));
    EXPECT_EQ(0U, allocations(watch));
    EXPECT_EQ(1, add_rule("eth0", 4, marking(3)));
    EXPECT_EQ(1U, allocations(watch));
}

TEST_F(RuleList, IsUntouchedWhenMemoryIsShort)
{
    ASSERT_EQ(1, add_rule("eth0", 5));
    const auto before = rules_of("eth0");
    test::watch watch("calloc", 1);
    EXPECT_EQ(0, add_rule("eth0", 4));
    EXPECT_TRUE(watch.failed());
    EXPECT_EQ((traces{said("add_qos_rule", "Memory allocate fail!!")}), test::console());
    EXPECT_EQ(before, rules_of("eth0"));
    EXPECT_EQ(1, add_rule("eth0", 4));
    EXPECT_EQ((std::vector<int>{4, 5}), indexes_of("eth0"));
}

TEST_F(RuleList, LosesTheDeletedRuleAlone)
{
    for (const int index : {1, 2, 3, 4}) ASSERT_EQ(1, add_rule("eth0", index));
    EXPECT_EQ(1, del_qos_rule("eth0", 3));
    EXPECT_EQ((std::vector<int>{1, 2, 4}), indexes_of("eth0"));
    EXPECT_EQ(1, del_qos_rule("eth0", 1));
    EXPECT_EQ((std::vector<int>{2, 4}), indexes_of("eth0"));
    EXPECT_EQ(1, del_qos_rule("eth0", 4));
    EXPECT_EQ((std::vector<int>{2}), indexes_of("eth0"));
    EXPECT_EQ(0, del_qos_rule("eth0", 3));
    EXPECT_EQ(1, del_qos_rule("eth0", 2));
    EXPECT_EQ(0, del_qos_rule("eth0", 2));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(RuleList, DeletesNothingOfAnUnknownInterface)
{
    ASSERT_EQ(1, add_rule("eth0", 1));
    EXPECT_EQ(0, del_qos_rule("eth9", 1));
    EXPECT_EQ((traces{not_found("eth9"), said("del_qos_rule", "QoS tree not found!!")}),
              test::console());
    EXPECT_EQ((std::vector<int>{1}), indexes_of("eth0"));
}

TEST_F(RuleList, KeepsRulesWhoseClassIsGone)
{
    ASSERT_EQ(1, add_rule("eth0", 1, marking(3)));
    ASSERT_EQ(0, del_class("eth0", 3));
    EXPECT_EQ((std::vector<int>{1}), indexes_of("eth0"));
    EXPECT_EQ(0, add_rule("eth0", 2, marking(3)));
    EXPECT_EQ((traces{said("add_qos_rule", "Mark key not found!!")}), test::console());
}

TEST_F(RuleList, ModifyPutsTheNewRecordsInPlace)
{
    for (const int index : {2, 5, 9}) ASSERT_EQ(1, add_rule("eth0", index));
    qos_match match{};
    match.flags = 1U << mordel::QF_TOS;
    match.tos = 8;
    const qos_target target = marking(3);
    EXPECT_EQ(1, modify_qos_rule("eth0", 5, &match, &target));
    EXPECT_EQ((std::vector<int>{2, 5, 9}), indexes_of("eth0"));
    const qos_rule *rule = rules_of("eth0")[1];
    EXPECT_EQ(raw(match), raw(rule->match));
    EXPECT_EQ(raw(target), raw(rule->target));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(RuleList, ModifyAddsNoRuleThatWasNotThere)
{
    const qos_match match{};
    const qos_target target = marking(99);
    ASSERT_EQ(1, add_rule("eth0", 5));
    EXPECT_EQ(0, modify_qos_rule("eth0", 4, &match, &target));
    EXPECT_EQ(traces{}, test::console());
    EXPECT_EQ((std::vector<int>{5}), indexes_of("eth0"));
    EXPECT_EQ(0, modify_qos_rule("eth9", 5, &match, &target));
    EXPECT_EQ((traces{not_found("eth9"), said("del_qos_rule", "QoS tree not found!!")}),
              test::console());
}

TEST_F(RuleList, ModifyLosesTheOldRuleWhenTheNewOneIsRefused)
{
    const qos_match match{};
    const qos_target target = marking(99);
    for (const int index : {2, 5, 9}) ASSERT_EQ(1, add_rule("eth0", index));
    EXPECT_EQ(0, modify_qos_rule("eth0", 5, &match, &target));
    EXPECT_EQ((traces{said("add_qos_rule", "Mark key not found!!")}), test::console());
    EXPECT_EQ((std::vector<int>{2, 9}), indexes_of("eth0"));

    const test::watch watch("calloc", 1);
    const qos_target none{};
    EXPECT_EQ(0, modify_qos_rule("eth0", 9, &match, &none));
    EXPECT_TRUE(watch.failed());
    EXPECT_EQ((traces{said("add_qos_rule", "Memory allocate fail!!")}), test::console());
    EXPECT_EQ((std::vector<int>{2}), indexes_of("eth0"));
}

TEST_F(RuleList, EachTraceIsOneOpenOneWriteOneClose)
{
    const test::watch watch;
    EXPECT_EQ(0, del_qos_rule("eth9", 1));
    const auto calls = watch.calls();
    const std::string raw = test::console_raw();
    const size_t first = raw.find('\n') + 1;
    ASSERT_EQ(6U, calls.size());
    for (size_t at : {0U, 3U}) {
        SCOPED_TRACE(at);
        EXPECT_EQ("open", calls[at].function);
        EXPECT_EQ("/dev/console", calls[at].text);
        EXPECT_EQ(O_WRONLY | O_APPEND | O_CLOEXEC,
                  calls[at].flags & (O_ACCMODE | O_APPEND | O_CLOEXEC | O_CREAT | O_TRUNC));
        EXPECT_EQ("write", calls[at + 1].function);
        EXPECT_EQ(at == 0 ? raw.substr(0, first) : raw.substr(first), calls[at + 1].text);
        EXPECT_EQ(calls[at].fd, calls[at + 1].fd);
        EXPECT_EQ("close", calls[at + 2].function);
        EXPECT_EQ(calls[at].fd, calls[at + 2].fd);
    }
}

TEST_F(RuleList, WorksTheSameWithoutAConsole)
{
    ASSERT_EQ(1, add_rule("eth0", 5));
    const test::watch watch("open", -1, 2 /* ENOENT */);
    EXPECT_EQ(0, add_rule("eth9", 5));
    EXPECT_EQ(0, add_rule("eth0", 5));
    EXPECT_EQ(0, add_rule("eth0", 6, marking(99)));
    EXPECT_EQ(0, del_qos_rule("eth9", 5));
    EXPECT_EQ(6U, watch.calls("open").size());  // both lookups' included
    EXPECT_EQ(0U, watch.calls("write").size() + watch.calls("close").size());
    EXPECT_EQ((std::vector<int>{5}), indexes_of("eth0"));
    EXPECT_EQ("", test::console_raw());
}

// A block that notices every byte written beside the automark value.
struct guarded_automark {
    u8 before[8];
    automark_value value;
    u8 behind[8];
};

using automark_bytes = std::array<u8, sizeof(automark_value)>;

automark_value numbered(unsigned enable)
{
    automark_value value{};
    value.enable = static_cast<u8>(enable);
    value.reserved = 0x77;
    for (unsigned i = 0; i < 8; ++i) value.mark[i] = static_cast<u16>(0x1021U * (i + 1));
    return value;
}

// Calls get_automark_value with a block of 0xee; nothing beside the value may change.
int automark_of(const char *ifname, automark_bytes &bytes)
{
    guarded_automark block{};
    std::memset(&block, 0xee, sizeof block);
    const int result = get_automark_value(ifname, &block.value);
    for (const u8 guard : block.before) EXPECT_EQ(0xee, guard);
    for (const u8 guard : block.behind) EXPECT_EQ(0xee, guard);
    bytes = raw(block.value);
    return result;
}

automark_bytes untouched()
{
    automark_bytes bytes{};
    bytes.fill(0xee);
    return bytes;
}

class Automark : public RuleList {};

TEST_F(Automark, IsCopiedOutOfEachRootTypeThatHasOne)
{
    const u32 speeds[4] = {};
    class_root_param classful{};
    prio_root_param prio{};
    classful.default_class = 0x0303;
    prio.bands = 2;
    std::memset(prio.priomap, 0x44, sizeof prio.priomap);
    const std::pair<u32, const void *> roots[] = {
        {R_HTB, &classful}, {R_HFSC, &classful}, {R_PRIO, &prio}};
    for (const auto &[type, param] : roots) {
        for (const unsigned enable : {0U, 1U, 2U, 255U}) {
            SCOPED_TRACE(testing::Message() << "type " << type << " enable " << enable);
            classful.automark = prio.automark = numbered(enable);
            ASSERT_EQ(0, add_root_qdisc(speeds, "dsl0", type, param));
            test::console();
            automark_bytes bytes{};
            EXPECT_EQ(enable != 0 ? 1 : 0, automark_of("dsl0", bytes));
            EXPECT_EQ(raw(numbered(enable)), bytes);
            EXPECT_EQ(traces{}, test::console());
            ASSERT_EQ(0, del_root_qdisc("dsl0"));
        }
    }
}

TEST_F(Automark, IsLeftAloneWhereThereIsNone)
{
    const u32 speeds[4] = {};
    pfifo_fast_root_param fifo{};
    fifo.queue_len = 0xffffffff;
    ASSERT_EQ(0, add_root_qdisc(speeds, "ppp0", R_pfifo_fast, &fifo));
    test::console();
    automark_bytes bytes{};
    EXPECT_EQ(0, automark_of("ppp0", bytes));
    EXPECT_EQ(untouched(), bytes);
    EXPECT_EQ(traces{}, test::console());

    EXPECT_EQ(0, automark_of("eth9", bytes));
    EXPECT_EQ(untouched(), bytes);
    EXPECT_EQ((traces{not_found("eth9")}), test::console());

    qos_if *eth0 = mordel::root_qdisc_find_by_name("eth0");
    eth0->param.classful.automark = numbered(1);
    for (const u32 type : {4U, 0xffffffffU}) {
        eth0->root_type = type;
        EXPECT_EQ(0, automark_of("eth0", bytes));
        EXPECT_EQ(untouched(), bytes);
    }
    eth0->root_type = R_HTB;
    EXPECT_EQ(traces{}, test::console());
}

}  // namespace
