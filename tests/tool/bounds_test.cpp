// SPDX-License-Identifier: MIT
// What tc and the kernel can say of a leaf, a burst and a curve, just inside and just outside of
// each bound. The arithmetic is by hand; tc 6.1 refuses or garbles each value outside and takes
// each inside, as far as it looks at them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "leaf.h"
#include "policy_read.h"
#include "text.h"

namespace {

using std::string;
using tool::diagnostics;
using tool::kernel_kind;

// As the command prints them, less the file's name
string answer(const string &text, kernel_kind kernel = kernel_kind::mainline)
{
    diagnostics found;
    (void)tool::read_policy(text, kernel, found);
    string all;
    for (const tool::diagnostic &d : found.sorted())
        all += tool::format("%u:%u: %s%s\n", d.at.line, d.at.column, d.warning ? "warning: " : "",
                            d.text.c_str());
    return all;
}

string htb_class(const string &keys)
{
    return "[[interface]]\nname = 'eth0'\nroot = 'htb'\nphy_tx = '100mbit'\nlink_tx = '20mbit'\n"
           "[[interface.class]]\nhandle = 0x10\n" +
           keys + "\n";
}

string with_leaf(const string &leaf) { return htb_class("rate = 8\nleaf = " + leaf); }

// Of a leaf in line 9
string error(const char *text) { return string("9:8: ") + text + "\n"; }

struct row {
    string leaf;
    string expected;
};

void expect_answers(const std::vector<row> &rows)
{
    for (const row &r : rows) {
        SCOPED_TRACE(r.leaf);
        EXPECT_EQ(r.expected, answer(with_leaf(r.leaf)));
        EXPECT_EQ(r.expected, answer(with_leaf(r.leaf), kernel_kind::vendor));
    }
}

// ---- RED ----------------------------------------------------------------------------------------

string red(u32 min, u32 max, u32 burst, u32 limit, u32 avpkt)
{
    return tool::format("{ type = 'red', min = %u, max = %u, burst = %u, limit = %u, avpkt = %u }",
                        min, max, burst, limit, avpkt);
}

const string zero = error("tc takes no 0 in a red leaf; give sizes");
const string min_max = error("a red leaf's min must be below its max; lower min or raise max");
const string max_limit =
    error("a red leaf's max must not be above its limit; lower max or raise limit");
const string no_average = error("tc finds no averaging constant for a red leaf's burst; lower it");
const string no_probability =
    error("tc finds no probability for a red leaf with max so far above min; lower max");
const string no_room = error(
    "the kernel takes no red leaf of so large a max with so large a burst; lower one of them");
string short_burst(u32 least)
{
    return error(
        tool::format("a red leaf's burst must be at least min / avpkt packets, here %u", least)
            .c_str());
}

TEST(Bounds, RedTakesNoZero)
{
    expect_answers(
        {{red(1, 2, 1, 2, 1), ""},
         {red(0, 2, 1, 2, 1), zero},
         {red(1, 0, 1, 2, 1), zero},
         {red(1, 2, 1, 0, 1), zero},
         {red(1, 2, 1, 2, 0), zero},
         {red(1, 2, 0, 2, 1), "9:50: burst is 0; it is a whole number from 1 to 4294967295\n"}});
}

TEST(Bounds, RedsSizesStandInOrder)
{
    expect_answers({{red(2999, 3000, 5, 3000, 1000), ""},
                    {red(3000, 3000, 5, 3000, 1000), min_max},
                    {red(3001, 3000, 5, 3001, 1000), min_max},
                    {red(2000, 3000, 5, 2999, 1000), max_limit},
                    {red(2000, 3000, 5, 3001, 1000), ""}});
}

// burst * avpkt >= min
TEST(Bounds, RedsBurstIsAtLeastMinByAvpkt)
{
    expect_answers({
        {red(1000, 3000, 10, 3000, 100), ""},               // 10 * 100 = 1000
        {red(1000, 3000, 9, 3000, 100), short_burst(10)},   //  9 * 100 =  900
        {red(1001, 3000, 11, 3000, 100), ""},               // 10.01 packets are 11
        {red(1001, 3000, 10, 3000, 100), short_burst(11)},  //
        {red(1099, 3000, 10, 3000, 100), short_burst(11)},  //
        {red(1100, 3000, 10, 3000, 100), short_burst(11)},  // 11 whole ones
        // 40000000 / 65536 = 610.4
        {red(40000000, 40000001, 611, 40000001, 65536), ""},
        {red(40000000, 40000001, 610, 40000001, 65536), short_burst(611)},
        // 65536 * 65536 is 2^32: long enough, and too long for any average
        {red(4, 5, 65536, 5, 65536), no_average},
    });
}

// tc doubles 0.02 / (max - min) up to 31 times until it is above 1: 0.02 * 2^31 = 42949672.96.
TEST(Bounds, RedsMaxIsNotTooFarAboveMin)
{
    expect_answers({
        {red(1000, 42950672, 1, 42950672, 1000), ""},              // 42949672 apart
        {red(1000, 42950673, 1, 42950673, 1000), no_probability},  // 42949673 apart
        {red(1001, 42950673, 1, 42950673, 1001), ""},
    });
}

// The weight of the average is W = 1/2^n, of the least n from 1 to 31 with
//     burst + 1 - min / avpkt <= f(burst), f(b) = (1 - (1-W)^b) / W = b - W b(b-1)/2 + ...
TEST(Bounds, RedsAverageIsTheLargestWeightThatLetsABurstPass)
{
    struct weight {
        u32 min;
        u32 burst;
        u32 wlog;
    };
    // avpkt is 1000
    const weight rows[] = {
        {2000, 1, 0},       // 0 packets: below min / avpkt
        {2000, 2, 1},       // 1 <= (1 - 1/4) * 2 = 1.5
        {2000, 3, 2},       // 2 > (1 - 1/8) * 2 = 1.75; 2 <= (1 - 27/64) * 4 = 2.31
        {2000, 4, 3},       // 3 > (1 - 81/256) * 4 = 2.73; 3 <= (1 - 2401/4096) * 8 = 3.31
        {1000, 1, 1},       // 1 <= (1 - 1/2) * 2 = 1
        {3000, 3, 1},       // 1 <= 1.75
        {3000, 4, 2},       // 2 > (1 - 1/16) * 2 = 1.875; 2 <= 2.73
        {10000, 10, 1},     // 1 <= (1 - 1/1024) * 2 = 1.998
        {999, 1, 0},        // 1.001 > f(1), which is 1 for each n
        {2000, 32, 9},      // 31 > 32 - 496/256; 496/512 = 0.97 less than 1 is gone of 32
        {2000, 33, 10},     // 528/512 - 5456/512^2 + 40920/512^3 = 1.011: too much for n = 9
        {2000, 65536, 31},  // 65536 * 65535 / 2^32 = 0.99998
        {2000, 65537, 0},   // 65537 * 65536 / 2^32 - 2^48 / 2^62 / 6 = 1.000015 - 0.00001 > 1
    };
    for (const weight &w : rows) {
        SCOPED_TRACE(tool::format("min %u burst %u", w.min, w.burst));
        EXPECT_EQ(w.wlog, tool::red_wlog({w.min, w.min + 1, w.burst, w.min + 1, 1000}));
    }
    expect_answers({{red(2000, 2001, 65537, 2001, 1000), no_average},
                    {red(2000, 2001, 65536, 2001, 1000), no_room},
                    {red(2000, 2001, 4294967295, 2001, 1000), no_average},
                    {red(999, 1000, 1, 1000, 1000), no_average}});
}

// The kernel averages in 32 bits: max has as many as 31 - n.
TEST(Bounds, RedsMaxAndBurstHaveRoomInTheKernel)
{
    expect_answers({
        // n = 10 (see above): max < 2^21 = 2097152
        {red(2000, 2097151, 33, 3000000, 1000), ""},
        {red(2000, 2097152, 33, 3000000, 1000), no_room},
        // n = 9: max < 2^22 = 4194304
        {red(2000, 4194303, 32, 5000000, 1000), ""},
        {red(2000, 4194304, 32, 5000000, 1000), no_room},
        // n = 1: max < 2^30, which is further than tc's probability reaches above a small min
        {red(1073741822, 1073741823, 1, 1073741823, 1073741822), ""},
        {red(1073741823, 1073741824, 1, 1073741824, 1073741823), no_room},
        // Two faults: too far apart comes before no room, and either beside a short burst
        {red(2000, 50000000, 33, 50000000, 1000), no_probability},
        {red(2000, 50000000, 1, 50000000, 1000), no_probability + short_burst(2)},
        {red(3000, 2999, 1, 2999, 1000), min_max + short_burst(3)},
    });
}

// ---- TBF ----------------------------------------------------------------------------------------

string tbf(const char *rate, u32 burst, u32 latency)
{
    return tool::format("{ type = 'tbf', rate = '%s', burst = %u, latency = %u }", rate, burst,
                        latency);
}

const string tbf_zero = error("tc takes no 0 in a tbf leaf; give rate, burst and latency");
const string tbf_gib = error("a tbf leaf's latency at its rate comes to more than 4 GiB, which tc"
                             " cannot say; lower latency");
const string small_burst =
    error("warning: a tbf leaf drops packets longer than its burst; give 1514b or more");
const char *const too_long =
    "tc cannot say a burst that takes more than 274 s at its rate; lower it";

TEST(Bounds, TbfTakesNoZero)
{
    expect_answers({{tbf("1kbit", 1514, 1), ""},
                    {tbf("0kbit", 1514, 1), tbf_zero},
                    {tbf("1kbit", 0, 1), tbf_zero},
                    {tbf("1kbit", 1514, 0), tbf_zero},
                    {tbf("1kbit", 1513, 1), small_burst}});
}

// tc sends rate * latency + burst, in 32 bits: at 8 Gbit/s, 1000000 bytes for each ms.
TEST(Bounds, TbfsQueueIsBelowFourGib)
{
    expect_answers({
        {tbf("8gbit", 967295, 4294), ""},       // 4294000000 + 967295 = 2^32 - 1
        {tbf("8gbit", 967296, 4294), tbf_gib},  // 2^32
        {tbf("8gbit", 1514, 4295), tbf_gib},
    });
}

// A burst travels as its time in 32 bits of 64 ns: 4294967295 * 64 ns = 274.877906880 s, in which
// 8 kbit/s, 1000 bytes a second, bring 274877.9 bytes. A byte at 100 Mbit/s takes 1.25 * 64 ns:
// 3435973836 * 1.25 = 4294967295, where the last bit of a fraction decides.
TEST(Bounds, ABurstTakesAtMost274Seconds)
{
    expect_answers({{tbf("8kbit", 274877, 1), ""},
                    {tbf("8kbit", 274878, 1), error(too_long)},
                    {tbf("100mbit", 3435973835, 1), ""},
                    {tbf("100mbit", 3435973837, 1), error(too_long)}});
    const auto htb = [](const string &keys) { return answer(htb_class("rate = 8\n" + keys)); };
    const auto at = [](const char *place) { return string(place) + too_long + "\n"; };
    EXPECT_EQ("", htb("burst = 274877\ncburst = 274877"));
    EXPECT_EQ(at("9:9: "), htb("burst = 274878"));
    EXPECT_EQ(at("9:10: "), htb("cburst = 274878"));
    // A cburst travels at the ceil: 16 kbit/s bring 549755.8 bytes.
    EXPECT_EQ("", htb("ceil = 16\ncburst = 549755"));
    EXPECT_EQ(at("10:10: "), htb("ceil = 16\ncburst = 549756"));
    EXPECT_EQ(at("10:9: "), htb("ceil = 16\nburst = 274878"));
}

// ---- HFSC ---------------------------------------------------------------------------------------

string hfsc_class(const string &keys)
{
    return "[[interface]]\nname = 'h'\nroot = 'hfsc'\ndefault_tree = false\ndefault = 0x10\n"
           "[[interface.class]]\nhandle = 0x10\nparent = 0\n" +
           keys + "\n";
}

// Bytes a second, in 32 bits: 34359738 * 125 = 4294967250, 34359739 * 125 = 2^32 + 79
TEST(Bounds, HfscRatesFitIn32BitsOfBytes)
{
    const char *const wrong = "tc takes an HFSC rate of at most 34359738kbit; lower it\n";
    EXPECT_EQ("", answer(hfsc_class("ul = 34359738\nsc = 34359738")));
    EXPECT_EQ(string("9:6: ") + wrong, answer(hfsc_class("ul = 34359739\nls = 34359738")));
    EXPECT_EQ(string("10:6: ") + wrong, answer(hfsc_class("ul = 34359738\nsc = 34359739")));
    EXPECT_EQ(string("10:6: ") + wrong, answer(hfsc_class("ul = 1\nls = 34359739")));
    EXPECT_EQ(string("9:6: ") + wrong, answer(hfsc_class("rt = 34359739"), kernel_kind::vendor));
}

// tc counts umax * 1000000 in 32 bits, which 4295 * 1000000 is above. It matters where the rate
// sends umax within dmax: 4295 bytes in 1000 ms are 34.36 kbit/s, 5000 are 40.
TEST(Bounds, ALongUmaxIsSentSlowerThanTheRate)
{
    const char *const wrong = "warning: tc miscounts a umax above 4294 bytes that the rate sends"
                              " within dmax; leave umax and dmax out\n";
    const auto sc = [](u32 umax, u32 kbit) {
        return answer(hfsc_class(
            tool::format("ul = '1mbit'\nsc = { umax = %u, dmax = 1000, rate = %u }", umax, kbit)));
    };
    EXPECT_EQ("", sc(4294, 40));
    EXPECT_EQ(string("10:6: ") + wrong, sc(4295, 40));
    EXPECT_EQ(string("10:6: ") + wrong, sc(4295, 35));  // 4375 bytes/s
    EXPECT_EQ("", sc(4295, 34));                        // 4250 bytes/s
    EXPECT_EQ(string("10:6: ") + wrong, sc(5000, 40));
    EXPECT_EQ("", sc(5001, 40));
}

// tc counts a latency in microseconds of 32 bits: 4294967 ms are 4294967000, 4294968 ms are
// 2^32 + 704. At 8 kbit/s the queue of so long a wait is 4.3 MB, far below 4 GiB.
TEST(Bounds, TbfsLatencyFitsIn32BitsOfMicroseconds)
{
    EXPECT_EQ("", answer(with_leaf(tbf("8kbit", 1514, 4294967))));
    const std::string wrong = answer(with_leaf(tbf("8kbit", 1514, 4294968)));
    EXPECT_NE(std::string::npos, wrong.find("lower it to 4294967ms or less")) << wrong;
}

}  // namespace
