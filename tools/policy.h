// A policy as it was read from its file: the library's records, and where in the file they come
// from. Nothing here touches the library's state or the kernel.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "diagnostics.h"
#include "mordel.h"

namespace tool {

// Where the values of some keys stand: those that the checks may have something to say of. A small
// list each, since there are three for every rule.
class places {
public:
    void note(std::string_view key, position at);  // no other key is kept
    bool has(std::string_view key) const { return find(key) != nullptr; }
    position at(std::string_view key, position otherwise) const
    {
        const position *found = find(key);
        return found == nullptr ? otherwise : *found;
    }

private:
    const position *find(std::string_view key) const
    {
        for (const auto &[known, at] : all_)
            if (known == key) return &at;
        return nullptr;
    }

    std::vector<std::pair<std::string_view, position>> all_;
};

struct policy_class {
    position at;  // of the entry
    u32 handle = 0;
    u32 parent = 0;
    std::string name;
    bool placed = true;     // its parent could be read
    bool existing = false;  // there without the entry: of the default tree, or a band
    htb_class_param htb{};
    hfsc_class_param hfsc{};
    bool has_leaf = false;  // and it could be read whole
    leaf_qdisc leaf{};
    tool::places places;
};

struct policy_rule {
    position at;
    bool indexed = false;  // its index could be read
    u8 index = 0;
    qos_match match{};
    qos_target target{};
    places match_at;
    places target_at;
};

struct policy_interface {
    position at;
    std::string name;
    u32 root_type = R_HTB;
    u32 speeds[4] = {};  // link_tx, link_rx, phy_tx, phy_rx: kbit/s
    qos_root_param param{};
    bool default_tree = true;
    bool known = false;                 // its root type; without that nothing else is
    bool handles_known = true;          // those of all classes could be read
    std::vector<policy_class> classes;  // the entries, in the order of the file
    std::vector<policy_rule> rules;     // likewise
    position name_at;
    position default_at;
    position link_at;  // of link_tx and phy_tx
    position phy_at;
    std::vector<position> automark_at;  // of the eight marks; empty without them

    bool classful() const { return root_type == R_HTB || root_type == R_HFSC; }
    const automark_value *automark() const
    {
        if (classful()) return &param.classful.automark;
        return root_type == R_PRIO ? &param.prio.automark : nullptr;
    }
};

struct policy_schedule {
    position at;
    qos_sched sched{};
};

struct policy {
    std::vector<policy_interface> interfaces;
    std::vector<policy_schedule> schedules;
};

// What the policy's kernel is: a mainline one knows less than a router's own.
enum class kernel_kind { mainline, vendor };

// A class as the kernel will have it: the entries of an interface and the classes that come by
// themselves, in the order of the library's tree.
struct tree_class {
    u32 handle = 0;
    u32 parent = 0;
    std::string name;
    bool has_children = false;
    htb_class_param htb{};
    hfsc_class_param hfsc{};
    leaf_qdisc leaf{};
    const policy_class *entry = nullptr;  // null: comes by itself
};
std::vector<tree_class> tree_of(const policy_interface &iface);
const tree_class *find_class(const std::vector<tree_class> &tree, u32 handle);

// The n for which 1/2^n is the weight that tc gives the average queue of a RED leaf: the largest
// weight that lets a burst pass. 0 when there is none.
u32 red_wlog(const red_leaf_param &red);

// Reads and checks a policy. Whatever is wrong is in `found`; the result is of use only when
// nothing of it is an error.
policy read_policy(std::string_view text, kernel_kind kernel, diagnostics &found);

// What the two halves of read_policy are: what a value may be, and what values mean together.
policy parse_policy(std::string_view text, diagnostics &found);
void check_policy(const policy &p, kernel_kind kernel, diagnostics &found);

}  // namespace tool
