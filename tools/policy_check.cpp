// The second half of reading a policy: what values mean together, and what the kernel will say.

#include <bit>
#include <cmath>
#include <map>
#include <set>
#include <tuple>

#include "names.h"
#include "policy.h"
#include "text.h"

namespace tool {
namespace {

using std::string;

constexpr u32 band_least = 1;
constexpr u32 nobody = 0xffffffff;  // the parent of a class whose parent could not be read

hfsc_class_param plain_curves(u32 rate)
{
    hfsc_class_param p{};
    p.ul.rate = p.sc.rate = rate;
    return p;
}

tree_class built_in(u32 handle, u32 parent, u32 rate, u32 burst, const char *name)
{
    tree_class c;
    c.handle = handle;
    c.parent = parent;
    c.name = name;
    c.htb = {rate, rate, burst, burst, 0};
    c.hfsc = plain_curves(rate);
    return c;
}

// What the library makes by itself for an interface
std::vector<tree_class> built_in_classes(const policy_interface &iface)
{
    std::vector<tree_class> all;
    if (iface.classful() && iface.default_tree) {
        const u32 link = iface.speeds[0];
        const u32 phy = iface.speeds[2];
        all.push_back(built_in(1, 0, phy, 1000000, "root"));
        all.push_back(built_in(2, 1, phy, 6000, "non-limit"));
        all.back().leaf.type = L_SFQ;
        all.back().leaf.param.sfq.perturb = 10;
        all.push_back(built_in(3, 1, link, 6000, "user"));
    }
    if (iface.root_type == R_PRIO)
        for (u32 band = band_least; band <= iface.param.prio.bands; ++band)
            all.push_back(built_in(band, 0, 0, 0, format("Class%u", band).c_str()));
    return all;
}

// All classes, in the order in which they are declared
std::vector<tree_class> declared(const policy_interface &iface)
{
    std::vector<tree_class> all = built_in_classes(iface);
    for (const policy_class &entry : iface.classes) {
        tree_class *known = nullptr;
        for (tree_class &c : all)
            if (c.handle == entry.handle && entry.existing) known = &c;
        if (known == nullptr) {
            if (entry.existing || entry.handle == 0) continue;  // no such band, or unknown
            tree_class c;
            c.handle = entry.handle;
            c.parent = entry.placed ? entry.parent : nobody;
            c.htb = entry.htb;
            c.hfsc = entry.hfsc;
            all.push_back(c);
            known = &all.back();
        }
        known->entry = &entry;
        if (!entry.name.empty()) known->name = entry.name;
        if (entry.has_leaf) known->leaf = entry.leaf;
    }
    std::set<u32> parents;
    for (const tree_class &c : all)
        if (c.parent != c.handle) parents.insert(c.parent);
    for (tree_class &c : all) c.has_children = parents.contains(c.handle);
    return all;
}

// "0x10, 0x11 and 7 more"
string handles(const std::vector<tree_class> &tree, bool leaves_only)
{
    constexpr std::size_t shown = 12;
    std::set<u32> all;
    for (const tree_class &c : tree)
        if (!leaves_only || !c.has_children) all.insert(c.handle);
    string list;
    std::size_t n = 0;
    for (const u32 handle : all)
        if (n++ < shown) list += (list.empty() ? "" : ", ") + hex(handle);
    if (n > shown) list += format(" and %zu more", n - shown);
    return list.empty() ? "none" : list;
}

class interface_checker {
public:
    interface_checker(const policy &p, const policy_interface &iface, kernel_kind kernel,
                      diagnostics &found)
        : policy_(p),
          iface_(iface),
          mainline_(kernel == kernel_kind::mainline),
          found_(found),
          classes_(declared(iface))
    {}

    void check()
    {
        check_speeds();
        check_order();
        for (const tree_class &c : classes_) check_class(c);
        check_default();
        check_automark();
        std::set<u8> indexes;
        for (const policy_rule &rule : iface_.rules) {
            if (rule.indexed && !indexes.insert(rule.index).second)
                found_.error(rule.at,
                             format("a second rule with index %d; give each its own", rule.index));
            check_rule(rule);
        }
    }

private:
    void check_speeds()
    {
        if (!iface_.classful() || !iface_.default_tree) return;
        const u32 link = iface_.speeds[0];
        const u32 phy = iface_.speeds[2];
        for (const auto &[name, rate, at] : {std::tuple{"phy_tx", phy, iface_.phy_at},
                                             std::tuple{"link_tx", link, iface_.link_at}}) {
            if (iface_.root_type == R_HFSC && rate > most_hfsc_kbit) found_.error(at, hfsc_right());
            if (rate == 0 && at != iface_.at && !failed_at(at))
                found_.error(at, format("%s is the rate of a class, and tc takes no rate of 0; give"
                                        " 1kbit or more",
                                        name));
        }
        if (link > phy && phy != 0)
            found_.error(
                iface_.link_at,
                format("link_tx, %s, is above phy_tx, %s, which holds the whole tree; lower"
                       " it to that or less",
                       rate_text(link).c_str(), rate_text(phy).c_str()));
    }

