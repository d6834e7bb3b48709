#include "model.h"

#include <cstdio>
#include <cstdlib>

#include "root.h"
#include "tarnic_iptables.h"
#include "tarnic_qos.h"
#include "text.h"

namespace tool {
namespace {

void clear()
{
    for (const qos_if &rec : mordel::each<&qos_if::node>(qos_root)) {
        const std::string name = rec.ifname;
        for (const qos_rule &rule : mordel::each<&qos_rule::node>(rec.rules))
            (void)del_qos_rule(name.c_str(), rule.index);
        (void)del_root_qdisc(name.c_str());
    }
    (void)del_all_sched();
}

}  // namespace

model::model(const policy &p)
{
    for (const policy_schedule &s : p.schedules)
        if (add_sched(&s.sched) != 1) refused_ = format("schedule %d", s.sched.index);
    for (const policy_interface &iface : p.interfaces) declare(iface);
}

model::~model() { clear(); }

void model::declare(const policy_interface &iface)
{
    const char *name = iface.name.c_str();
    const auto refuse = [&](const char *what, u32 number) {
        refused_ = format("%s of %s: 0x%x", what, name, number);
    };
    // The root parameters of every type begin where their union does.
    if (add_root_qdisc(iface.speeds, name, iface.root_type, &iface.param) != 0)
        refuse("root", iface.root_type);
    if (kind_of(iface).takes_classes && !iface.default_tree && del_class(name, 1) != 0)
        refuse("class", 1);
    for (const policy_class &c : iface.classes) {
        const u32 handle = c.handle.get();
        if (!c.existing && add_class(name, c.parent.get(), handle, &c.param, nullptr) != 0)
            refuse("class", handle);
        if (c.leaf.is_good() && add_leaf_qdisc(name, handle, &c.leaf.get()) != 0)
            refuse("leaf", handle);
    }
    for (const policy_rule &rule : iface.rules) {
        const auto index = static_cast<u8>(rule.index.get());
        if (add_qos_rule(name, index, &rule.match, &rule.target) != 1) refuse("rule", index);
    }
}

std::string script_text(const std::string &ifname, script which)
{
    const char *name = ifname.c_str();
    qos_if *rec = mordel::root_qdisc_find_by_name(name);
    if (rec == nullptr) return "";
    char *text = nullptr;
    std::size_t size = 0;
    FILE *out = ::open_memstream(&text, &size);
    if (out == nullptr) return "";
    if (which == script::start) mordel::start2script(out, name, rec);
    if (which == script::stop) mordel::stop2script(out, name, rec);
    if (which == script::rules) mordel::rules2script(out, name, &rec->rules);
    (void)std::fclose(out);
    std::string all(text, size);
    std::free(text);
    return all;
}

}  // namespace tool
