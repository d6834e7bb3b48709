// SPDX-License-Identifier: MIT
// Random policies for the tests in a guest, from a seed: the same seed gives the same policies. A
// second policy is another random one, or the first with a few edits, as a person makes them.
#pragma once

#include <algorithm>
#include <array>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace guest {

struct random_class {
    unsigned handle = 0, parent = 0;
    std::string numbers;  // the keys of its rates or curves
    std::string leaf;     // its keys; "" : the default leaf
};

struct random_rule {
    unsigned index = 0, mark = 0;
    std::string match;
};

// An interface's policy in parts that can be edited one by one
struct random_policy {
    enum class root { htb, hfsc, prio, pfifo_fast } kind = root::htb;
    unsigned fallback = 3;  // the default class
    unsigned bands = 3;
    std::array<unsigned, 16> priomap{};
    unsigned queue_len = 100;
    std::vector<random_class> classes;  // parents first
    std::vector<random_rule> rules;
};

class policy_maker {
public:
    explicit policy_maker(unsigned seed) : numbers_(seed) {}

    unsigned below(unsigned n) { return static_cast<unsigned>(numbers_() % n); }
    unsigned between(unsigned low, unsigned high) { return low + below(high - low + 1); }

    random_policy fresh()
    {
        random_policy p;
        const unsigned kind = below(10);  // mostly those that have the most to lose
        p.kind = kind < 5   ? random_policy::root::htb
                 : kind < 7 ? random_policy::root::hfsc
                 : kind < 9 ? random_policy::root::prio
                            : random_policy::root::pfifo_fast;
        p.bands = between(2, 8);
        set_priomap(p);
        p.queue_len = between(50, 300);
        const unsigned count = p.kind == random_policy::root::prio ? p.bands : between(2, 8);
        if (p.kind != random_policy::root::pfifo_fast) {
            for (unsigned i = 0; i < count; ++i) add_class(p);
            for (unsigned i = below(5); i > 0; --i) add_rule(p);
        }
        p.fallback = any_leaf(p);
        return repaired(p);
    }

    // A policy with up to four edits
    random_policy edited(random_policy p)
    {
        if (p.kind == random_policy::root::pfifo_fast) {
            p.queue_len = between(301, 400);
            return p;
        }
        for (unsigned i = between(1, 4); i > 0; --i) edit(p);
        return repaired(p);
    }

private:
    static constexpr unsigned first_handle = 0x10;

    static bool is_tree(const random_policy &p)
    {
        return p.kind == random_policy::root::htb || p.kind == random_policy::root::hfsc;
    }

    static std::set<unsigned> leaves(const random_policy &p)
    {
        std::set<unsigned> all;
        if (is_tree(p)) all = {2, 3};
        for (const random_class &c : p.classes) all.insert(c.handle);
        for (const random_class &c : p.classes) all.erase(c.parent);
        return all;
    }

    unsigned any_leaf(const random_policy &p)
    {
        const std::set<unsigned> all = leaves(p);
        if (all.empty()) return 3;
        return *std::next(all.begin(), below(static_cast<unsigned>(all.size())));
    }

    void set_priomap(random_policy &p)
    {
        for (unsigned &band : p.priomap) band = below(p.bands);
    }

    std::string number(const char *key, unsigned low, unsigned high, const char *unit)
    {
        return std::string(key) + " = \"" + std::to_string(between(low, high)) + unit + "\"";
    }

    std::string curve()
    {
        const std::string rate = number("rate", 100, 4000, "kbit");
        if (below(2) == 0) return "{ " + rate + " }";
        return "{ umax = 1500, dmax = " + std::to_string(between(10, 50)) + ", " + rate + " }";
    }

