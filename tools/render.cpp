// SPDX-License-Identifier: MIT
// Owns what the library's lists hold. The process has one set of lists: each function here fills
// them with a policy and empties them before it returns or throws, so that two policies never mix.
// All other files are handed texts.

#include "render.h"

#include <cstdio>
#include <new>

#include "guards.h"
#include "root.h"
#include "tarnic_iptables.h"
#include "tarnic_qos.h"
#include "text.h"

namespace tool {
namespace {

using std::string;

// Fills the library's lists with a policy; the destructor empties them.
class declared {
public:
    // Delegates to the empty constructor: from there on the object counts as built, and a throw in
    // declare() runs the destructor. Otherwise half a policy would stay in the lists.
    explicit declared(const policy &p) : declared() { refused_ = declare(p); }
    declared(const declared &) = delete;
    declared &operator=(const declared &) = delete;
    ~declared();

    const string &refused() const { return refused_; }

private:
    declared() = default;
    static string declare(const policy &p);

    string refused_;
};

string refusal(const char *what, const char *ifname, u32 number)
{
    return format("%s of %s: 0x%x", what, ifname, number);
}

string declare_classes(const policy_interface &iface, const char *name)
{
    for (const policy_class &c : iface.classes) {
        const u32 handle = c.handle.get();
        // An existing class came with the default tree; only its leaf can be set.
        if (!c.existing && add_class(name, c.parent.get(), handle, &c.param, nullptr) != 0)
            return refusal("class", name, handle);
        if (c.leaf.is_good() && add_leaf_qdisc(name, handle, &c.leaf.get()) != 0)
            return refusal("leaf", name, handle);
    }
    return "";
}

// add_root_qdisc makes the default tree or the bands besides, and says nothing when memory runs out
// amid them: the script would lack a class.
void expect_whole(const policy_interface &iface)
{
    for (const tree_class &c : iface.built_in)
        if (mordel::class_find(iface.name.c_str(), c.handle) == nullptr) throw std::bad_alloc();
}

string declare_interface(const policy_interface &iface)
{
    const char *name = iface.name.c_str();
    // iface.param is a union: its address is that of the root type's own record.
    if (add_root_qdisc(iface.speeds, name, iface.root_type, &iface.param) != 0)
        return refusal("root", name, iface.root_type);
    expect_whole(iface);
    // add_root_qdisc has built the default tree below class 1:1. Removing 1:1 removes all of it, or
    // the policy's own handles would meet those of the default tree.
    if (kind_of(iface).takes_classes && !iface.default_tree && del_class(name, 1) != 0)
        return refusal("class", name, 1);
    if (string refused = declare_classes(iface, name); !refused.empty()) return refused;
    for (const policy_rule &rule : iface.rules) {
        const auto index = static_cast<u8>(rule.index.get());
        // add_qos_rule and add_sched return 1 for success, add_class and its like 0.
        if (add_qos_rule(name, index, &rule.match, &rule.target) != 1)
            return refusal("rule", name, index);
    }
    return "";
}

string declared::declare(const policy &p)
{
    for (const policy_schedule &s : p.schedules)
        if (add_sched(&s.sched) != 1) return format("schedule %d", s.sched.index);
    for (const policy_interface &iface : p.interfaces)
        if (string refused = declare_interface(iface); !refused.empty()) return refused;
    return "";
}

declared::~declared()
{
    for (const qos_if &rec : mordel::each<&qos_if::node>(qos_root)) {
        // A copy: rec.ifname goes with the record, which del_root_qdisc frees.
        const string name = rec.ifname;
        for (const qos_rule &rule : mordel::each<&qos_rule::node>(rec.rules))
            (void)del_qos_rule(name.c_str(), rule.index);
        (void)del_root_qdisc(name.c_str());
    }
    (void)del_all_sched();
}

// Where a stream writes to. Not open_memstream: where that finds no room to grow it drops text and
// sets no error, and where its last realloc fails fclose succeeds without a text. Half a script
// that was loaded would leave half a tree.
struct sink {
    string text;
    bool full = false;
};

ssize_t append(void *cookie, const char *piece, size_t size)
{
    sink &to = *static_cast<sink *>(cookie);
    try {
        to.text.append(piece, size);
    } catch (const std::bad_alloc &) {
        // No exception may cross the C library.
        to.full = true;
        return 0;
    }
    return static_cast<ssize_t>(size);
}

// Gives all that a writer writes; throws without memory.
template <typename Write>
string text_of(Write write)
{
    sink to;
    cookie_io_functions_t calls{};
    calls.write = append;
    mordel::stream_guard out(::fopencookie(&to, "w", calls));
    if (!out) throw std::bad_alloc();
    write(out.get());
    const bool written = std::ferror(out.get()) == 0;
    const bool closed = std::fclose(out.release()) == 0;
    if (!written || !closed || to.full) throw std::bad_alloc();
    return to.text;
}

interface_texts texts_of(const string &ifname)
{
    const char *name = ifname.c_str();
    qos_if *rec = mordel::root_qdisc_find_by_name(name);
    return {ifname, text_of([&](FILE *out) { mordel::start2script(out, name, rec); }),
            text_of([&](FILE *out) { mordel::stop2script(out, name, rec); }),
            text_of([&](FILE *out) { mordel::rules2script(out, name, &rec->rules); })};
}

}  // namespace

rendering render(const policy &p)
{
    const declared lists(p);
    rendering all{lists.refused(), {}};
    if (!all.refused.empty()) return all;
    for (const policy_interface &iface : p.interfaces)
        all.interfaces.push_back(texts_of(iface.name));
    return all;
}

bool write_start_script(const policy &p, const string &ifname)
{
    const declared lists(p);
    return lists.refused().empty() && start_qos(ifname.c_str()) == 1;
}

}  // namespace tool