    // Handles are unique, and parents stand before their children.
    void check_order()
    {
        std::set<u32> known;
        std::set<u32> entered;
        for (const tree_class &c : built_in_classes(iface_)) known.insert(c.handle);
        for (const policy_class &c : iface_.classes) {
            if (!c.placed) continue;  // reported already
            const bool again = !entered.insert(c.handle).second;
            if (again)
                found_.error(
                    c.at, format("a second class with handle 0x%x; give each its own", c.handle));
            if (c.existing)
                check_band(c);
            else if (!again)
                check_parent(c, known);
            known.insert(c.handle);
        }
    }

    void check_band(const policy_class &c)
    {
        if (iface_.root_type != R_PRIO || c.handle <= iface_.param.prio.bands) return;
        found_.error(place(c, "handle"),
                     format("PRIO has no class 0x%x; its classes are its bands, 1 to %d", c.handle,
                            iface_.param.prio.bands));
    }

    void check_parent(const policy_class &c, const std::set<u32> &known)
    {
        if (c.handle == 1 && c.parent != 0) {
            found_.error(place(c, "parent"), "class 1 always hangs on the root; leave out parent");
            return;
        }
        if (c.parent == 0 || known.contains(c.parent)) return;
        bool later = false;
        for (const policy_class &other : iface_.classes) later |= other.handle == c.parent;
        if (c.parent == c.handle)
            found_.error(place(c, "parent"), "a class below itself; give another class, or 0");
        else if (later)
            found_.error(place(c, "parent"),
                         format("class 0x%x stands before its parent 0x%x; move it behind",
                                c.handle, c.parent));
        else
            found_.error(place(c, "parent"),
                         format("there is no class 0x%x to be a parent; there are: %s", c.parent,
                                handles(classes_, false).c_str()));
    }

    void check_class(const tree_class &c)
    {
        if (c.entry == nullptr) return;
        const policy_class &entry = *c.entry;
        if (entry.has_leaf && c.has_children)
            found_.error(place(entry, "leaf"),
                         format("class 0x%x has classes below it, so its leaf would never be"
                                " attached; leave it out",
                                c.handle));
        if (entry.has_leaf) check_leaf(entry);
        if (entry.existing) return;
        if (iface_.root_type == R_HTB) check_htb(c, entry);
        if (iface_.root_type == R_HFSC) check_hfsc(c, entry);
    }

    void check_htb(const tree_class &c, const policy_class &entry)
    {
        const htb_class_param &p = c.htb;
        if (p.rate == 0 && entry.places.has("rate") && !failed_at(place(entry, "rate")))
            found_.error(place(entry, "rate"), "tc takes no rate of 0; give 1kbit or more");
        if (p.rate != 0 && p.ceil < p.rate && !failed_at(place(entry, "ceil")))
            found_.error(place(entry, "ceil"),
                         format("ceil %s is below the rate, %s; raise it to that or more",
                                rate_text(p.ceil).c_str(), rate_text(p.rate).c_str()));
        check_bursts(entry, p);
        const tree_class *parent = find_class(classes_, c.parent);
        if (parent == nullptr || parent == &c || parent->htb.ceil == 0) return;
        const string ceil = rate_text(parent->htb.ceil);
        if (p.rate > parent->htb.ceil)
            found_.error(place(entry, "rate"),
                         format("rate %s is above the ceil of its parent 0x%x, %s; lower it to that"
                                " or less",
                                rate_text(p.rate).c_str(), c.parent, ceil.c_str()));
        else if (p.ceil > parent->htb.ceil)
            found_.warning(place(entry, "ceil"),
                           format("ceil %s is never reached: that of its parent 0x%x is %s",
                                  rate_text(p.ceil).c_str(), c.parent, ceil.c_str()));
    }