    std::string numbers_of_class(const random_policy &p)
    {
        if (p.kind == random_policy::root::hfsc)
            return number("ul", 4000, 9000, "kbit") + (below(2) == 0 ? ", sc = " : ", ls = ") +
                   curve();
        if (p.kind != random_policy::root::htb) return "";
        // A rate above the ceil of a parent is an error: any class may become another's child.
        std::string all =
            number("rate", 100, 4000, "kbit") + ", " + number("ceil", 4000, 9000, "kbit");
        if (below(3) == 0) all += ", prio = " + std::to_string(below(8));
        if (below(3) == 0)
            all += ", burst = " + std::to_string(between(2000, 20000)) +
                   ", cburst = " + std::to_string(between(2000, 20000));
        return all;
    }

    std::string any_leaf_kind()
    {
        switch (below(6)) {
        case 0:
            return "";
        case 1:
            return "type = \"pfifo\", limit = " + std::to_string(between(5, 90));
        case 2:
            return "type = \"sfq\", perturb = " + std::to_string(between(1, 60));
        case 3:
            return "type = \"red\", min = 15000, max = 45000, limit = 120000, avpkt = 1000, "
                   "burst = " +
                   std::to_string(between(25, 40));
        case 4:
            return "type = \"tbf\", latency = " + std::to_string(between(100, 900)) + ", " +
                   number("rate", 1000, 9000, "kbit") + ", burst = 10000";
        default:
            return "type = \"pfifo\"";
        }
    }

    // Of PRIO: the next band's
    void add_class(random_policy &p)
    {
        random_class c;
        if (is_tree(p)) {
            c.handle = first_handle;
            for (const random_class &other : p.classes)
                c.handle = std::max(c.handle, other.handle + between(1, 3));
            c.parent = 1;
            if (!p.classes.empty() && below(3) == 0)
                c.parent = p.classes[below(static_cast<unsigned>(p.classes.size()))].handle;
        } else {
            c.handle = static_cast<unsigned>(p.classes.size()) + 1;
        }
        c.numbers = numbers_of_class(p);
        c.leaf = any_leaf_kind();
        p.classes.push_back(c);
    }

    std::string any_match()
    {
        const std::string n = std::to_string(between(1, 63));
        switch (below(6)) {
        case 0:
            return "dscp = " + n;
        case 1:
            return "protocol = \"udp\", dport = \"5000:50" + std::to_string(between(10, 99)) + "\"";
        case 2:
            return "length = \"100:1" + std::to_string(between(100, 400)) + "\"";
        case 3:
            return "src = \"10.77." + n + ".0/24\"";
        case 4:
            return "dst = \"10.78." + n + ".1-10.78." + n + ".9\"";
        default:
            return "protocol = \"tcp\", sport = " + n +
                   ", tcp_flags = { mask = [\"SYN\", \"ACK\"], set = [\"SYN\"] }";
        }
    }

    void add_rule(random_policy &p)
    {
        random_rule r;
        do {
            r.index = below(256);
        } while (std::any_of(p.rules.begin(), p.rules.end(),
                             [&](const random_rule &other) { return other.index == r.index; }));
        r.mark = any_leaf(p);
        r.match = any_match();
        p.rules.push_back(r);
    }

    random_class *any_class(random_policy &p)
    {
        if (p.classes.empty()) return nullptr;
        return &p.classes[below(static_cast<unsigned>(p.classes.size()))];
    }

    void remove_leaf_class(random_policy &p)
    {
        const std::set<unsigned> all = leaves(p);
        const auto last = std::find_if(p.classes.rbegin(), p.classes.rend(),
                                       [&](const auto &c) { return all.count(c.handle) != 0; });
        if (last != p.classes.rend()) p.classes.erase(std::next(last).base());
    }

    // Children stand behind their parents: an earlier class can be a parent of a later one alone.
    void move_class(random_policy &p)
    {
        if (p.classes.empty()) return;
        const unsigned at = below(static_cast<unsigned>(p.classes.size()));
        p.classes[at].parent = at == 0 || below(2) == 0 ? 1 : p.classes[below(at)].handle;
    }

