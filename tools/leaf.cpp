// SPDX-License-Identifier: MIT
// The table of the leaf kinds, and above it, under each kind's name, the functions that its row
// holds. Pure: no file, no kernel, no state.
#include "leaf.h"

#include <linux/pkt_sched.h>

#include <bit>
#include <cmath>
#include <nlohmann/json.hpp>

#include "kinds.h"
#include "tarnic_qos.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using json = nlohmann::ordered_json;
// What differs in a leaf is mended at the leaf; its class stays as it is.
constexpr auto scope = difference::scope::leaf;

void no_check(const leaf_qdisc &, position, diagnostics &) {}

// ---- pfifo --------------------------------------------------------------------------------------

leaf_qdisc read_pfifo(const toml::table &table, diagnostics &found)
{
    table_reader in(table, "a pfifo leaf", {"type", "limit"}, found);
    leaf_qdisc leaf{};
    leaf.param.pfifo.limit = in.number("limit", 0, no_limit).get();
    return leaf;
}

void pfifo_from_kernel(live_qdisc &seen, const attribute &options, double)
{
    seen.limit = options.as<tc_fifo_qopt>().limit;
}

string pfifo_command(const live_qdisc &q, const tc_clock &)
{
    return format("pfifo limit %u", q.limit);
}

// Without a limit in the script the kernel takes the queue length that the interface had at that
// moment. Nobody asked for that number, so it is not compared.
void compare_pfifo(u32 handle, const leaf_qdisc &wanted, const live_qdisc &seen, differences &found)
{
    if (wanted.param.pfifo.limit != 0)
        found.number(scope, handle, "limit", seen.limit, wanted.param.pfifo.limit);
}

string pfifo_text(const leaf_qdisc &leaf)
{
    return leaf.param.pfifo.limit == 0 ? "pfifo" : format("pfifo limit %u", leaf.param.pfifo.limit);
}

json pfifo_json(const leaf_qdisc &leaf)
{
    return {{"type", "pfifo"}, {"limit_packets", leaf.param.pfifo.limit}};
}

// ---- SFQ ----------------------------------------------------------------------------------------

leaf_qdisc read_sfq(const toml::table &table, diagnostics &found)
{
    table_reader in(table, "an sfq leaf", {"type", "perturb"}, found);
    leaf_qdisc leaf{};
    leaf.param.sfq.perturb = static_cast<u8>(in.number("perturb", 0, 255).get());
    return leaf;
}

void sfq_from_kernel(live_qdisc &seen, const attribute &options, double)
{
    const auto sfq = options.as<tc_sfq_qopt>();
    seen.perturb = static_cast<u32>(sfq.perturb_period);
    seen.limit = sfq.limit;
    seen.quantum = sfq.quantum;
}

string sfq_command(const live_qdisc &q, const tc_clock &)
{
    constexpr u32 usual_limit = 127;  // packets
    // A limit that is given cuts the number of flows to it, the usual one too.
    const string limit = q.limit == usual_limit ? "" : format(" limit %u", q.limit);
    return format("sfq%s quantum %ub perturb %u", limit.c_str(), q.quantum, q.perturb);
}

// 0 is compared too: without perturb in the script the kernel's is 0.
void compare_sfq(u32 handle, const leaf_qdisc &wanted, const live_qdisc &seen, differences &found)
{
    found.number(scope, handle, "perturb", seen.perturb, wanted.param.sfq.perturb);
}

string sfq_text(const leaf_qdisc &leaf)
{
    return leaf.param.sfq.perturb == 0 ? "sfq" : format("sfq perturb %ds", leaf.param.sfq.perturb);
}

json sfq_json(const leaf_qdisc &leaf)
{
    return {{"type", "sfq"}, {"perturb_s", leaf.param.sfq.perturb}};
}

// ---- RED ----------------------------------------------------------------------------------------

leaf_qdisc read_red(const toml::table &table, diagnostics &found)
{
    table_reader in(table, "a red leaf", {"type", "min", "max", "burst", "limit", "avpkt"}, found);
    leaf_qdisc leaf{};
    red_leaf_param &red = leaf.param.red;
    in.must({"min", "max", "limit", "avpkt"}, "a size, in bytes");
    in.must({"burst"}, "a number of packets");
    red.min = in.size("min").get();
    red.max = in.size("max").get();
    red.burst = in.number("burst", 1, no_limit).get();
    red.limit = in.size("limit").get();
    red.avpkt = in.size("avpkt").get();
    return leaf;
}

