#include "compare.h"

#include <linux/pkt_sched.h>

#include <cmath>
#include <map>
#include <set>

#include "names.h"
#include "text.h"

namespace tool {
namespace {

using scope = difference::scope;
using std::string;

u64 bytes_per_second(u64 kbit) { return kbit * 125; }
string rate_of(u64 bytes)
{
    return bytes % 125 == 0 ? rate_text(bytes / 125) : std::to_string(bytes * 8) + "bit";
}

// A burst is kept in ticks of 64 ns, and tc counts in whole microseconds.
bool near_burst(double seen, u32 wanted, u64 rate)
{
    return std::abs(seen - wanted) <= 1 + static_cast<double>(rate) * 2e-6;
}

// What tc makes of a curve's umax (bytes), dmax (ms) and rate
live_curve curve_of(const hfsc_curve &c)
{
    const auto rate = static_cast<double>(bytes_per_second(c.rate));
    live_curve out{};
    out.m2 = static_cast<u32>(std::min(rate, 4294967295.0));
    if (c.umax == 0) return out;
    const double d = c.dmax * 1e3;
    const double m1 = d == 0 ? 0 : std::ceil(c.umax * 1e6 / d);
    if (d != 0 && m1 > rate) {
        out.m1 = static_cast<u32>(std::min(m1, 4294967295.0));
        out.d = static_cast<u32>(d);
    } else if (rate != 0) {
        out.d = static_cast<u32>(std::max(0.0, std::ceil(d - c.umax * 1e6 / rate)));
    }
    return out;
}

// The kernel's curves are fixed-point numbers, which costs the last digits.
bool near_number(u32 a, u32 b) { return std::abs(double(a) - double(b)) <= 2 + b * 1e-4; }

// The same delay as tc counts it: umax * 1000000 in 32 bits
u32 wrapped_delay(const hfsc_curve &c)
{
    const u64 rate = bytes_per_second(c.rate);
    if (rate == 0) return 0;
    const u32 product = c.umax * 1000000U;
    return c.dmax * 1000 - static_cast<u32>(product / rate);
}

class comparer {
public:
    comparer(const policy_interface &iface, const live_tree &kernel)
        : iface_(iface), kernel_(kernel), tree_(tree_of(iface))
    {}

    std::vector<difference> compare()
    {
        if (!compare_root()) return out_;
        for (const tree_class &c : tree_) compare_class(c);
        compare_extra();
        compare_filters();
        return out_;
    }

private:
    void add(scope what, u32 handle, string text)
    {
        out_.push_back({what, handle, std::move(text)});
    }

    // False when there is nothing more to compare
    bool compare_root()
    {
        const live_qdisc *root = kernel_.root();
        if (iface_.root_type == R_pfifo_fast) {
            if (root != nullptr)
                add(scope::tree, 0, "has the root qdisc " + root->kind + ", not its default");
            const u32 wanted = iface_.param.pfifo_fast.queue_len;
            if (kernel_.queue_len != wanted)
                add(scope::tree, 0,
                    format("queue length is %u, not %u", kernel_.queue_len, wanted));
            return false;
        }
        const string kind(root_names[iface_.root_type]);
        if (root == nullptr) {
            add(scope::tree, 0, "has no " + kind + ", but its default qdisc");
            return false;
        }
        if (root->kind != kind || root->handle != 0x10000) {
            add(scope::tree, 0,
                format("root qdisc is %s %x:, not %s 1:", root->kind.c_str(), root->handle >> 16,
                       kind.c_str()));
            return false;
        }
        compare_root_options(*root);
        return true;
    }

    void compare_root_options(const live_qdisc &root)
    {
        if (iface_.classful()) {
            const u32 wanted = iface_.param.classful.default_class;
            if (root.default_class != wanted)
                add(scope::tree, 0,
                    format("default class is 1:%x, not 1:%x", root.default_class, wanted));
            return;
        }
        const prio_root_param &p = iface_.param.prio;
        if (root.bands != p.bands)
            add(scope::tree, 0, format("has %u bands, not %d", root.bands, p.bands));
        else if (root.priomap != std::vector<u8>(std::begin(p.priomap), std::end(p.priomap)))
            add(scope::tree, 0, "the priority map differs");
    }

