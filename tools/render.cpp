// SPDX-License-Identifier: MIT
// Owns the library's lists, which are one for the process: each function here fills them with a
// policy and empties them before it returns, also when it throws. Everybody else is handed texts.

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

// A policy in the library's lists, for as long as this lives
class declared {
public:
    // The empty one is whole first, so that its destructor runs when declare() throws.
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
        if (!c.existing && add_class(name, c.parent.get(), handle, &c.param, nullptr) != 0)
            return refusal("class", name, handle);
        if (c.leaf.is_good() && add_leaf_qdisc(name, handle, &c.leaf.get()) != 0)
            return refusal("leaf", name, handle);
    }
    return "";
}

string declare_interface(const policy_interface &iface)
{
    const char *name = iface.name.c_str();
    // The root parameters of every type begin where their union does.
    if (add_root_qdisc(iface.speeds, name, iface.root_type, &iface.param) != 0)
        return refusal("root", name, iface.root_type);
    if (kind_of(iface).takes_classes && !iface.default_tree && del_class(name, 1) != 0)
        return refusal("class", name, 1);
    if (string refused = declare_classes(iface, name); !refused.empty()) return refused;
    for (const policy_rule &rule : iface.rules) {
        const auto index = static_cast<u8>(rule.index.get());
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
        const string name = rec.ifname;
        for (const qos_rule &rule : mordel::each<&qos_rule::node>(rec.rules))
            (void)del_qos_rule(name.c_str(), rule.index);
        (void)del_root_qdisc(name.c_str());
    }
    (void)del_all_sched();
}

// All that a writer writes. A stream in memory fails when memory runs out, and then holds the
// beginning of the text or nothing: neither must be taken for the text.
template <typename Write>
string text_of(Write write)
{
    char *text = nullptr;
    std::size_t size = 0;
    mordel::stream_guard out(::open_memstream(&text, &size));
    if (!out) throw std::bad_alloc();
    write(out.get());
    const bool written = std::ferror(out.get()) == 0;
    const bool closed = std::fclose(out.release()) == 0;
    const mordel::heap_guard<char> owner(text);
    if (!written || !closed) throw std::bad_alloc();
    return {text, size};
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