    // A burst travels as the time that it takes, in 32 bits of 64 ns.
    static bool takes_too_long(u32 bytes, u32 kbit)
    {
        return kbit != 0 && bytes / (kbit * 125.0) * 15.625e6 > 4294967295.0;
    }
    static constexpr char burst_right[] =
        "tc cannot say a burst that takes more than 274 s at its rate; lower it";

    void check_bursts(const policy_class &entry, const htb_class_param &p)
    {
        if (takes_too_long(p.burst, p.rate)) found_.error(place(entry, "burst"), burst_right);
        if (takes_too_long(p.cburst, p.ceil)) found_.error(place(entry, "cburst"), burst_right);
    }

    static constexpr u32 most_hfsc_kbit = 34359738;  // in bytes/s, 32 bits
    static string hfsc_right()
    {
        return format("tc takes an HFSC rate of at most %s; lower it",
                      rate_text(most_hfsc_kbit).c_str());
    }

    void check_curve(const policy_class &entry, const char *key, const hfsc_curve &curve)
    {
        constexpr u32 most_umax = 4294;  // tc counts umax * 1000000 in 32 bits
        if (curve.rate > most_hfsc_kbit) found_.error(place(entry, key), hfsc_right());
        const double rate = curve.rate * 125.0;
        if (curve.umax > most_umax && curve.dmax != 0 &&
            std::ceil(curve.umax * 1e3 / curve.dmax) <= rate)
            found_.warning(place(entry, key),
                           "tc miscounts a umax above 4294 bytes that the rate sends within dmax;"
                           " leave umax and dmax out");
    }

    void check_hfsc(const tree_class &c, const policy_class &entry)
    {
        const hfsc_class_param &p = c.hfsc;
        const tree_class *parent = find_class(classes_, c.parent);
        if (parent != nullptr && parent != &c && parent->hfsc.ul.rate != 0)
            for (const auto &[key, curve] : {std::pair{"sc", &p.sc}, std::pair{"rt", &p.rt}})
                if (curve->rate > parent->hfsc.ul.rate)
                    found_.error(place(entry, key),
                                 format("%s %s is above the ul of its parent 0x%x, %s; lower it to"
                                        " that or less",
                                        key, rate_text(curve->rate).c_str(), c.parent,
                                        rate_text(parent->hfsc.ul.rate).c_str()));
        for (const auto &[key, curve] : {std::pair{"ul", &p.ul}, std::pair{"sc", &p.sc},
                                         std::pair{"ls", &p.ls}, std::pair{"rt", &p.rt}})
            check_curve(entry, key, *curve);
        check_written_curves(c, entry);
        if (!mainline_) return;
        if (p.ul.rate == 0)
            warn_of(entry, "ul", "an HFSC class whose ul is 0", "give ul a rate");
        else if (p.sc.rate == 0 && p.ls.rate == 0 && !failed_at(place(entry, "sc")) &&
                 !failed_at(place(entry, "ls")))
            mainline_refuses(entry.at, "an HFSC class without sc and ls", "give one of them");
        for (const auto &[key, curve] : {std::pair{"ul", &p.ul}, std::pair{"sc", &p.sc},
                                         std::pair{"ls", &p.ls}, std::pair{"rt", &p.rt}})
            if (curve->umax != 0 && curve->dmax == 0)
                mainline_refuses(place(entry, key), "a umax without a dmax", "give both");
    }

    void warn_of(const policy_class &entry, const char *key, const char *what, const char *instead)
    {
        const position at = place(entry, key);
        if (!failed_at(at)) mainline_refuses(at, what, instead);
    }

    // Besides ul one curve is written; what else is given has no effect.
    void check_written_curves(const tree_class &c, const policy_class &entry)
    {
        const hfsc_class_param &p = c.hfsc;
        const char *written = p.sc.rate != 0 ? "sc" : p.ls.rate != 0 ? "ls" : "rt";
        for (const auto &[key, curve] :
             {std::pair{"sc", &p.sc}, std::pair{"ls", &p.ls}, std::pair{"rt", &p.rt}}) {
            if (curve->rate == 0) continue;
            if (string(key) != written)
                found_.warning(place(entry, key),
                               format("%s is not written: of sc, ls and rt only the first is, %s",
                                      key, written));
            else if (string(key) == "rt" && c.has_children)
                found_.warning(place(entry, key), "rt is not written: class has classes below it");
        }
    }