    void compare_class(const tree_class &c)
    {
        const u32 id = 0x10000 | c.handle;
        const live_class *seen = kernel_.find(id);
        if (seen == nullptr) {
            add(scope::tree, c.handle, "is not there");
            return;
        }
        const u32 parent = c.parent == 0 ? 0x10000 : 0x10000 | c.parent;
        const u32 seen_parent = seen->parent == TC_H_ROOT ? 0x10000 : seen->parent;
        if (seen_parent != parent)
            add(scope::tree, c.handle,
                format("hangs on 1:%x, not on 1:%x", seen_parent & 0xffff, parent & 0xffff));
        if (iface_.root_type == R_HTB) compare_htb(c, *seen);
        if (iface_.root_type == R_HFSC) compare_hfsc(c, *seen);
        if (!c.has_children) compare_leaf(c, kernel_.leaf_of(id));
    }

    void compare_rate(const tree_class &c, scope what, const char *name, u64 seen, u32 wanted)
    {
        if (seen != bytes_per_second(wanted))
            add(what, c.handle,
                format("%s is %s, not %s", name, rate_of(seen).c_str(), rate_text(wanted).c_str()));
    }

    void compare_burst(const tree_class &c, scope what, const char *name, double seen, u32 wanted,
                       u32 kbit)
    {
        if (wanted != 0 && !near_burst(seen, wanted, bytes_per_second(kbit)))
            add(what, c.handle, format("%s is %.0fb, not %ub", name, seen, wanted));
    }

    void compare_htb(const tree_class &c, const live_class &seen)
    {
        const htb_class_param &p = c.htb;
        compare_rate(c, scope::class_parameters, "rate", seen.rate, p.rate);
        compare_rate(c, scope::class_parameters, "ceil", seen.ceil, p.ceil);
        compare_burst(c, scope::class_parameters, "burst", seen.burst, p.burst, p.rate);
        compare_burst(c, scope::class_parameters, "cburst", seen.cburst, p.cburst, p.ceil);
        // An inner class has no turn of its own, and the kernel shows none.
        if (!c.has_children && seen.prio != p.prio)
            add(scope::class_parameters, c.handle, format("prio is %u, not %u", seen.prio, p.prio));
    }

    void compare_curve(const tree_class &c, const char *name, const std::optional<live_curve> &seen,
                       const hfsc_curve *wanted)
    {
        const bool present = seen && (seen->m1 != 0 || seen->m2 != 0);
        if (present != (wanted != nullptr)) {
            add(scope::tree, c.handle,
                format(present ? "has a curve %s" : "has no curve %s", name));
            return;
        }
        if (!present) return;
        live_curve curve = curve_of(*wanted);
        if (near_number(seen->d, wrapped_delay(*wanted))) curve.d = seen->d;
        if (!near_number(seen->m1, curve.m1) || !near_number(seen->d, curve.d) ||
            !near_number(seen->m2, curve.m2))
            add(scope::class_parameters, c.handle,
                format("curve %s is %s for %uus, then %s; not %s for %uus, then %s", name,
                       rate_of(seen->m1).c_str(), seen->d, rate_of(seen->m2).c_str(),
                       rate_of(curve.m1).c_str(), curve.d, rate_of(curve.m2).c_str()));
    }

    void compare_hfsc(const tree_class &c, const live_class &seen)
    {
        const hfsc_class_param &p = c.hfsc;
        const hfsc_curve *real = nullptr;
        const hfsc_curve *share = nullptr;
        if (p.sc.rate != 0)
            real = share = &p.sc;
        else if (p.ls.rate != 0)
            share = &p.ls;
        else if (p.rt.rate != 0 && !c.has_children)
            real = &p.rt;
        compare_curve(c, "ul", seen.usc, p.ul.rate != 0 ? &p.ul : nullptr);
        compare_curve(c, "rt", seen.rsc, real);
        compare_curve(c, "ls", seen.fsc, share);
    }

