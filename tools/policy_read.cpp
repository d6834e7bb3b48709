// SPDX-License-Identifier: MIT
// The first half of reading a policy: makes records of the file's text. Judges each value by
// itself; policy_check.cpp judges values together. Pure: takes a text.
#include "policy_read.h"

#include <algorithm>
#include <charconv>

#include "leaf.h"
#include "match.h"
#include "names.h"
#include "root.h"
#include "table_reader.h"
#include "text.h"
#include "toml_file.h"

namespace tool {
namespace {

using std::string;
using std::string_view;

// ---- Schedules ----------------------------------------------------------------------------------

struct time_of_day {
    u8 hour;
    u8 minute;
};

// Minutes have two digits: "8:5" could mean 8:05 or 8:50.
std::optional<time_of_day> parse_time_of_day(const string &text)
{
    unsigned hour = 0;
    unsigned minute = 0;
    const char *end = text.data() + text.size();
    const auto hours = std::from_chars(text.data(), end, hour);
    if (hours.ec != std::errc{} || hours.ptr == end || *hours.ptr != ':') return std::nullopt;
    const auto minutes = std::from_chars(hours.ptr + 1, end, minute);
    if (minutes.ec != std::errc{} || minutes.ptr != end || minutes.ptr != hours.ptr + 3)
        return std::nullopt;
    if (hour > 23 || minute > 59) return std::nullopt;
    return time_of_day{static_cast<u8>(hour), static_cast<u8>(minute)};
}

std::optional<time_of_day> read_time(table_reader &in, string_view key)
{
    const string right = "it is a text like \"17:30\", from \"0:00\" to \"23:59\"";
    const value<string> text = in.text(key, right);
    if (!text.is_good()) return std::nullopt;
    const auto time = parse_time_of_day(text.get());
    if (!time) in.wrong(key, right);
    return time;
}

// Bits by the ids of the library's table. No day at all means every day.
u8 read_days(table_reader &in)
{
    u8 days = 0;
    const toml::array *list = in.array("days", "it is an array like [\"Mon\", \"Fri\"]");
    if (list == nullptr) return 0;
    for (const toml::node &node : *list)
        if (const auto day = in.word_in("days", node, mordel::WeekStrMap); day.is_good())
            days |= static_cast<u8>(1U << day.get());
    return days;
}

void read_hours(table_reader &in, qos_sched &s)
{
    if (!in.has("start") || !in.has("stop"))
        in.missing(in.has("start") ? "stop" : "start",
                   "all_day = true, or start and stop, like \"8:00\" and \"17:30\"");
    const auto start = read_time(in, "start");
    const auto stop = read_time(in, "stop");
    if (!start || !stop) return;
    s.start_hour = start->hour;
    s.start_min = start->minute;
    s.stop_hour = stop->hour;
    s.stop_min = stop->minute;
    // add_sched keeps no minute and no stop. No command fails for that, so the policy's author
    // learns of it here or never.
    if (start->minute != 0 || stop->hour != 0 || stop->minute != 0)
        in.found().warning(in.at("start"),
                           format("the library keeps the hour of start alone: the scripts will say"
                                  " --timestart %d:00 --timestop 0:00",
                                  s.start_hour));
}

policy_schedule read_schedule(const toml::table &table, diagnostics &found)
{
    table_reader in(table, "a schedule", {"index", "days", "all_day", "start", "stop"}, found);
    policy_schedule out;
    out.at = in.at();
    qos_sched &s = out.sched;
    // From 1: a rule whose sched_index is 0 has no schedule.
    in.must({"index"}, "a number from 1 to 255");
    s.index = static_cast<u8>(in.number("index", 1, 255).get());
    s.days = read_days(in);
    const value<bool> all_day = in.flag("all_day");
    // Whether times belong beside a wrong all_day is not known: nothing is said of them.
    if (all_day.is_wrong()) return out;
    s.all_day = all_day.get() ? 1 : 0;
    if (s.all_day == 0) {
        read_hours(in, s);
        return out;
    }
    if (in.has("start") || in.has("stop"))
        found.error(in.at(in.has("start") ? "start" : "stop"),
                    "a schedule for all day with times; leave out all_day, or start and stop");
    return out;
}

// ---- Classes ------------------------------------------------------------------------------------

value<string> read_class_name(table_reader &in)
{
    value<string> name = in.text("name", "it is a text");
    const string &text = name.get();
    // quoted() adds two quotes, and more only where a character has to be escaped.
    if (text.size() <= 31 && quoted(text).size() == text.size() + 2) return name;
    in.wrong("name", "it is at most 31 printable characters, without quotes and backslashes");
    return value<string>::wrong(name.at());
}

// Whether the class is there without an entry. On PRIO each counts as such: its classes are its
// bands, and check_prio reports a handle that is no band.
bool comes_by_itself(const policy_interface &iface, u32 handle)
{
    return !kind_of(iface).takes_classes ||
           std::any_of(iface.built_in.begin(), iface.built_in.end(),
                       [&](const tree_class &c) { return c.handle == handle; });
}

policy_class read_class(const toml::table &table, const policy_interface &iface, diagnostics &found)
{
    table_reader in(table, "a class", found);
    policy_class c;
    c.at = in.at();
    in.must({"handle"}, "a number from 1 to 0xfff");
    c.handle = in.handle("handle", 1);
    c.parent = in.handle("parent", 0);
    // The script puts class 1 on the root wherever the policy hangs it.
    c.parent.default_to(c.handle.get() == 1 ? 0 : 1);
    c.name = read_class_name(in);
    c.existing = comes_by_itself(iface, c.handle.get());
    if (c.existing)
        in.only(format("class 0x%x, which comes with the interface,", c.handle.get()),
                {"handle", "name", "leaf"});
    else
        kind_of(iface).classes->read(in, c);
    if (const toml::table *leaf = in.table("leaf", "it is a table like { type = \"pfifo\" }"))
        c.leaf = read_leaf(*leaf, found);
    return c;
}

// ---- Rules --------------------------------------------------------------------------------------

policy_rule read_rule(const toml::table &table, diagnostics &found)
{
    table_reader in(table, "a rule", {"index", "match", "target"}, found);
    policy_rule rule;
    rule.at = in.at();
    in.must({"index"}, "a number from 0 to 255");
    rule.index = in.number("index", 0, 255);
    if (const toml::table *match = in.table("match", "it is a table like { dscp = 46 }"))
        read_match(*match, rule, found);
    in.must({"target"}, "a table like { mark = 0x10 }");
    if (const toml::table *target = in.table("target", "it is a table like { mark = 0x10 }"))
        read_target(*target, rule, found);
    return rule;
}

// ---- Interfaces ---------------------------------------------------------------------------------

void read_name(table_reader &in, policy_interface &iface)
{
    in.must({"name"}, "the interface's name, like \"eth0\"");
    const value<string> name = in.text("name", "it is a text like \"eth0\"");
    if (!name.is_good()) return;
    iface.name = name.get();
    iface.name_at = name.at();
    // The scripts name the interface without quotes: in a shell's hands a space or a semicolon
    // would make a second word or a second command of the name.
    if (!safe_name(iface.name))
        in.wrong("name",
                 "it goes into a script as it is: 1 to 15 letters, digits and . _ -, no dash"
                 " or dot first");
    else if (iface.name.size() > 15)
        in.wrong("name", "the kernel takes at most 15 characters");
}

void read_speeds(table_reader &in, policy_interface &iface)
{
    iface.link_tx = in.rate("link_tx");
    iface.phy_tx = in.rate("phy_tx");
    // In the order that add_root_qdisc takes. The two that the default tree is made with are kept
    // with their places too, for check_speeds.
    iface.speeds[0] = iface.link_tx.get();
    iface.speeds[1] = in.rate("link_rx").get();
    iface.speeds[2] = iface.phy_tx.get();
    iface.speeds[3] = in.rate("phy_rx").get();
}

policy_interface read_interface(const toml::table &table, diagnostics &found)
{
    table_reader in(table, "an interface", found);
    policy_interface iface;
    iface.at = in.at();
    read_name(in, iface);
    read_speeds(in, iface);
    in.must({"root"}, joined(root_names()));
    const value<u32> root = in.word("root", root_names());
    // Without the root's kind nobody can say which keys are right.
    if (!root.is_good()) return iface;
    iface.root_type = root.get();
    iface.known = true;
    const root_kind &kind = kind_of(iface);
    // Before the classes: read_class asks which of them come by themselves.
    kind.read(in, iface);
    if (kind.classes != nullptr)
        in.each_table("class", "interface.", [&](const toml::table &one) {
            iface.classes.push_back(read_class(one, iface, found));
            iface.handles_known = iface.handles_known && iface.classes.back().handle.is_good();
        });
    in.each_table("rule", "interface.",
                  [&](const toml::table &one) { iface.rules.push_back(read_rule(one, found)); });
    return iface;
}

}  // namespace

policy parse_policy(string_view text, diagnostics &found)
{
    policy p;
    const std::optional<toml::table> table = parse_toml(text, found);
    if (!table) return p;
    table_reader in(*table, "a policy", {"interface", "schedule"}, found);
    in.each_table("schedule", "", [&](const toml::table &one) {
        p.schedules.push_back(read_schedule(one, found));
    });
    in.each_table("interface", "", [&](const toml::table &one) {
        p.interfaces.push_back(read_interface(one, found));
    });
    // An empty file is good TOML. Applied it would change nothing and look like success.
    if (p.interfaces.empty() && !found.failed())
        found.error(in.at("interface"),
                    "a policy without an interface; add one that begins with [[interface]]");
    return p;
}

policy read_policy(string_view text, kernel_kind kernel, diagnostics &found)
{
    policy p = parse_policy(text, found);
    check_policy(p, kernel, found);
    return p;
}

}  // namespace tool
