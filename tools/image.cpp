// SPDX-License-Identifier: MIT
// Owns the way from the kernel's objects to the commands that make them, and the order of these.
// What a command says of one kind is that kind's row. Pure: takes a record and gives texts.
#include "image.h"

#include <linux/pkt_sched.h>

#include <algorithm>
#include <cmath>

#include "leaf.h"
#include "root.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using kind = object::kind;

// Whether the bursts look as if tc had cut their times to whole microseconds: all of them do where
// it did, and one in 16 by chance where it did not. The kernel tells nothing of tc.
bool cut_to_whole_us(const live_tree &live)
{
    const auto cut = [&](double bytes, u64 rate) {
        const double ticks = ticks_of_bytes(bytes, rate, live.ticks_per_us);
        return std::floor(std::ceil(ticks / live.ticks_per_us) * live.ticks_per_us) == ticks;
    };
    return std::all_of(live.classes.begin(), live.classes.end(), [&](const live_class &c) {
        return cut(c.burst, c.rate) && cut(c.cburst, c.ceil);
    });
}

class image_maker {
public:
    image_maker(const string &ifname, const live_tree &live)
        : ifname_(ifname), live_(live), clock_{live.ticks_per_us, cut_to_whole_us(live)}
    {}

    image make()
    {
        image_.queue_len = live_.queue_len;
        const live_qdisc *root = live_.root();
        if (root != nullptr && add_root(*root)) {
            add_classes(*root);
            add_leaves();
            add_filters();
        }
        return image_;
    }

private:
    // False where nothing below it can be written either.
    bool add_root(const live_qdisc &root)
    {
        const root_kind *row = find_root_kind(root.kind);
        if (row == nullptr || row->command == nullptr || root.handle != root_id || root.more) {
            cannot_write(format("root qdisc %s %x:", root.kind.c_str(), root.handle >> 16));
            return false;
        }
        add("qdisc add dev " + ifname_ + " handle 1:0 root " + row->command(root),
            {kind::root, 0, ""});
        return true;
    }

    // Parents first, and children by their handles: the kernel lists them in no order.
    void add_classes(const live_qdisc &root)
    {
        const class_kind &row = *find_root_kind(root.kind)->classes;
        if (row.command == nullptr) return;
        std::map<u32, std::map<u32, const live_class *>> below;
        for (const live_class &c : live_.classes)
            below[c.parent == TC_H_ROOT ? root_id : c.parent].emplace(c.id, &c);
        std::vector<u32> parents = {root_id};
        for (std::size_t i = 0; i < parents.size(); ++i) {
            for (const auto &[id, c] : below[parents[i]]) {
                add_class(row, *c, parents[i]);
                parents.push_back(id);
            }
            below.erase(parents[i]);
        }
        if (!below.empty()) cannot_write("a class whose parent is not there");
    }

    void add_class(const class_kind &row, const live_class &c, u32 parent)
    {
        const string options = row.command(c, clock_);
        const u32 handle = c.id & 0xffff;
        if (options.empty())
            cannot_write(format("class 1:%x", handle));
        else
            add(format("class add dev %s parent 1:0x%x classid 1:0x%x %s", ifname_.c_str(),
                       parent & 0xffff, handle, options.c_str()),
                {kind::tree_class, handle, ""});
    }

    // Qdiscs that the kernel put there itself have no handle, and come again by themselves. Those
    // for incoming packets are no part of the tree.
    void add_leaves()
    {
        std::map<u32, const live_qdisc *> by_class;
        for (const live_qdisc &q : live_.qdiscs) {
            if (q.handle == 0 || q.parent == TC_H_ROOT || q.parent == TC_H_INGRESS) continue;
            if (TC_H_MAJ(q.parent) == root_id)
                by_class.emplace(q.parent & 0xffff, &q);
            else
                cannot_write(format("qdisc %s %x: below %x:%x", q.kind.c_str(), q.handle >> 16,
                                    q.parent >> 16, q.parent & 0xffff));
        }
        for (const auto &[handle, q] : by_class) add_leaf(handle, *q);
    }

    void add_leaf(u32 handle, const live_qdisc &q)
    {
        const leaf_kind *row = find_leaf_kind(q.kind);
        const string options = row == nullptr ? "" : row->command(q, clock_);
        if (options.empty())
            cannot_write(format("leaf qdisc %s %x:", q.kind.c_str(), q.handle >> 16));
        else
            add(format("qdisc add dev %s parent 1:0x%x handle 0x%x: %s", ifname_.c_str(), handle,
                       q.handle >> 16, options.c_str()),
                {kind::leaf, handle, ""}, true);
    }

    void add_filters()
    {
        std::map<u32, const live_filter *> by_mark;
        for (const live_filter &f : live_.filters)
            if (!f.plain || !by_mark.emplace(f.mark, &f).second)
                cannot_write(format("filter %s of priority %u", f.kind.c_str(), f.priority));
        for (const auto &[mark, f] : by_mark)
            add(format("filter add dev %s parent 1:0 protocol ip prio 50 handle 0x%x fw classid "
                       "%x:0x%x",
                       ifname_.c_str(), mark, f->id >> 16, f->id & 0xffff),
                {kind::filter, mark, ""});
    }

    void add(const string &text, const object &what, bool options = false)
    {
        image_.tree.push_back({text, what, 0, options});
    }

    void cannot_write(const string &what)
    {
        if (image_.unwritable.empty()) image_.unwritable = what;
    }

    const string &ifname_;
    const live_tree &live_;
    const tc_clock clock_;
    image image_;
};

}  // namespace

const command *image::find(kind what, u32 number) const
{
    const auto found = std::find_if(tree.begin(), tree.end(), [&](const command &c) {
        return c.what.what == what && c.what.number == number;
    });
    return found == tree.end() ? nullptr : &*found;
}

image image_of(const string &ifname, const live_tree &live)
{
    return image_maker(ifname, live).make();
}

image_index::image_index(const image &of)
{
    for (const command &c : of.tree) places_.emplace(std::pair(c.what.what, c.what.number), &c);
}

const command *image_index::find(kind what, u32 number) const
{
    const auto place = places_.find({what, number});
    return place == places_.end() ? nullptr : place->second;
}

}  // namespace tool