// tc doubles the probability, 0.02 divided by max - min, until it is above 1, and gives up after 31
// times: max - min is 42,949,672 bytes at most. The kernel shifts max left by wlog bits and wants
// the result below 2^31.
void check_red_numbers(const red_leaf_param &red, position at, diagnostics &found)
{
    if (red.max > red.min && 0.02 / (red.max - red.min) * 0x1p31 <= 1)
        found.error(at, "tc finds no probability for a red leaf with max so far above min;"
                        " lower max");
    else if (red_wlog(red) != 0 && std::bit_width(red.max) + red_wlog(red) >= 32)
        found.error(at, "the kernel takes no red leaf of so large a max with so large a"
                        " burst; lower one of them");
}

void check_red(const leaf_qdisc &leaf, position at, diagnostics &found)
{
    const red_leaf_param &red = leaf.param.red;
    if (red.min == 0 || red.max == 0 || red.limit == 0 || red.avpkt == 0) {
        found.error(at, "tc takes no 0 in a red leaf; give sizes");
        return;
    }
    if (red.min >= red.max)
        found.error(at, "a red leaf's min must be below its max; lower min or raise max");
    else if (red.max > red.limit)
        found.error(at, "a red leaf's max must not be above its limit; lower max or raise limit");
    // tc says the same of two faults: a burst below min, and one for which no weight is small
    // enough. They need opposite mends, so each has its own message.
    const bool short_burst = u64{red.burst} * red.avpkt < red.min;
    if (!short_burst && red_wlog(red) == 0)
        found.error(at, "tc finds no averaging constant for a red leaf's burst; lower it");
    check_red_numbers(red, at, found);
    if (short_burst)
        found.error(at, format("a red leaf's burst must be at least min / avpkt packets, here %u",
                               static_cast<u32>((u64{red.min} + red.avpkt - 1) / red.avpkt)));
}

// Whether the probability to drop at max is 0.02, tc's own, in the forms in which tc and the kernel
// carry it: halved until max - min of it are below 1, and, since later, 2^32 times.
bool is_usual_probability(const tc_red_qopt &red, u32 probability)
{
    const u32 room = red.qth_max - red.qth_min;
    u32 plog = 0;
    while (plog < 32 && std::ldexp(0.02 / room, static_cast<int>(plog)) <= 1) ++plog;
    // Given the first form alone, the kernel fills in the second, less exactly.
    const u32 filled_in = (0xffffffff >> std::min(plog, 31U)) * room;
    return red.Plog == plog &&
           (probability == 0 || probability == 85899345 || probability == filled_in);
}

void red_from_kernel(live_qdisc &seen, const attribute &options, double)
{
    tc_red_qopt red{};
    u32 probability = 0;
    each_attribute(options.value, [&](const attribute &a) {
        if (a.type == TCA_RED_PARMS) red = a.as<tc_red_qopt>();
        if (a.type == TCA_RED_MAX_P) probability = a.as<u32>();
    });
    seen.limit = red.limit;
    seen.min = red.qth_min;
    seen.max = red.qth_max;
    seen.wlog = red.Wlog;
    seen.idle_log = red.Scell_log;
    seen.more = red.flags != 0 || !is_usual_probability(red, probability);
}

// How coarsely tc lets the kernel count the time in which no packet came: the least n at which the
// average is forgotten within 512 * 2^n ticks, counted at tc's usual 10 Mbit/s.
u32 red_idle_log(u32 wlog, u32 avpkt, double ticks_per_us)
{
    const double ticks = std::floor(avpkt / 1250000.0 * 1e6) * ticks_per_us;
    const double forgotten = 31 * ticks / -std::log(1 - std::ldexp(1.0, -static_cast<int>(wlog)));
    u32 n = 0;
    while (n < 31 && std::ldexp(forgotten, -static_cast<int>(n)) >= 512) ++n;
    return n;
}

// The burst at which tc comes to the weight 1/2^wlog; 0 where there is none. A longer burst never
// has a larger weight, so halves are searched.
u32 red_burst(const live_qdisc &q, u32 avpkt)
{
    red_leaf_param red{};
    red.min = q.min;
    red.avpkt = avpkt;
    u32 least = (q.min + avpkt - 1) / avpkt;
    u32 above = 0xffffff;
    const auto too_short = [&](u32 burst) {
        red.burst = burst;
        const u32 wlog = red_wlog(red);
        return wlog != 0 && wlog < q.wlog;
    };
    while (least < above) {
        const u32 middle = least + (above - least) / 2;
        if (too_short(middle))
            least = middle + 1;
        else
            above = middle;
    }
    red.burst = least;
    return red_wlog(red) == q.wlog ? least : 0;
}

// An avpkt with which tc comes to the qdisc's weight, and if `exact` to its idle_log too: first the
// usual 1000, then from 1 on in steps of a sixteenth, below min, as tc asks. 0 where there is none.
u32 red_avpkt(const live_qdisc &q, const tc_clock &clock, bool exact)
{
    const auto fits = [&](u32 avpkt) {
        return (!exact || red_idle_log(q.wlog, avpkt, clock.ticks_per_us) == q.idle_log) &&
               red_burst(q, avpkt) != 0;
    };
    constexpr u32 usual = 1000;
    if (q.min >= usual && fits(usual)) return usual;
    for (u64 avpkt = 1; avpkt <= q.min; avpkt += 1 + avpkt / 16)
        if (fits(static_cast<u32>(avpkt))) return static_cast<u32>(avpkt);
    return 0;
}