    void check_leaf(const policy_class &entry)
    {
        const position at = place(entry, "leaf");
        if (entry.leaf.type == L_RED) {
            const red_leaf_param &red = entry.leaf.param.red;
            // What is missing or wrong in itself has been reported.
            if (red.min == 0 || red.max == 0 || red.limit == 0 || red.avpkt == 0) {
                found_.error(at, "tc takes no 0 in a red leaf; give sizes");
                return;
            }
            if (red.min >= red.max)
                found_.error(at, "a red leaf's min must be below its max; lower min or raise max");
            else if (red.max > red.limit)
                found_.error(
                    at, "a red leaf's max must not be above its limit; lower max or raise limit");
            const bool short_burst = red.burst != 0 && u64{red.burst} * red.avpkt < red.min;
            if (red.burst != 0 && !short_burst && red_wlog(red) == 0)
                found_.error(at, "tc finds no averaging constant for a red leaf's burst; lower it");
            // Fixed-point limits, tc's and the kernel's own
            if (red.max > red.min && 0.02 / (red.max - red.min) * 0x1p31 <= 1)
                found_.error(at, "tc finds no probability for a red leaf with max so far above min;"
                                 " lower max");
            else if (red_wlog(red) != 0 && std::bit_width(red.max) + red_wlog(red) >= 32)
                found_.error(at, "the kernel takes no red leaf of so large a max with so large a"
                                 " burst; lower one of them");
            if (short_burst)
                found_.error(at,
                             format("a red leaf's burst must be at least min / avpkt packets, here"
                                    " %u",
                                    static_cast<u32>((u64{red.min} + red.avpkt - 1) / red.avpkt)));
        }
        if (entry.leaf.type == L_TBF) {
            const tbf_leaf_param &tbf = entry.leaf.param.tbf;
            if (tbf.rate == 0 || tbf.burst == 0 || tbf.latency == 0)
                found_.error(at, "tc takes no 0 in a tbf leaf; give rate, burst and latency");
            else if (tbf.rate * 125.0 * tbf.latency / 1e3 + tbf.burst > 4294967295.0)
                found_.error(at,
                             "a tbf leaf's latency at its rate comes to more than 4 GiB, which tc"
                             " cannot say; lower latency");
            else if (takes_too_long(tbf.burst, tbf.rate))
                found_.error(at, burst_right);
            else if (tbf.burst < 1514)
                found_.warning(at, "a tbf leaf drops packets longer than its burst; give 1514b or"
                                   " more");
        }
    }

    void check_default()
    {
        if (!iface_.classful()) return;
        const u32 handle = iface_.param.classful.default_class;
        if (handle == 0) {
            if (iface_.root_type == R_HFSC && !failed_at(iface_.default_at))
                found_.warning(iface_.default_at,
                               "without a default class HFSC drops what no rule picks");
            return;
        }
        if (failed_at(iface_.default_at)) return;
        const tree_class *c = find_class(classes_, handle);
        if (c == nullptr || c->has_children)
            found_.error(iface_.default_at, format("default 0x%x is no leaf class; there are: %s",
                                                   handle, handles(classes_, true).c_str()));
    }

    void check_automark()
    {
        const automark_value *automark = iface_.automark();
        if (automark == nullptr) return;
        for (std::size_t i = 0; i < iface_.automark_at.size(); ++i)
            if (automark->mark[i] != 0) check_mark(automark->mark[i], iface_.automark_at[i]);
    }

    void check_mark(u32 mark, position at)
    {
        if (iface_.root_type == R_pfifo_fast) {
            found_.error(at, "a mark on an interface without classes; leave out mark, or take"
                             " another root");
            return;
        }
        if (is_no_leaf(mark))
            found_.error(at, format("mark 0x%x is no leaf class; there are: %s", mark,
                                    handles(classes_, true).c_str()));
    }

    // Known to be none: it may be that of a class whose handle could not be read.
    bool is_no_leaf(u32 handle) const
    {
        const tree_class *c = find_class(classes_, handle);
        return c == nullptr ? iface_.handles_known : c->has_children;
    }

    void check_rule(const policy_rule &rule)
    {
        const position mark_at = place(rule, rule.target_at, "mark");
        if (has(rule.target.flags, target_mark) && !failed_at(mark_at))
            check_mark(rule.target.mark, mark_at);
        const u8 index = rule.match.sched_index;
        const qos_sched *schedule = nullptr;
        for (const policy_schedule &s : policy_.schedules)
            if (s.sched.index == index) schedule = &s.sched;
        if (index != 0 && schedule == nullptr)
            found_.error(
                place(rule, rule.match_at, "schedule"),
                format("there is no schedule %d; add a [[schedule]] with that index", index));
        if (!mainline_) return;
        if (schedule != nullptr && schedule->days != 0)
            mainline_refuses(place(rule, rule.match_at, "schedule"), "the days of a schedule",
                             "leave them out");
        warn_of_match(rule);
        warn_of_target(rule);
    }