    void edit_tree(random_policy &p, unsigned which)
    {
        switch (which) {
        case 0:
            add_class(p);
            break;
        case 1:
            remove_leaf_class(p);
            break;
        case 2:
            move_class(p);
            break;
        default:
            p.fallback = any_leaf(p);
            break;
        }
    }

    void edit_bands(random_policy &p, unsigned which)
    {
        if (which == 0 && p.bands < 8) {
            ++p.bands;
            add_class(p);
        } else if (which == 1 && p.bands > 2) {
            --p.bands;
            p.classes.pop_back();
        }
        set_priomap(p);
    }

    void edit(random_policy &p)
    {
        random_class *c = any_class(p);
        switch (const unsigned which = below(9)) {
        case 4:
            if (c != nullptr) c->numbers = numbers_of_class(p);
            break;
        case 5:
            if (c != nullptr) c->leaf = any_leaf_kind();
            break;
        case 6:
            add_rule(p);
            break;
        case 7:
            if (!p.rules.empty()) p.rules.erase(p.rules.begin());
            break;
        case 8:
            if (!p.rules.empty()) p.rules.back().index = (p.rules.back().index + 128) % 256;
            break;
        default:
            is_tree(p) ? edit_tree(p, which) : edit_bands(p, which);
        }
    }

    // Marks and the default lead to leaf classes, an index stands once, a band is one of the bands.
    random_policy repaired(random_policy p)
    {
        const std::set<unsigned> all = leaves(p);
        std::set<unsigned> taken;
        for (random_rule &r : p.rules) {
            if (all.count(r.mark) == 0) r.mark = *all.begin();
            while (!taken.insert(r.index).second) r.index = (r.index + 1) % 256;
        }
        if (all.count(p.fallback) == 0) p.fallback = 3;
        for (unsigned &band : p.priomap) band %= p.bands;
        return p;
    }

    std::mt19937 numbers_;
};

inline std::string root_text(const random_policy &p)
{
    switch (p.kind) {
    case random_policy::root::pfifo_fast:
        return "root = \"pfifo_fast\"\nqueue_len = " + std::to_string(p.queue_len) + "\n";
    case random_policy::root::prio: {
        std::string map;
        for (const unsigned band : p.priomap)
            map += (map.empty() ? "" : ", ") + std::to_string(band);
        return "root = \"prio\"\nbands = " + std::to_string(p.bands) + "\npriomap = [" + map +
               "]\n";
    }
    default:
        return std::string("root = \"") + (p.kind == random_policy::root::htb ? "htb" : "hfsc") +
               "\"\nphy_tx = \"100mbit\"\nlink_tx = \"10mbit\"\ndefault = " +
               std::to_string(p.fallback) + "\n";
    }
}

// As a file has it, with the interface's name
inline std::string policy_text(const random_policy &p, const std::string &name)
{
    std::string all = "[[interface]]\nname = \"" + name + "\"\n" + root_text(p);
    std::set<unsigned> parents;
    for (const random_class &c : p.classes) parents.insert(c.parent);
    for (const random_class &c : p.classes) {
        all += "[[interface.class]]\nhandle = " + std::to_string(c.handle) + "\n";
        if (c.parent != 0) all += "parent = " + std::to_string(c.parent) + "\n";
        for (std::string rest = c.numbers; !rest.empty();) {
            // A line for each key; a curve's own keys stay in their braces.
            std::size_t comma = rest.find(", ");
            if (rest.find('{') < comma) comma = std::string::npos;
            all += rest.substr(0, comma) + "\n";
            rest = comma == std::string::npos ? "" : rest.substr(comma + 2);
        }
        if (!c.leaf.empty() && parents.count(c.handle) == 0) all += "leaf = { " + c.leaf + " }\n";
    }
    for (const random_rule &r : p.rules)
        all += "[[interface.rule]]\nindex = " + std::to_string(r.index) + "\nmatch = { " + r.match +
               " }\ntarget = { mark = " + std::to_string(r.mark) + " }\n";
    return all;
}

}  // namespace guest