// The kernel keeps of avpkt and burst what they come to: wlog and idle_log. Any two numbers that
// come to the same are as good.
string red_command(const live_qdisc &q, const tc_clock &clock)
{
    if (q.more || q.wlog == 0 || q.wlog > 31) return "";
    u32 avpkt = red_avpkt(q, clock, true);
    if (avpkt == 0) avpkt = red_avpkt(q, clock, false);
    if (avpkt == 0) return "";
    return format("red limit %ub min %ub max %ub avpkt %ub burst %u", q.limit, q.min, q.max, avpkt,
                  red_burst(q, avpkt));
}

// The kernel keeps neither burst nor avpkt. tc makes one number of the two, the weight of the
// average queue (red_wlog), and that is compared.
void compare_red(u32 handle, const leaf_qdisc &wanted, const live_qdisc &seen, differences &found)
{
    const red_leaf_param &red = wanted.param.red;
    found.number(scope, handle, "min", seen.min, red.min);
    found.number(scope, handle, "max", seen.max, red.max);
    found.number(scope, handle, "limit", seen.limit, red.limit);
    found.number(scope, handle, "ewma", seen.wlog, red_wlog(red));
}

string red_text(const leaf_qdisc &leaf)
{
    const red_leaf_param &red = leaf.param.red;
    return format("red min %s max %s limit %s avpkt %s burst %u packets",
                  size_text(red.min).c_str(), size_text(red.max).c_str(),
                  size_text(red.limit).c_str(), size_text(red.avpkt).c_str(), red.burst);
}

json red_json(const leaf_qdisc &leaf)
{
    const red_leaf_param &red = leaf.param.red;
    return {{"type", "red"},
            {"min_bytes", red.min},
            {"max_bytes", red.max},
            {"burst_packets", red.burst},
            {"limit_bytes", red.limit},
            {"avpkt_bytes", red.avpkt}};
}

// ---- TBF ----------------------------------------------------------------------------------------

leaf_qdisc read_tbf(const toml::table &table, diagnostics &found)
{
    table_reader in(table, "a tbf leaf", {"type", "rate", "burst", "latency"}, found);
    leaf_qdisc leaf{};
    tbf_leaf_param &tbf = leaf.param.tbf;
    in.must({"rate"}, "a rate");
    in.must({"burst"}, "a size, in bytes");
    in.must({"latency"}, "a time, in ms");
    tbf.rate = in.rate("rate").get();
    tbf.burst = in.size("burst").get();
    tbf.latency = in.time("latency").get();
    return leaf;
}

// What may wait, in bytes: what the rate sends during the latency, and the burst. tc gives the
// kernel this limit in place of the latency.
double tbf_limit(const tbf_leaf_param &tbf)
{
    return static_cast<double>(bytes_per_second(tbf.rate)) * tbf.latency / 1e3 + tbf.burst;
}

void check_tbf(const leaf_qdisc &leaf, position at, diagnostics &found)
{
    const tbf_leaf_param &tbf = leaf.param.tbf;
    if (tbf.rate == 0 || tbf.burst == 0 || tbf.latency == 0)
        found.error(at, "tc takes no 0 in a tbf leaf; give rate, burst and latency");
    else if (tbf_limit(tbf) > 4294967295.0)
        found.error(at, "a tbf leaf's latency at its rate comes to more than 4 GiB, which tc"
                        " cannot say; lower latency");
    // 4294967 ms is the last whole number of milliseconds in 2^32 us.
    else if (tbf.latency > 0xffffffff / 1000)
        found.error(at, "tc counts a tbf leaf's latency in microseconds of 32 bits; lower it to"
                        " 4294967ms or less");
    else if (takes_too_long(tbf.burst, tbf.rate))
        found.error(at, burst_right);
    // 1514: the longest usual Ethernet frame, 14 bytes of header and 1500 of packet.
    else if (tbf.burst < 1514)
        found.warning(at, "a tbf leaf drops packets longer than its burst; give 1514b or more");
}

void tbf_from_kernel(live_qdisc &seen, const attribute &options, double ticks_per_us)
{
    tc_tbf_qopt opt{};
    u64 rate64 = 0;
    each_attribute(options.value, [&](const attribute &a) {
        if (a.type == TCA_TBF_PARMS) opt = a.as<tc_tbf_qopt>();
        if (a.type == TCA_TBF_RATE64) rate64 = a.as<u64>();
    });
    // The kernel sends the rate of 64 bits only from 2^32 bytes/s on; the field of 32 is full then.
    seen.rate = rate64 != 0 ? rate64 : opt.rate.rate;
    seen.limit = opt.limit;
    seen.burst = bytes_of_ticks(opt.buffer, seen.rate, ticks_per_us);
    seen.more = opt.peakrate.rate != 0 || opt.rate.overhead != 0 ||
                (opt.rate.linklayer & TC_LINKLAYER_MASK) > TC_LINKLAYER_ETHERNET;
}

