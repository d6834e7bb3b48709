// SPDX-License-Identifier: MIT
// The rows of the class kinds, and above each the functions that it holds. Pure: no file, no
// kernel, no state.
#include "class.h"

#include <linux/pkt_sched.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "tarnic_qos.h"
#include "text.h"
#include "ticks.h"
#include "tree.h"

namespace tool {
namespace {

using std::string;
using json = nlohmann::ordered_json;
// A difference in parameters is mended by one `tc class change`; the tree stays.
constexpr auto parameters = difference::scope::class_parameters;

// ---- HTB ----------------------------------------------------------------------------------------

void read_htb(table_reader &in, policy_class &entry)
{
    in.only("an HTB class",
            {"handle", "parent", "name", "leaf", "rate", "ceil", "prio", "burst", "cburst"});
    in.must({"rate"}, "a rate");
    htb_values &v = entry.htb;
    v.rate = in.rate("rate");
    v.ceil = in.rate("ceil");
    v.prio = in.number("prio", 0, 7);
    v.burst = in.size("burst");
    v.cburst = in.size("cburst");
    // Without a ceil a class borrows nothing: its ceil is its rate.
    const u32 ceil = v.ceil.is_absent() ? v.rate.get() : v.ceil.get();
    entry.param.htb = {v.rate.get(), ceil, v.burst.get(), v.cburst.get(), v.prio.get()};
}

// HTB lets a class send at its rate whatever its parent's ceil is: a rate above that ceil would
// break the parent's limit, which is an error. A ceil above it does no harm.
void check_htb_below(const tree_class &c, const tree_class &parent, diagnostics &found)
{
    const htb_class_param &p = c.param.htb;
    // 0 when the parent's rate or ceil is missing or wrong, which is reported.
    const u32 most = parent.param.htb.ceil;
    if (most == 0) return;
    const htb_values &v = c.entry->htb;
    if (p.rate > most)
        found.error(v.rate.at(),
                    format("rate %s is above the ceil of its parent 0x%x, %s; lower it to that"
                           " or less",
                           rate_text(p.rate).c_str(), c.parent, rate_text(most).c_str()));
    else if (p.ceil > most)
        found.warning(v.ceil.at(),
                      format("ceil %s is never reached: that of its parent 0x%x is %s",
                             rate_text(p.ceil).c_str(), c.parent, rate_text(most).c_str()));
}

void check_htb(const tree_class &c, const tree_class *parent, kernel_kind, diagnostics &found)
{
    const htb_class_param &p = c.param.htb;
    const htb_values &v = c.entry->htb;
    if (v.rate.is_good() && p.rate == 0)
        found.error(v.rate.at(), "tc takes no rate of 0; give 1kbit or more");
    if (v.ceil.is_good() && p.ceil < p.rate)
        found.error(v.ceil.at(), format("ceil %s is below the rate, %s; raise it to that or more",
                                        rate_text(p.ceil).c_str(), rate_text(p.rate).c_str()));
    // tc and the kernel carry a burst as the time it takes at its rate (ticks.h).
    if (takes_too_long(p.burst, p.rate)) found.error(v.burst.at(), burst_right);
    if (takes_too_long(p.cburst, p.ceil)) found.error(v.cburst.at(), burst_right);
    if (parent != nullptr) check_htb_below(c, *parent, found);
}

// Whether a rate is as the scripts give rates: without bytes to be added to each packet, and
// counted as Ethernet does. The table of old kernels that comes along is no option.
bool is_plain(const tc_ratespec &rate)
{
    return rate.overhead == 0 && rate.mpu == 0 &&
           (rate.linklayer & TC_LINKLAYER_MASK) <= TC_LINKLAYER_ETHERNET;
}

// "8000bit"; whole, since the kernel's bytes/s are.
string bits_text(u64 bytes_per_s) { return std::to_string(bytes_per_s * 8) + "bit"; }

void htb_from_kernel(live_class &seen, const attribute &options, double ticks_per_us)
{
    tc_htb_opt opt{};
    u64 rate64 = 0;
    u64 ceil64 = 0;
    each_attribute(options.value, [&](const attribute &a) {
        if (a.type == TCA_HTB_PARMS) opt = a.as<tc_htb_opt>();
        if (a.type == TCA_HTB_RATE64) rate64 = a.as<u64>();
        if (a.type == TCA_HTB_CEIL64) ceil64 = a.as<u64>();
    });
    // The kernel sends rates of 64 bits only from 2^32 bytes/s on; the fields of 32 are full then.
    seen.rate = rate64 != 0 ? rate64 : opt.rate.rate;
    seen.ceil = ceil64 != 0 ? ceil64 : opt.ceil.rate;
    seen.burst = bytes_of_ticks(opt.buffer, seen.rate, ticks_per_us);
    seen.cburst = bytes_of_ticks(opt.cbuffer, seen.ceil, ticks_per_us);
    seen.prio = opt.prio;
    seen.quantum = opt.quantum;
    seen.more = !is_plain(opt.rate) || !is_plain(opt.ceil);
}

string htb_command(const live_class &c, const tc_clock &clock)
{
    const auto burst = clock.htb_burst(ticks_of_bytes(c.burst, c.rate, clock.ticks_per_us), c.rate);
    const auto cburst =
        clock.htb_burst(ticks_of_bytes(c.cburst, c.ceil, clock.ticks_per_us), c.ceil);
    if (c.more || !burst || !cburst) return "";
    return format("htb rate %s ceil %s burst %ub cburst %ub prio %u quantum %u",
                  bits_text(c.rate).c_str(), bits_text(c.ceil).c_str(), *burst, *cburst, c.prio,
                  c.quantum);
}

void compare_htb(const tree_class &wanted, const live_class &seen, differences &found)
{
    const htb_class_param &p = wanted.param.htb;
    found.rate(parameters, wanted.handle, "rate", seen.rate, p.rate);
    found.rate(parameters, wanted.handle, "ceil", seen.ceil, p.ceil);
    found.burst(parameters, wanted.handle, "burst", seen.burst, p.burst, p.rate);
    found.burst(parameters, wanted.handle, "cburst", seen.cburst, p.cburst, p.ceil);
    // Only leaf classes take turns by prio. In a class with children the kernel makes no use of the
    // number, and what it shows of it may be left from before the children came.
    if (!wanted.has_children) found.number(parameters, wanted.handle, "prio", seen.prio, p.prio);
}

u32 htb_limit(const tree_class &c) { return c.param.htb.ceil; }
u32 htb_share(const tree_class &c) { return c.param.htb.rate; }

string htb_text(const tree_class &c)
{
    const htb_class_param &p = c.param.htb;
    return format("rate %s ceil %s prio %u", rate_text(p.rate).c_str(), rate_text(p.ceil).c_str(),
                  p.prio);
}

string htb_label(const tree_class &c)
{
    return rate_text(c.param.htb.rate) + " to " + rate_text(c.param.htb.ceil);
}

string htb_live_limits(const live_class &c)
{
    // The kernel counts bytes/s, and texts kbit/s: 125 bytes/s are 1 kbit/s.
    return rate_text(c.rate / 125) + " to " + rate_text(c.ceil / 125);
}

void htb_json(const tree_class &c, json &out)
{
    const htb_class_param &p = c.param.htb;
    out.update({{"rate_kbit", p.rate},
                {"ceil_kbit", p.ceil},
                {"burst_bytes", p.burst},
                {"cburst_bytes", p.cburst},
                {"prio", p.prio}});
}

// ---- HFSC: its curves ---------------------------------------------------------------------------

// A curve of one slope may be given as a rate alone: ul = "8mbit".
value<hfsc_curve> read_curve(table_reader &in, std::string_view key)
{
    const toml::node *node = in.get(key);
    const toml::table *table = node == nullptr ? nullptr : node->as_table();
    if (table == nullptr) {
        const value<u32> rate = in.rate(key);
        if (rate.is_absent()) return value<hfsc_curve>::absent(rate.at());
        if (rate.is_wrong()) return value<hfsc_curve>::wrong(rate.at());
        return value<hfsc_curve>::good({0, 0, rate.get()}, rate.at());
    }
    const std::size_t before = in.found().errors();
    table_reader sub(*table, "curve " + string(key), {"rate", "umax", "dmax"}, in.found());
    sub.must({"rate"}, "a rate");
    hfsc_curve curve{};
    curve.rate = sub.rate("rate").get();
    curve.umax = sub.size("umax").get();
    curve.dmax = sub.time("dmax").get();
    return in.found().errors() == before ? value<hfsc_curve>::good(curve, sub.at())
                                         : value<hfsc_curve>::wrong(sub.at());
}

// What tc makes of a curve's umax (bytes), dmax (ms) and rate: a slope m1 for d us, then the slope
// m2, which is the rate. The script gives umax, dmax and rate, the kernel tells m1, d and m2, so a
// comparison has to repeat tc's arithmetic with its rounding.
live_curve curve_of(const hfsc_curve &c)
{
    const auto rate = static_cast<double>(bytes_per_second(c.rate));
    live_curve out{};
    out.m2 = static_cast<u32>(std::min(rate, 4294967295.0));
    if (c.umax == 0) return out;
    const double d = c.dmax * 1e3;
    const double m1 = d == 0 ? 0 : std::ceil(c.umax * 1e6 / d);
    // Is umax within dmax faster than the rate? Then that is the first slope. Else the curve is
    // flat at first, as long as umax at the rate still ends within dmax.
    if (d != 0 && m1 > rate) {
        out.m1 = static_cast<u32>(std::min(m1, 4294967295.0));
        out.d = static_cast<u32>(d);
    } else if (rate != 0) {
        out.d = static_cast<u32>(std::max(0.0, std::ceil(d - c.umax * 1e6 / rate)));
    }
    return out;
}

// The flat part of a curve (d) as tc counts it when it multiplies umax * 1000000 in 32 bits: above
// 4294 bytes the product wraps. A kernel that holds this number holds what the script gave it;
// called a difference, it would come back after every apply.
u32 wrapped_delay(const hfsc_curve &c)
{
    const u64 rate = bytes_per_second(c.rate);
    if (rate == 0) return 0;
    const u32 product = c.umax * 1000000U;
    return c.dmax * 1000 - static_cast<u32>(product / rate);
}

// The kernel keeps a curve as fixed-point numbers and computes m1, d and m2 back from them, which
// costs the last digits: 2, or 1 in 10,000, may be lost.
bool near_number(u32 a, u32 b) { return std::abs(double(a) - double(b)) <= 2 + b * 1e-4; }

void compare_curve(u32 handle, const char *name, const std::optional<live_curve> &seen,
                   const hfsc_curve *wanted, differences &found)
{
    // `tc class change` sets the curves that it names and takes none away. When a class has other
    // curves than it should, it is deleted and added.
    const bool present = seen && (seen->m1 != 0 || seen->m2 != 0);
    if (present != (wanted != nullptr)) {
        found.add(difference::scope::remade_class, handle,
                  format(present ? "has a curve %s" : "has no curve %s", name));
        return;
    }
    if (!present) return;
    // Either way of counting the flat part is right.
    live_curve curve = curve_of(*wanted);
    if (near_number(seen->d, wrapped_delay(*wanted))) curve.d = seen->d;
    if (near_number(seen->m1, curve.m1) && near_number(seen->d, curve.d) &&
        near_number(seen->m2, curve.m2))
        return;
    const auto rate_of = differences::exact_rate;
    found.add(parameters, handle,
              format("curve %s is %s for %uus, then %s; not %s for %uus, then %s", name,
                     rate_of(seen->m1).c_str(), seen->d, rate_of(seen->m2).c_str(),
                     rate_of(curve.m1).c_str(), curve.d, rate_of(curve.m2).c_str()));
}

string curve_text(const char *name, const hfsc_curve &curve)
{
    if (curve.rate == 0 && curve.umax == 0) return "";
    string out = format("%s %s", name, rate_text(curve.rate).c_str());
    if (curve.umax != 0) out += " umax " + size_text(curve.umax);
    if (curve.dmax != 0) out += format(" dmax %ums", curve.dmax);
    return out;
}

json curve_json(const hfsc_curve &c)
{
    return {{"rate_kbit", c.rate}, {"umax_bytes", c.umax}, {"dmax_ms", c.dmax}};
}

// ---- HFSC ---------------------------------------------------------------------------------------

struct named_curve {
    const char *key;
    const value<hfsc_curve> &given;
};

void read_hfsc(table_reader &in, policy_class &entry)
{
    in.only("an HFSC class", {"handle", "parent", "name", "leaf", "ul", "sc", "ls", "rt"});
    hfsc_values &v = entry.hfsc;
    v.ul = read_curve(in, "ul");
    v.sc = read_curve(in, "sc");
    v.ls = read_curve(in, "ls");
    v.rt = read_curve(in, "rt");
    entry.param.hfsc = {v.ul.get(), v.sc.get(), v.ls.get(), v.rt.get()};
}

// What is wrong with a curve by itself. tc counts the flat part in 32 bits (wrapped_delay) and the
// steep first slope in floating point, so a large umax is miscounted only where the rate sends umax
// within dmax.
void check_curve(const named_curve &c, diagnostics &found)
{
    constexpr u32 most_umax = 4294;  // bytes; 4295 * 1000000 is more than 2^32
    const hfsc_curve &curve = c.given.get();
    if (curve.rate > most_hfsc_kbit) found.error(c.given.at(), hfsc_right());
    if (curve.umax > most_umax && curve.dmax != 0 &&
        std::ceil(curve.umax * 1e3 / curve.dmax) <= curve.rate * 125.0)
        found.warning(c.given.at(),
                      "tc miscounts a umax above 4294 bytes that the rate sends within dmax;"
                      " leave umax and dmax out");
}

// HFSC keeps the guarantees of sc and rt without a look at the ul of a class above: one that is
// higher would break that limit. ls is no guarantee but a share of what the parent gets.
void check_hfsc_below(const tree_class &c, const tree_class &parent, diagnostics &found)
{
    const u32 most = parent.param.hfsc.ul.rate;
    if (most == 0) return;
    const hfsc_values &v = c.entry->hfsc;
    for (const auto &[key, given] : {named_curve{"sc", v.sc}, named_curve{"rt", v.rt}})
        if (given.get().rate > most)
            found.error(given.at(),
                        format("%s %s is above the ul of its parent 0x%x, %s; lower it to"
                               " that or less",
                               key, rate_text(given.get().rate).c_str(), c.parent,
                               rate_text(most).c_str()));
}

// A class's line has ul and one of sc, ls and rt; another curve in the policy has no effect.
// `first` is the curve that a leaf would have, `written` the one that this class has: they differ
// when the class has children and only rt is given.
void check_written_curves(const tree_class &c, diagnostics &found)
{
    const hfsc_values &v = c.entry->hfsc;
    const int first = written_curve(c.param.hfsc, false).id;
    const int written = written_curve(c.param.hfsc, c.has_children).id;
    const struct {
        int id;
        const value<hfsc_curve> &given;
    } curves[] = {{mordel::curve_sc, v.sc}, {mordel::curve_ls, v.ls}, {mordel::curve_rt, v.rt}};
    for (const auto &[id, given] : curves) {
        if (given.get().rate == 0 || id == written) continue;
        const char *name = TxtMapById(mordel::CurveTypeMap, id);
        if (id == first)
            found.warning(given.at(),
                          format("%s is not written: class has classes below it", name));
        else
            found.warning(given.at(),
                          format("%s is not written: of sc, ls and rt only the first is, %s", name,
                                 TxtMapById(mordel::CurveTypeMap, first)));
    }
}

void check_hfsc(const tree_class &c, const tree_class *parent, kernel_kind kernel,
                diagnostics &found)
{
    const hfsc_values &v = c.entry->hfsc;
    const named_curve curves[] = {{"ul", v.ul}, {"sc", v.sc}, {"ls", v.ls}, {"rt", v.rt}};
    if (parent != nullptr) check_hfsc_below(c, *parent, found);
    for (const named_curve &curve : curves) check_curve(curve, found);
    check_written_curves(c, found);
    // What follows warns of what a mainline kernel, or its tc, refuses. ul is written always: a ul
    // that is not given reaches tc as "ul rate 0kbit".
    if (kernel == kernel_kind::vendor) return;
    if (v.ul.get().rate != 0) {
        if (!v.sc.is_wrong() && !v.ls.is_wrong() && v.sc.get().rate == 0 && v.ls.get().rate == 0)
            warn_of_mainline(found, c.entry->at, "an HFSC class without sc and ls",
                             "give one of them");
    } else if (!v.ul.is_wrong()) {
        warn_of_mainline(found, v.ul.at(), "an HFSC class whose ul is 0", "give ul a rate");
    }
    for (const auto &[key, given] : curves)
        if (given.get().umax != 0 && given.get().dmax == 0)
            warn_of_mainline(found, given.at(), "a umax without a dmax", "give both");
}

// The kernel's names: rsc, the real-time curve (rt); fsc, the link-sharing one (ls); usc, the upper
// limit (ul).
void hfsc_from_kernel(live_class &seen, const attribute &options, double)
{
    each_attribute(options.value, [&](const attribute &a) {
        const auto curve = a.as<tc_service_curve>();
        const live_curve one{curve.m1, curve.d, curve.m2};
        if (a.type == TCA_HFSC_RSC) seen.rsc = one;
        if (a.type == TCA_HFSC_FSC) seen.fsc = one;
        if (a.type == TCA_HFSC_USC) seen.usc = one;
    });
}

string curve_command(const char *name, const std::optional<live_curve> &curve)
{
    if (!curve) return "";
    string first;
    if (curve->m1 != 0 || curve->d != 0)
        first = format(" m1 %s d %uus", bits_text(curve->m1).c_str(), curve->d);
    return format(" %s%s m2 %s", name, first.c_str(), bits_text(curve->m2).c_str());
}

string hfsc_command(const live_class &c, const tc_clock &)
{
    const string curves =
        curve_command("rt", c.rsc) + curve_command("ls", c.fsc) + curve_command("ul", c.usc);
    return curves.empty() ? "" : "hfsc" + curves;
}

// The kernel knows no sc: tc sets it as the real-time curve and as the link-sharing one.
void compare_hfsc(const tree_class &wanted, const live_class &seen, differences &found)
{
    const hfsc_class_param &p = wanted.param.hfsc;
    const auto [id, curve] = written_curve(p, wanted.has_children);
    compare_curve(wanted.handle, "ul", seen.usc, p.ul.rate != 0 ? &p.ul : nullptr, found);
    compare_curve(wanted.handle, "rt", seen.rsc, id == mordel::curve_ls ? nullptr : curve, found);
    compare_curve(wanted.handle, "ls", seen.fsc, id == mordel::curve_rt ? nullptr : curve, found);
}

u32 hfsc_limit(const tree_class &c) { return c.param.hfsc.ul.rate; }
u32 hfsc_share(const tree_class &c)
{
    const hfsc_curve *curve = written_curve(c.param.hfsc, c.has_children).curve;
    return curve == nullptr ? 0 : curve->rate;
}

// Only curves that the script writes, so that the picture shows what will hold.
string hfsc_text(const tree_class &c)
{
    string out = curve_text("ul", c.param.hfsc.ul);
    const auto [id, curve] = written_curve(c.param.hfsc, c.has_children);
    if (curve == nullptr) return out;
    if (!out.empty()) out += "  ";
    return out + curve_text(TxtMapById(mordel::CurveTypeMap, id), *curve);
}

string hfsc_live_limits(const live_class &c)
{
    return c.usc ? "to " + rate_text(c.usc->m2 / 125) : "";
}

void hfsc_json(const tree_class &c, json &out)
{
    const hfsc_class_param &p = c.param.hfsc;
    out.update({{"ul", curve_json(p.ul)},
                {"sc", curve_json(p.sc)},
                {"ls", curve_json(p.ls)},
                {"rt", curve_json(p.rt)}});
}

// ---- PRIO's bands: nothing but a leaf -----------------------------------------------------------

void read_nothing(table_reader &, policy_class &) {}
void check_nothing(const tree_class &, const tree_class *, kernel_kind, diagnostics &) {}
void nothing_from_kernel(live_class &, const attribute &, double) {}
void compare_nothing(const tree_class &, const live_class &, differences &) {}
u32 no_rate(const tree_class &) { return 0; }
string no_text(const tree_class &) { return ""; }
string no_live_limits(const live_class &) { return ""; }
void no_json(const tree_class &, json &) {}

}  // namespace

string hfsc_right()
{
    return format("tc takes an HFSC rate of at most %s; lower it",
                  rate_text(most_hfsc_kbit).c_str());
}

// clang-format off
const class_kind htb_class = {
    read_htb, check_htb, htb_from_kernel, htb_command, true, compare_htb,
    htb_limit, htb_share, htb_text, htb_label, htb_live_limits, htb_json,
};
const class_kind hfsc_class = {
    read_hfsc, check_hfsc, hfsc_from_kernel, hfsc_command, false, compare_hfsc,
    hfsc_limit, hfsc_share, hfsc_text, hfsc_text, hfsc_live_limits, hfsc_json,
};
const class_kind prio_band = {
    read_nothing, check_nothing, nothing_from_kernel, nullptr, false, compare_nothing,
    no_rate, no_rate, no_text, no_text, no_live_limits, no_json,
};
// clang-format on

}  // namespace tool