    void compare_leaf(const tree_class &c, const live_qdisc *seen)
    {
        const string kind(leaf_names[c.leaf.type]);
        if (seen == nullptr || seen->kind != kind || seen->handle != c.handle << 20) {
            add(scope::leaf, c.handle,
                seen == nullptr ? "has no leaf qdisc, not " + kind
                                : format("leaf is %s %x:, not %s %x:", seen->kind.c_str(),
                                         seen->handle >> 16, kind.c_str(), c.handle * 16));
            return;
        }
        compare_leaf_options(c, *seen);
    }

    void compare_number(const tree_class &c, const char *name, u32 seen, u32 wanted)
    {
        if (seen != wanted)
            add(scope::leaf, c.handle, format("%s is %u, not %u", name, seen, wanted));
    }

    void compare_leaf_options(const tree_class &c, const live_qdisc &seen)
    {
        switch (c.leaf.type) {
        case L_pfifo:
            if (c.leaf.param.pfifo.limit != 0)
                compare_number(c, "limit", seen.limit, c.leaf.param.pfifo.limit);
            break;
        case L_SFQ:
            compare_number(c, "perturb", seen.perturb, c.leaf.param.sfq.perturb);
            break;
        case L_RED:
            compare_number(c, "min", seen.min, c.leaf.param.red.min);
            compare_number(c, "max", seen.max, c.leaf.param.red.max);
            compare_number(c, "limit", seen.limit, c.leaf.param.red.limit);
            compare_number(c, "ewma", seen.wlog, red_wlog(c.leaf.param.red));
            break;
        default: {
            const tbf_leaf_param &tbf = c.leaf.param.tbf;
            compare_rate(c, scope::leaf, "tbf rate", seen.rate, tbf.rate);
            compare_burst(c, scope::leaf, "tbf burst", seen.burst, tbf.burst, tbf.rate);
            // What may wait: a latency's worth of bytes besides the burst
            const double limit =
                static_cast<double>(bytes_per_second(tbf.rate)) * tbf.latency / 1e3 + tbf.burst;
            if (std::abs(limit - seen.limit) > 1 + limit * 1e-6)
                add(scope::leaf, c.handle,
                    format("tbf limit is %ub, not %.0fb", seen.limit, limit));
        }
        }
    }

    void compare_extra()
    {
        for (const live_class &seen : kernel_.classes)
            if (find_class(tree_, seen.id & 0xffff) == nullptr)
                add(scope::tree, seen.id & 0xffff, "is not in the policy");
    }

    void compare_filters()
    {
        std::map<u32, u32> seen;
        for (const live_filter &f : kernel_.filters)
            if (!f.plain || !seen.emplace(f.mark, f.id).second)
                add(scope::tree, 0, "a filter on the root is not in the policy");
        std::set<u32> wanted;
        for (const tree_class &c : tree_) {
            if (c.has_children) continue;
            wanted.insert(c.handle);
            const auto filter = seen.find(c.handle);
            if (filter == seen.end())
                add(scope::tree, c.handle, format("no filter sends mark 0x%x there", c.handle));
            else if (filter->second != (0x10000 | c.handle))
                add(scope::tree, c.handle,
                    format("mark 0x%x goes to %x:%x", c.handle, filter->second >> 16,
                           filter->second & 0xffff));
        }
        for (const auto &[mark, id] : seen)
            if (!wanted.contains(mark))
                add(scope::tree, 0, format("a filter for mark 0x%x is not in the policy", mark));
    }

    const policy_interface &iface_;
    const live_tree &kernel_;
    std::vector<tree_class> tree_;
    std::vector<difference> out_;
};

}  // namespace

std::vector<difference> compare(const policy_interface &iface, const live_tree &kernel)
{
    return comparer(iface, kernel).compare();
}

}  // namespace tool