string tbf_command(const live_qdisc &q, const tc_clock &clock)
{
    const auto burst = clock.tbf_burst(ticks_of_bytes(q.burst, q.rate, clock.ticks_per_us), q.rate);
    if (q.more || !burst) return "";
    return format("tbf rate %sbit burst %ub limit %ub", std::to_string(q.rate * 8).c_str(), *burst,
                  q.limit);
}

void compare_tbf(u32 handle, const leaf_qdisc &wanted, const live_qdisc &seen, differences &found)
{
    const tbf_leaf_param &tbf = wanted.param.tbf;
    found.rate(scope, handle, "tbf rate", seen.rate, tbf.rate);
    found.burst(scope, handle, "tbf burst", seen.burst, tbf.burst, tbf.rate);
    const double limit = tbf_limit(tbf);
    // tc counts the limit in floating point and cuts the fraction off: 1 byte, and a millionth for
    // the rounding before.
    if (std::abs(limit - seen.limit) > 1 + limit * 1e-6)
        found.add(scope, handle, format("tbf limit is %ub, not %.0fb", seen.limit, limit));
}

string tbf_text(const leaf_qdisc &leaf)
{
    const tbf_leaf_param &tbf = leaf.param.tbf;
    return format("tbf rate %s burst %s latency %ums", rate_text(tbf.rate).c_str(),
                  size_text(tbf.burst).c_str(), tbf.latency);
}

json tbf_json(const leaf_qdisc &leaf)
{
    const tbf_leaf_param &tbf = leaf.param.tbf;
    return {{"type", "tbf"},
            {"latency_ms", tbf.latency},
            {"rate_kbit", tbf.rate},
            {"burst_bytes", tbf.burst}};
}

// ---- The table ----------------------------------------------------------------------------------

// clang-format off
constexpr leaf_kind kinds[] = {
    {"pfifo", L_pfifo, true,
     read_pfifo, no_check, pfifo_from_kernel, pfifo_command, compare_pfifo,
     pfifo_text, pfifo_json},
    {"sfq", L_SFQ, false,  // the kernel changes no SFQ: it is removed and added
     read_sfq, no_check, sfq_from_kernel, sfq_command, compare_sfq,
     sfq_text, sfq_json},
    {"red", L_RED, true,
     read_red, check_red, red_from_kernel, red_command, compare_red,
     red_text, red_json},
    {"tbf", L_TBF, true,
     read_tbf, check_tbf, tbf_from_kernel, tbf_command, compare_tbf,
     tbf_text, tbf_json},
};
// clang-format on

static_assert(std::size(kinds) == mordel::leaf_types, "a row for each L_…, and no other");
static_assert(are_by_type(kinds));

}  // namespace

std::span<const leaf_kind> leaf_kinds() { return kinds; }

const leaf_kind &kind_of(const leaf_qdisc &leaf) { return kinds[leaf.type]; }

const leaf_kind *find_leaf_kind(std::string_view name) { return find_by_name(kinds, name); }

value<leaf_qdisc> read_leaf(const toml::table &table, diagnostics &found)
{
    static constexpr auto names = names_of(kinds);
    // A kind's read tells of a fault by reporting it: more errors than before make the leaf wrong.
    const std::size_t before = found.errors();
    table_reader in(table, "a leaf", found);
    if (!in.has("type")) in.missing("type", joined(names));
    const value<u32> type = in.word("type", names);
    if (!type.is_good()) return value<leaf_qdisc>::wrong(in.at());
    const leaf_kind &kind = kinds[type.get()];
    leaf_qdisc leaf = kind.read(table, found);
    leaf.type = kind.type;
    return found.errors() == before ? value<leaf_qdisc>::good(leaf, in.at())
                                    : value<leaf_qdisc>::wrong(in.at());
}

u32 red_wlog(const red_leaf_param &red)
{
    // The search that tc makes, step by step: from 1/2 down to 1/2^31, the first weight under which
    // the average stays below min while a burst arrives. `room` below 1 is a burst below min.
    const double room = double(red.burst) + 1 - double(red.min) / red.avpkt;
    for (u32 n = 1; n <= 31 && room >= 1; ++n) {
        const double weight = std::ldexp(1.0, -static_cast<int>(n));
        if (room <= (1 - std::pow(1 - weight, red.burst)) / weight) return n;
    }
    return 0;
}

}  // namespace tool