    void warn_of_match(const policy_rule &rule)
    {
        const u32 flags = rule.match.flags;
        const auto warn = [&](const char *key, const char *what, const char *instead) {
            mainline_refuses(place(rule, rule.match_at, key), what, instead);
        };
        if (has(flags, match_vlan_id)) warn("vlan_id", "a VLAN match", "leave it out");
        if (has(flags, match_vlan_prio)) warn("vlan_prio", "a VLAN match", "leave it out");
        if (has(flags, match_mac))
            warn("mac", "a MAC match in chains that OUTPUT enters", "match addresses");
        if (has(flags, match_tos)) warn("tos", "a TOS match, for its precedence", "match dscp");
        if (has(flags, match_domain)) warn("domain", "a domain match", "match addresses");
        if (has(flags, match_url)) warn("url", "a URL match", "match addresses");
    }

    void warn_of_target(const policy_rule &rule)
    {
        const qos_target &t = rule.target;
        const auto warn = [&](const char *key, const char *what, const char *instead) {
            mainline_refuses(place(rule, rule.target_at, key), what, instead);
        };
        if (has(t.flags, target_tos)) warn("tos", "a TOS target, for its precedence", "set dscp");
        if (has(t.flags, target_dscp) && t.kind == 1)
            warn("dscp", "a DSCP target by class name", "give its number");
        if (has(t.flags, target_mkvlan)) warn("mkvlan", "an MKVLAN target", "leave it out");
    }

    void mainline_refuses(position at, const char *what, const char *instead)
    {
        found_.warning(at, format("mainline kernels refuse %s; %s, or say --kernel vendor if"
                                  " yours takes it",
                                  what, instead));
    }

    static position place(const policy_class &c, const char *key) { return c.places.at(key, c.at); }
    static position place(const policy_rule &rule, const places &of, const char *key)
    {
        return of.at(key, rule.at);
    }

    bool failed_at(position at) const { return found_.failed_at(at); }

    const policy &policy_;
    const policy_interface &iface_;
    bool mainline_;
    diagnostics &found_;
    std::vector<tree_class> classes_;
};

void add_subtree(const std::vector<tree_class> &all, u32 parent, std::vector<tree_class> &out)
{
    for (const tree_class &c : all) {
        if (c.parent != parent) continue;
        out.push_back(c);
        if (c.has_children && c.handle != 0) add_subtree(all, c.handle, out);
    }
}

}  // namespace

u32 red_wlog(const red_leaf_param &red)
{
    const double room = double(red.burst) + 1 - double(red.min) / red.avpkt;
    for (u32 n = 1; n <= 31 && room >= 1; ++n) {
        const double weight = std::ldexp(1.0, -static_cast<int>(n));
        if (room <= (1 - std::pow(1 - weight, red.burst)) / weight) return n;
    }
    return 0;
}

std::vector<tree_class> tree_of(const policy_interface &iface)
{
    std::vector<tree_class> out;
    add_subtree(declared(iface), 0, out);
    return out;
}

const tree_class *find_class(const std::vector<tree_class> &tree, u32 handle)
{
    for (const tree_class &c : tree)
        if (c.handle == handle) return &c;
    return nullptr;
}

void check_policy(const policy &p, kernel_kind kernel, diagnostics &found)
{
    std::set<u8> indexes;
    for (const policy_schedule &s : p.schedules)
        if (s.sched.index != 0 && !indexes.insert(s.sched.index).second)
            found.error(
                s.at, format("a second schedule with index %d; give each its own", s.sched.index));
    std::set<string> names;
    for (const policy_interface &iface : p.interfaces) {
        if (!iface.name.empty() && !names.insert(iface.name).second)
            found.error(iface.at,
                        "a second interface named " + quoted(iface.name) + "; give each one entry");
        const string auto_chain = "_AUTO";
        if (iface.name.size() > auto_chain.size() &&
            iface.name.substr(iface.name.size() - auto_chain.size()) == auto_chain)
            found.error(iface.name_at, "the chain of such an interface is the automark chain of one"
                                       " named without _AUTO; rename it");
        if (iface.known) interface_checker(p, iface, kernel, found).check();
    }
}

}  // namespace tool
