// The first half of reading a policy: from the file's text to records. Every value is held against
// what it may be; what values mean together is policy_check.cpp's.

#include "policy.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <optional>
#include <span>

#include "names.h"
#include "text.h"
#include "toml.h"

namespace tool {
namespace {

using std::string;
using std::string_view;
using words = std::initializer_list<string_view>;

constexpr u32 no_limit = std::numeric_limits<u32>::max();
constexpr u32 highest_handle = 0xfff;  // a leaf qdisc's number is 16 times as much, of 16 bits

position place(const toml::source_region &source)
{
    return {source.begin.line, source.begin.column};
}
position place(const toml::node &node) { return place(node.source()); }

// A value as it is shown in a message
string shown(const toml::node &node)
{
    if (const auto *text = node.as_string()) return quoted(text->get());
    if (const auto *number = node.as_integer())
        return format("%lld", static_cast<long long>(number->get()));
    if (const auto *flag = node.as_boolean()) return flag->get() ? "true" : "false";
    if (node.is_floating_point()) return "a floating-point number";
    if (node.is_table()) return "a table";
    if (node.is_array()) return "an array";
    return "a date or time";
}

bool same_word(string_view a, string_view b)
{
    return strCmpNoCase(string(a).c_str(), string(b).c_str()) == 0;
}

// The id of a word in a list, whatever its case; none if it is not there.
std::optional<u32> id_of(string_view word, std::span<const string_view> list)
{
    for (u32 id = 0; id < list.size(); ++id)
        if (same_word(word, list[id])) return id;
    return std::nullopt;
}

// ---- Tables: a key at a time, each kind of value with its own message --------------------------

class table_reader {
public:
    table_reader(const toml::table &table, string what, diagnostics &found)
        : table_(table), at_(place(table)), what_(std::move(what)), found_(found)
    {}

    // The same, and then only().
    table_reader(const toml::table &table, const string &what, words known, diagnostics &found)
        : table_reader(table, what, found)
    {
        only(what, known);
    }

    // Keys that are not `known` are errors.
    void only(const string &what, words known)
    {
        const std::span all(known.begin(), known.size());
        for (const auto &[key, value] : table_) {
            if (std::find(all.begin(), all.end(), key.str()) != all.end()) continue;
            const string_view meant = nearest(key.str(), all);
            found_.error(place(key.source()),
                         what + " has no key " + quoted(key.str()) +
                             (meant.empty() ? "; its keys are " + joined(all, "and")
                                            : "; did you mean " + quoted(meant) + "?"));
        }
    }

    position at() const { return at_; }
    bool has(string_view key) const { return table_.contains(key); }
    const toml::node *get(string_view key) const { return table_.get(key); }
    bool is_table(string_view key) const { return has(key) && get(key)->is_table(); }
    position at(string_view key) const
    {
        const toml::node *node = table_.get(key);
        return node == nullptr ? at_ : place(*node);
    }

    void missing(string_view key, const string &right)
    {
        found_.error(at_, format("%s without \"%.*s\"; give %s", what_.c_str(),
                                 static_cast<int>(key.size()), key.data(), right.c_str()));
    }

    // "KEY VALUE is not ...": what is wrong with a value, and what would be right
    void wrong(string_view key, const string &right) { wrong(key, *table_.get(key), right); }
    void wrong(string_view key, const toml::node &node, const string &right)
    {
        found_.error(place(node), format("%.*s is %s; %s", static_cast<int>(key.size()), key.data(),
                                         shown(node).c_str(), right.c_str()));
    }

    // "KEY has VALUE; ...": the same, for an element of an array
    void wrong_element(string_view key, const toml::node &node, const string &right)
    {
        found_.error(place(node), format("%.*s has %s; %s", static_cast<int>(key.size()),
                                         key.data(), shown(node).c_str(), right.c_str()));
    }

    // None when the key is not there, or its value is no text (an error then).
    std::optional<string> text(string_view key, const string &right)
    {
        const toml::node *node = table_.get(key);
        if (node == nullptr) return std::nullopt;
        if (const auto *value = node->as_string()) return value->get();
        wrong(key, right);
        return std::nullopt;
    }

    std::optional<bool> flag(string_view key)
    {
        const toml::node *node = table_.get(key);
        if (node == nullptr) return std::nullopt;
        if (const auto *value = node->as_boolean()) return value->get();
        wrong(key, "it is true or false");
        return std::nullopt;
    }

    std::optional<u32> number(string_view key, u32 least, u32 most)
    {
        const toml::node *node = table_.get(key);
        if (node == nullptr) return std::nullopt;
        if (const auto value = within(*node, least, most)) return value;
        wrong(key, format("it is a whole number from %u to %u", least, most));
        return std::nullopt;
    }
    std::optional<u32> number_in(string_view key, const toml::node &node, u32 least, u32 most)
    {
        if (const auto value = within(node, least, most)) return value;
        wrong_element(key, node, format("each is a whole number from %u to %u", least, most));
        return std::nullopt;
    }
    std::optional<u32> handle(string_view key, u32 least)
    {
        const toml::node *node = table_.get(key);
        if (node == nullptr) return std::nullopt;
        if (const auto value = within(*node, least, highest_handle)) return value;
        const string right =
            format("a handle is a whole number from %u to 0xfff, since tc takes the"
                   " leaf's number, 16 times as much, up to 0xffff",
                   least);
        if (const auto value = within(*node, 0, no_limit))
            found_.error(place(*node), format("%.*s is 0x%x; %s", static_cast<int>(key.size()),
                                              key.data(), *value, right.c_str()));
        else
            wrong(key, right);
        return std::nullopt;
    }

    std::optional<u32> rate(string_view key)
    {
        if (wrong_unit(key)) return std::nullopt;
        return quantity(key, parse_rate,
                        "a rate is a whole number of kbit/s up to 4294967295, or a text like"
                        " \"20mbit\"");
    }
    std::optional<u32> size(string_view key)
    {
        return quantity(key, parse_size,
                        "a size is a whole number of bytes up to 4294967295, or a text like"
                        " \"15kb\"");
    }
    std::optional<u32> time(string_view key)
    {
        return quantity(key, parse_time,
                        "a time is a whole number of ms up to 4294967295, or a text like"
                        " \"20ms\"");
    }

    // The place of a word in a list of names
    std::optional<u32> word(string_view key, std::span<const string_view> names)
    {
        const toml::node *node = table_.get(key);
        if (node == nullptr) return std::nullopt;
        if (const auto id = named(*node, names)) return id;
        wrong(key, "it is one of " + joined(names));
        return std::nullopt;
    }
    std::optional<u32> word_in(string_view key, const toml::node &node,
                               std::span<const string_view> names)
    {
        if (const auto id = named(node, names)) return id;
        wrong_element(key, node, "each is one of " + joined(names));
        return std::nullopt;
    }

    const toml::table *table(string_view key, const string &right)
    {
        const toml::node *node = table_.get(key);
        if (node == nullptr) return nullptr;
        if (!node->is_table()) wrong(key, right);
        return node->as_table();
    }

    const toml::array *array(string_view key, const string &right)
    {
        const toml::node *node = table_.get(key);
        if (node == nullptr) return nullptr;
        if (!node->is_array()) wrong(key, right);
        return node->as_array();
    }

    // How many elements an array has; 0 when there is none.
    std::size_t elements(string_view key) const
    {
        const toml::array *all = has(key) ? get(key)->as_array() : nullptr;
        return all == nullptr ? 0 : all->size();
    }

    // Calls body(table) for each table of an array of tables.
    template <typename Body>
    void each_table(string_view key, Body body)
    {
        const string right = format("it is an array of tables: [[%s%.*s]]", prefix_.c_str(),
                                    static_cast<int>(key.size()), key.data());
        const toml::array *all = array(key, right);
        if (all == nullptr) return;
        for (const toml::node &node : *all) {
            if (const toml::table *one = node.as_table())
                body(*one);
            else
                wrong(key, node, right);
        }
    }
    void set_prefix(string prefix) { prefix_ = std::move(prefix); }

    diagnostics &found() { return found_; }

private:
    static std::optional<u32> within(const toml::node &node, u32 least, u32 most)
    {
        const auto *value = node.as_integer();
        if (value == nullptr || value->get() < least || value->get() > most) return std::nullopt;
        return static_cast<u32>(value->get());
    }

    static std::optional<u32> named(const toml::node &node, std::span<const string_view> names)
    {
        const auto *value = node.as_string();
        return value == nullptr ? std::nullopt : id_of(value->get(), names);
    }

    std::optional<u32> quantity(string_view key, std::optional<u32> (*parse)(string_view),
                                const string &right)
    {
        const toml::node *node = table_.get(key);
        if (node == nullptr) return std::nullopt;
        if (const auto value = within(*node, 0, no_limit)) return value;
        if (const auto *text = node->as_string())
            if (const auto parsed = parse(text->get())) return parsed;
        wrong(key, right);
        return std::nullopt;
    }

    // The mistake that is made most gets an answer of its own.
    bool wrong_unit(string_view key)
    {
        const toml::node *node = table_.get(key);
        if (node == nullptr || !node->is_string()) return false;
        const auto q = split_quantity(node->as_string()->get());
        if (!q || (q->unit != "kbps" && q->unit != "mbps" && q->unit != "gbps")) return false;
        wrong(key, format("%s are bytes to tc and bits to others; write %cbit", q->unit.c_str(),
                          q->unit.front()));
        return true;
    }

    const toml::table &table_;
    position at_;
    string what_;
    string prefix_;
    diagnostics &found_;
};

// "FIRST:LAST"
struct range {
    u32 first;
    u32 last;
};
std::optional<range> parse_range(string_view text)
{
    range out{};
    const char *end = text.data() + text.size();
    const auto first = std::from_chars(text.data(), end, out.first);
    if (first.ec != std::errc{} || first.ptr == end || *first.ptr != ':') return std::nullopt;
    const auto last = std::from_chars(first.ptr + 1, end, out.last);
    if (last.ec != std::errc{} || last.ptr != end) return std::nullopt;
    return out;
}

// A text in a char array, the rest of which is zeros; the caller has seen that it fits.
template <std::size_t N>
void store(char (&field)[N], const string &text)
{
    std::memcpy(field, text.data(), std::min(text.size(), N - 1));
}

// ---- Schedules ----------------------------------------------------------------------------------

struct time_of_day {
    u8 hour;
    u8 minute;
};

std::optional<time_of_day> read_time(table_reader &in, string_view key)
{
    const string right = "it is a text like \"17:30\", from \"0:00\" to \"23:59\"";
    const auto text = in.text(key, right);
    if (!text) return std::nullopt;
    unsigned hour = 0;
    unsigned minute = 0;
    const char *at = text->data();
    const char *end = at + text->size();
    const auto hours = std::from_chars(at, end, hour);
    const bool colon = hours.ec == std::errc{} && hours.ptr != end && *hours.ptr == ':';
    if (colon) {
        const auto minutes = std::from_chars(hours.ptr + 1, end, minute);
        if (minutes.ec == std::errc{} && minutes.ptr == end && minutes.ptr == hours.ptr + 3 &&
            hour < 24 && minute < 60)
            return time_of_day{static_cast<u8>(hour), static_cast<u8>(minute)};
    }
    in.wrong(key, right);
    return std::nullopt;
}

u8 read_days(table_reader &in)
{
    u8 days = 0;
    const toml::array *list = in.array("days", "it is an array like [\"Mon\", \"Fri\"]");
    if (list == nullptr) return 0;
    for (const toml::node &node : *list)
        if (const auto day = in.word_in("days", node, day_names))
            days |= static_cast<u8>(1U << *day);
    return days;
}

policy_schedule read_schedule(const toml::table &table, diagnostics &found)
{
    table_reader in(table, "a schedule", {"index", "days", "all_day", "start", "stop"}, found);
    policy_schedule out;
    out.at = in.at();
    qos_sched &s = out.sched;
    if (!in.has("index")) in.missing("index", "a number from 1 to 255");
    s.index = static_cast<u8>(in.number("index", 1, 255).value_or(0));
    s.days = read_days(in);
    const std::optional<bool> flag = in.flag("all_day");
    if (in.has("all_day") && !flag) return out;
    const bool all_day = flag.value_or(false);
    s.all_day = all_day ? 1 : 0;
    const bool times = in.has("start") || in.has("stop");
    if (all_day && times)
        found.error(in.at(in.has("start") ? "start" : "stop"),
                    "a schedule for all day with times; leave out all_day, or start and stop");
    if (all_day) return out;
    if (!in.has("start") || !in.has("stop")) {
        in.missing(in.has("start") ? "stop" : "start",
                   "all_day = true, or start and stop, like \"8:00\" and \"17:30\"");
    }
    const auto start = read_time(in, "start");
    const auto stop = read_time(in, "stop");
    if (!start || !stop) return out;
    s.start_hour = start->hour;
    s.start_min = start->minute;
    s.stop_hour = stop->hour;
    s.stop_min = stop->minute;
    if (start->minute != 0 || stop->hour != 0 || stop->minute != 0)
        found.warning(in.at("start"),
                      format("the library keeps the hour of start alone: the scripts will say"
                             " --timestart %d:00 --timestop 0:00",
                             s.start_hour));
    return out;
}

// ---- Classes and leaves -------------------------------------------------------------------------

places places_of(const toml::table &table)
{
    places all;
    for (const auto &[key, value] : table) all.note(key.str(), place(value));
    return all;
}

bool read_must(table_reader &in, words keys, const string &right)
{
    bool all = true;
    for (const string_view key : keys) {
        if (in.has(key)) continue;
        in.missing(key, right);
        all = false;
    }
    return all;
}

leaf_qdisc read_red(const toml::table &table, diagnostics &found)
{
    table_reader in(table, "a red leaf", {"type", "min", "max", "burst", "limit", "avpkt"}, found);
    leaf_qdisc leaf{};
    leaf.type = L_RED;
    red_leaf_param &red = leaf.param.red;
    read_must(in, {"min", "max", "limit", "avpkt"}, "a size, in bytes");
    read_must(in, {"burst"}, "a number of packets");
    red.min = in.size("min").value_or(0);
    red.max = in.size("max").value_or(0);
    red.burst = in.number("burst", 1, no_limit).value_or(0);
    red.limit = in.size("limit").value_or(0);
    red.avpkt = in.size("avpkt").value_or(0);
    return leaf;
}

leaf_qdisc read_tbf(const toml::table &table, diagnostics &found)
{
    table_reader in(table, "a tbf leaf", {"type", "rate", "burst", "latency"}, found);
    leaf_qdisc leaf{};
    leaf.type = L_TBF;
    tbf_leaf_param &tbf = leaf.param.tbf;
    read_must(in, {"rate"}, "a rate");
    read_must(in, {"burst"}, "a size, in bytes");
    read_must(in, {"latency"}, "a time, in ms");
    tbf.rate = in.rate("rate").value_or(0);
    tbf.burst = in.size("burst").value_or(0);
    tbf.latency = in.time("latency").value_or(0);
    return leaf;
}

leaf_qdisc read_short_leaf(const toml::table &table, u32 type, diagnostics &found)
{
    leaf_qdisc leaf{};
    leaf.type = type;
    if (type == L_SFQ) {
        table_reader in(table, "an sfq leaf", {"type", "perturb"}, found);
        leaf.param.sfq.perturb = static_cast<u8>(in.number("perturb", 0, 255).value_or(0));
    } else {
        table_reader in(table, "a pfifo leaf", {"type", "limit"}, found);
        leaf.param.pfifo.limit = in.number("limit", 0, no_limit).value_or(0);
    }
    return leaf;
}

std::optional<leaf_qdisc> read_leaf(const toml::table &table, diagnostics &found)
{
    table_reader in(table, "a leaf", found);
    if (!in.has("type")) in.missing("type", joined(leaf_names));
    const auto type = in.word("type", leaf_names);
    if (!type) return std::nullopt;
    if (*type == L_RED) return read_red(table, found);
    if (*type == L_TBF) return read_tbf(table, found);
    return read_short_leaf(table, *type, found);
}

void read_curve(table_reader &in, string_view key, hfsc_curve &curve)
{
    if (!in.is_table(key)) {
        curve.rate = in.rate(key).value_or(0);
        return;
    }
    table_reader sub(*in.table(key, ""),
                     format("curve %.*s", static_cast<int>(key.size()), key.data()),
                     {"rate", "umax", "dmax"}, in.found());
    read_must(sub, {"rate"}, "a rate");
    curve.rate = sub.rate("rate").value_or(0);
    curve.umax = sub.size("umax").value_or(0);
    curve.dmax = sub.time("dmax").value_or(0);
}

void read_htb(table_reader &in, htb_class_param &htb)
{
    in.only("an HTB class",
            {"handle", "parent", "name", "leaf", "rate", "ceil", "prio", "burst", "cburst"});
    read_must(in, {"rate"}, "a rate");
    htb.rate = in.rate("rate").value_or(0);
    htb.ceil = in.has("ceil") ? in.rate("ceil").value_or(0) : htb.rate;
    htb.prio = in.number("prio", 0, 7).value_or(0);
    htb.burst = in.size("burst").value_or(0);
    htb.cburst = in.size("cburst").value_or(0);
}

void read_hfsc(table_reader &in, hfsc_class_param &hfsc)
{
    in.only("an HFSC class", {"handle", "parent", "name", "leaf", "ul", "sc", "ls", "rt"});
    read_curve(in, "ul", hfsc.ul);
    read_curve(in, "sc", hfsc.sc);
    read_curve(in, "ls", hfsc.ls);
    read_curve(in, "rt", hfsc.rt);
}

policy_class read_class(const toml::table &table, const policy_interface &iface, diagnostics &found)
{
    table_reader in(table, "a class", found);
    policy_class c;
    c.at = in.at();
    c.places = places_of(table);

    if (!in.has("handle")) in.missing("handle", "a number from 1 to 0xfff");
    c.handle = in.handle("handle", 1).value_or(0);
    const auto parent = in.handle("parent", 0);
    c.placed = c.handle != 0 && (parent || !in.has("parent"));
    c.parent = parent.value_or(c.handle == 1 ? 0 : 1);
    c.existing = iface.classful() && iface.default_tree ? c.handle >= 1 && c.handle <= 3
                                                        : iface.root_type == R_PRIO;
    const auto name = in.text("name", "it is a text");
    if (name && (name->size() > 31 || quoted(*name).size() != name->size() + 2))
        in.wrong("name", "it is at most 31 printable characters, without quotes and backslashes");
    c.name = name.value_or("");
    if (c.existing) {
        table_reader built(table, format("class 0x%x, which comes with the interface,", c.handle),
                           {"handle", "name", "leaf"}, found);
    } else if (iface.root_type == R_HTB) {
        read_htb(in, c.htb);
    } else {
        read_hfsc(in, c.hfsc);
    }
    if (const toml::table *leaf = in.table("leaf", "it is a table like { type = \"pfifo\" }")) {
        const std::size_t before = found.errors();
        c.leaf = read_leaf(*leaf, found).value_or(leaf_qdisc{});
        c.has_leaf = found.errors() == before;
    }
    return c;
}

// ---- Rules --------------------------------------------------------------------------------------

// A number, or two
std::optional<range> read_range(table_reader &in, string_view key, u32 least, u32 most)
{
    const toml::node *node = in.get(key);
    if (node == nullptr) return std::nullopt;
    const string right = format("it is a number from %u to %u, or two like \"%u:%u\"", least, most,
                                most / 2 + 1, most);
    std::optional<range> out;
    if (const auto *number = node->as_integer()) {
        const std::int64_t value = number->get();
        if (value >= least && value <= most)
            out = range{static_cast<u32>(value), static_cast<u32>(value)};
    } else if (const auto *text = node->as_string()) {
        out = parse_range(text->get());
        if (out && (out->first < least || out->last > most)) out.reset();
        if (out && out->first > out->last) {
            in.wrong(key, format("a range begins with its lower end; write \"%u:%u\"", out->last,
                                 out->first));
            return std::nullopt;
        }
    }
    if (!out) in.wrong(key, right);
    return out;
}

// "A", "A/BITS" or "A-B"
std::optional<range> parse_addresses(const string &text)
{
    if (const std::size_t dash = text.find('-'); dash != string::npos) {
        const auto first = parse_ipv4(string_view(text).substr(0, dash));
        const auto last = parse_ipv4(string_view(text).substr(dash + 1));
        return first && last ? std::optional(range{*first, *last}) : std::nullopt;
    }
    const std::size_t slash = text.find('/');
    const auto ip = parse_ipv4(string_view(text).substr(0, slash));
    if (!ip || slash == string::npos) return ip ? std::optional(range{*ip, *ip}) : std::nullopt;
    unsigned bits = 0;
    const char *end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(text.data() + slash + 1, end, bits);
    if (error != std::errc{} || behind != end || bits > 32) return std::nullopt;
    const u32 host = bits == 0 ? no_limit : (u32{1} << (32 - bits)) - 1;
    return range{*ip & ~host, *ip | host};
}

std::optional<range> read_addresses(table_reader &in, string_view key)
{
    const string right = "it is an address, \"192.168.1.0/24\" or \"192.168.1.100-192.168.1.109\"";
    const auto text = in.text(key, right);
    if (!text) return std::nullopt;
    const auto out = parse_addresses(*text);
    if (!out) {
        in.wrong(key, right);
    } else if (out->first > out->last) {
        in.wrong(key, format("a range begins with its lower end; write \"%s-%s\"",
                             ipv4_text(out->last).c_str(), ipv4_text(out->first).c_str()));
    } else if (out->first == 0) {
        in.wrong(key,
                 format("0.0.0.0 means no range to the library; begin with 0.0.0.1, or leave out"
                        " %.*s to match every address",
                        static_cast<int>(key.size()), key.data()));
    } else {
        return out;
    }
    return std::nullopt;
}

u8 read_flags(table_reader &in, string_view key)
{
    u8 flags = 0;
    const toml::array *list = in.array(key, "it is an array like [\"SYN\", \"ACK\"]");
    if (list == nullptr) return 0;
    for (const toml::node &node : *list)
        if (const auto flag = in.word_in(key, node, flag_names))
            flags |= static_cast<u8>(1U << *flag);
    return flags;
}

void read_tcp_flags(table_reader &in, qos_match &m)
{
    const string right = "it is a table like { mask = [\"SYN\", \"ACK\"], set = [\"SYN\"] }";
    const toml::table *table = in.table("tcp_flags", right);
    if (table == nullptr) return;
    table_reader sub(*table, "tcp_flags", {"mask", "set"}, in.found());
    if (!read_must(sub, {"mask", "set"}, "a list of flags")) return;
    const std::size_t before = in.found().errors();
    m.tcp_flag_mask = read_flags(sub, "mask");
    m.tcp_flag_comp = read_flags(sub, "set");
    for (const string_view key : {string_view("mask"), string_view("set")})
        if (const auto *list = sub.get(key)->as_array(); list != nullptr && list->empty())
            sub.wrong(key, "without a flag the library writes no match; name one");
    if ((m.tcp_flag_comp & ~m.tcp_flag_mask) != 0 && in.found().errors() == before)
        in.found().error(sub.at("set"), "set names flags that mask does not, so no packet matches;"
                                        " add them to mask");
}

void read_protocol(table_reader &in, qos_match &m)
{
    const bool ports = in.has("sport") || in.has("dport");
    const bool flags = in.has("tcp_flags");
    if (const auto protocol = in.word("protocol", protocol_names)) {
        m.flags |= 1U << match_protocol;
        m.protocol = *protocol;
    } else if (in.has("protocol")) {
        return;
    }
    const bool any = tool::has(m.flags, match_protocol);
    const bool tcp = any && (m.protocol == protocol_tcp || m.protocol == protocol_both);
    const bool ported = tcp || (any && m.protocol == protocol_udp);
    if (ports && !ported)
        in.found().error(in.at(in.has("sport") ? "sport" : "dport"),
                         "ports without TCP or UDP; add protocol = \"tcp\", \"udp\" or \"both\"");
    if (flags && !tcp)
        in.found().error(in.at("tcp_flags"),
                         "TCP flags without TCP; add protocol = \"tcp\" or \"both\"");
    if (const auto r = read_range(in, "sport", 1, 65535)) {
        m.sport_start = static_cast<u16>(r->first);
        m.sport_end = static_cast<u16>(r->last);
    }
    if (const auto r = read_range(in, "dport", 1, 65535)) {
        m.dport_start = static_cast<u16>(r->first);
        m.dport_end = static_cast<u16>(r->last);
    }
    read_tcp_flags(in, m);
}

void read_addresses(table_reader &in, qos_match &m)
{
    if (const auto mac = in.text("mac", "it is a text like \"00:11:22:33:44:55\"")) {
        m.flags |= 1U << match_mac;
        if (is_mac(*mac))
            store(m.src_mac, *mac);
        else
            in.wrong("mac", "it is six pairs of hexadecimal digits, like \"00:11:22:33:44:55\"");
    }
    if (in.has("src") || in.has("dst")) m.flags |= 1U << match_ip;
    if (const auto r = read_addresses(in, "src")) {
        m.src_ip_start = r->first;
        m.src_ip_end = r->last;
    }
    if (const auto r = read_addresses(in, "dst")) {
        m.dst_ip_start = r->first;
        m.dst_ip_end = r->last;
    }
}

struct dscp {
    u32 mode;
    u32 value;
};

// A number or the name of a class
std::optional<dscp> read_dscp(table_reader &in)
{
    const toml::node *node = in.get("dscp");
    if (node == nullptr) return std::nullopt;
    if (const auto *number = node->as_integer()) {
        if (number->get() >= 0 && number->get() <= 63)
            return dscp{dscp_number, static_cast<u32>(number->get())};
    } else if (const auto *text = node->as_string()) {
        if (const auto id = id_of(text->get(), dscp_names)) return dscp{dscp_class, *id};
    }
    in.wrong("dscp", "it is a number from 0 to 63, or a class: CS0 to CS7, BE, AF11 to AF43, EF");
    return std::nullopt;
}

struct tos {
    u32 id;
    u8 precedence;
};

std::optional<tos> read_tos(table_reader &in)
{
    const auto precedence = in.number("precedence", 0, 7);
    if (in.has("precedence") && !in.has("tos"))
        in.found().error(in.at("precedence"),
                         "precedence without tos; add one, tos = \"Normal-Service\" for none");
    const auto name = in.word("tos", tos_names);
    if (!name) return std::nullopt;
    return tos{tos_ids[*name], static_cast<u8>(precedence.value_or(0))};
}

void read_tag(table_reader &in, qos_match &m)
{
    if (const auto id = in.number("vlan_id", 0, 4095)) {
        m.flags |= 1U << match_vlan_id;
        m.vlan_id = static_cast<u16>(*id);
    }
    if (const auto prio = in.number("vlan_prio", 0, 7)) {
        m.flags |= 1U << match_vlan_prio;
        m.dot1p_prio = static_cast<u8>(*prio);
    }
}

void read_names(table_reader &in, qos_match &m)
{
    const char *const domain_right =
        "it goes into a script as it is: 1 to 255 letters, digits and . _ -, no dash first";
    if (const auto domain = in.text("domain", domain_right)) {
        m.flags |= 1U << match_domain;
        if (safe_domain(*domain) && domain->size() < sizeof m.domain)
            store(m.domain, *domain);
        else
            in.wrong("domain", domain_right);
    }
    const char *const url_right = "it goes into a script as it is: 1 to 255 letters, digits and"
                                  " . _ - / : % + , = @, no dash first";
    if (const auto url = in.text("url", url_right)) {
        m.flags |= 1U << match_url;
        if (safe_url(*url) && url->size() < sizeof m.url)
            store(m.url, *url);
        else
            in.wrong("url", url_right);
    }
}

void read_match(const toml::table &table, policy_rule &rule, diagnostics &found)
{
    table_reader in(table, "a match",
                    {"protocol", "sport", "dport", "tcp_flags", "src", "dst", "mac", "dscp", "tos",
                     "precedence", "length", "alg", "vlan_id", "vlan_prio", "domain", "url",
                     "schedule"},
                    found);
    qos_match &m = rule.match;
    read_protocol(in, m);
    read_addresses(in, m);
    if (const auto d = read_dscp(in)) {
        m.flags |= 1U << match_dscp;
        m.dscp_mode = d->mode;
        if (d->mode == dscp_class)
            m.dscp_value.class_id = d->value;
        else
            m.dscp_value.raw = static_cast<u8>(d->value);
    }
    if (const auto t = read_tos(in)) {
        m.flags |= 1U << match_tos;
        m.tos = t->id;
        m.precedence = t->precedence;
    }
    if (const auto r = read_range(in, "length", 0, 65535)) {
        m.flags |= 1U << match_length;
        m.pkt_len = r->first << 16 | r->last;
    }
    if (const auto alg = in.word("alg", alg_names)) {
        m.flags |= 1U << match_alg;
        m.alg = *alg;
    }
    read_tag(in, m);
    read_names(in, m);
    m.sched_index = static_cast<u8>(in.number("schedule", 1, 255).value_or(0));
    rule.match_at = places_of(table);
}

void read_mkvlan(table_reader &in, qos_target &t)
{
    const toml::table *table = in.table("mkvlan", "it is a table like { id = 100, prio = 5 }");
    if (table == nullptr) return;
    table_reader sub(*table, "mkvlan", {"id", "prio", "double"}, in.found());
    read_must(sub, {"id"}, "a number from 0 to 4095");
    t.flags |= 1U << target_mkvlan;
    t.vlan_id = static_cast<u16>(sub.number("id", 0, 4095).value_or(0));
    t.vlan_prio = static_cast<u8>(sub.number("prio", 0, 7).value_or(0));
    t.vlan_double = sub.flag("double").value_or(false) ? 1 : 0;
}

void read_tos_and_dscp(table_reader &in, qos_target &t)
{
    const auto tos_value = read_tos(in);
    const auto dscp_value = read_dscp(in);
    if (tos_value) {
        t.flags |= 1U << target_tos;
        t.kind = tos_value->id;
        t.value.raw = tos_value->precedence;
    }
    if (!dscp_value) return;
    // One pair of fields serves both targets.
    if (tos_value && (tos_value->id != 0 || dscp_value->mode != dscp_number ||
                      dscp_value->value != tos_value->precedence))
        in.found().error(in.at("dscp"), "tos and dscp in one target share their storage; make two"
                                        " rules of it");
    t.flags |= 1U << target_dscp;
    t.kind = dscp_value->mode;
    if (dscp_value->mode == dscp_class)
        t.value.class_id = dscp_value->value;
    else
        t.value.raw = static_cast<u8>(dscp_value->value);
}

void read_target(const toml::table &table, policy_rule &rule, diagnostics &found)
{
    table_reader in(table, "a target", {"mark", "tos", "precedence", "dscp", "mkvlan", "log"},
                    found);
    qos_target &t = rule.target;
    if (in.has("mark")) t.flags |= 1U << target_mark;
    t.mark = static_cast<u16>(in.number("mark", 0, 65535).value_or(0));
    read_tos_and_dscp(in, t);
    read_mkvlan(in, t);
    rule.target_at = places_of(table);
    if (in.flag("log").value_or(false)) {
        t.flags |= 1U << target_log;
        t.log = 1;
        found.warning(in.at("log"), "no command comes of log; it is kept and shown alone");
    }
    if (table.empty()) found.error(in.at(), "an empty target; give mark, tos, dscp, mkvlan or log");
}

policy_rule read_rule(const toml::table &table, diagnostics &found)
{
    table_reader in(table, "a rule", {"index", "match", "target"}, found);
    policy_rule rule;
    rule.at = in.at();
    if (!in.has("index")) in.missing("index", "a number from 0 to 255");
    const auto index = in.number("index", 0, 255);
    rule.indexed = index.has_value();
    rule.index = static_cast<u8>(index.value_or(0));
    if (const toml::table *match = in.table("match", "it is a table like { dscp = 46 }"))
        read_match(*match, rule, found);
    if (!in.has("target")) in.missing("target", "a table like { mark = 0x10 }");
    if (const toml::table *target = in.table("target", "it is a table like { mark = 0x10 }"))
        read_target(*target, rule, found);
    return rule;
}

// ---- Interfaces ---------------------------------------------------------------------------------

void read_automark(table_reader &in, policy_interface &iface, automark_value &out)
{
    const string right = "it is an array of eight marks, or { enable = true, marks = [...] }";
    const toml::node *node = in.get("automark");
    if (node == nullptr) return;
    const toml::array *marks = node->as_array();
    out.enable = 1;
    if (const toml::table *table = node->as_table()) {
        table_reader sub(*table, "automark", {"enable", "marks"}, in.found());
        read_must(sub, {"marks"}, "an array of eight marks");
        out.enable = sub.flag("enable").value_or(true) ? 1 : 0;
        marks = sub.array("marks", right);
    } else if (marks == nullptr) {
        in.wrong("automark", right);
    }
    if (marks == nullptr) return;
    if (marks->size() != std::size(out.mark)) {
        in.found().error(place(*marks), format("automark has %zu marks; it needs eight, 0 for none",
                                               marks->size()));
        return;
    }
    std::size_t i = 0;
    for (const toml::node &mark : *marks) {
        iface.automark_at.push_back(place(mark));
        out.mark[i++] = static_cast<u16>(in.number_in("automark", mark, 0, 65535).value_or(0));
    }
}

void read_classful(table_reader &in, policy_interface &iface)
{
    in.only(iface.root_type == R_HTB ? "an HTB interface" : "an HFSC interface",
            {"name", "root", "phy_tx", "phy_rx", "link_tx", "link_rx", "default", "default_tree",
             "automark", "class", "rule"});
    iface.default_tree = in.flag("default_tree").value_or(true);
    if (iface.default_tree)
        read_must(in, {"phy_tx", "link_tx"}, "a rate, since the default tree is made with it");
    class_root_param &root = iface.param.classful;
    if (!in.has("default") && !iface.default_tree)
        in.missing("default", "the handle of the class for what no rule picks");
    root.default_class = static_cast<u16>(in.handle("default", 0).value_or(3));
    iface.default_at = in.at("default");
    read_automark(in, iface, root.automark);
}

// The kernel's own, where TOS picks the band
constexpr u8 usual_priomap[16] = {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1};

void read_prio(table_reader &in, policy_interface &iface)
{
    in.only("a PRIO interface", {"name", "root", "phy_tx", "phy_rx", "link_tx", "link_rx", "bands",
                                 "priomap", "automark", "class", "rule"});
    prio_root_param &root = iface.param.prio;
    // A wrong number: whatever could be right, so that nothing is blamed on it
    root.bands = static_cast<u8>(in.number("bands", 2, 16).value_or(in.has("bands") ? 255 : 3));
    read_automark(in, iface, root.automark);
    std::copy_n(usual_priomap, std::size(usual_priomap), root.priomap);
    const toml::array *map = in.array("priomap", "it is an array of 16 bands");
    if (map == nullptr) {
        if (!in.has("priomap") && root.bands < 3)
            in.missing("priomap", "an array of 16 bands, since the kernel's own needs 3 bands");
        return;
    }
    if (map->size() != std::size(root.priomap)) {
        in.found().error(place(*map), format("priomap has %zu bands; it needs 16, one for each"
                                             " packet priority",
                                             map->size()));
        return;
    }
    std::size_t i = 0;
    for (const toml::node &band : *map)
        root.priomap[i++] =
            static_cast<u8>(in.number_in("priomap", band, 0, root.bands - 1U).value_or(0));
}

void read_pfifo_fast(table_reader &in, policy_interface &iface)
{
    in.only("a pfifo_fast interface",
            {"name", "root", "phy_tx", "phy_rx", "link_tx", "link_rx", "queue_len", "rule"});
    read_must(in, {"queue_len"}, "a number of packets");
    iface.param.pfifo_fast.queue_len = in.number("queue_len", 0, no_limit).value_or(0);
}

void read_name(table_reader &in, policy_interface &iface)
{
    if (!in.has("name")) in.missing("name", "the interface's name, like \"eth0\"");
    const auto name = in.text("name", "it is a text like \"eth0\"");
    if (!name) return;
    iface.name = *name;
    iface.name_at = in.at("name");
    if (!safe_name(*name))
        in.wrong("name",
                 "it goes into a script as it is: 1 to 15 letters, digits and . _ -, no dash"
                 " or dot first");
    else if (name->size() > 15)
        in.wrong("name", "the kernel takes at most 15 characters");
}

void read_speeds(table_reader &in, policy_interface &iface)
{
    const char *const keys[] = {"link_tx", "link_rx", "phy_tx", "phy_rx"};
    for (std::size_t i = 0; i < std::size(keys); ++i)
        iface.speeds[i] = in.rate(keys[i]).value_or(0);
    iface.link_at = in.at("link_tx");
    iface.phy_at = in.at("phy_tx");
}

policy_interface read_interface(const toml::table &table, diagnostics &found)
{
    table_reader in(table, "an interface", found);
    policy_interface iface;
    iface.at = in.at();
    read_name(in, iface);
    read_speeds(in, iface);
    if (!in.has("root")) in.missing("root", joined(root_names));
    const auto root = in.word("root", root_names);
    if (!root) return iface;  // what the rest should be is not known
    iface.root_type = *root;
    iface.known = true;
    if (iface.root_type == R_PRIO)
        read_prio(in, iface);
    else if (iface.classful())
        read_classful(in, iface);
    else
        read_pfifo_fast(in, iface);
    in.set_prefix("interface.");
    iface.classes.reserve(in.elements("class"));
    iface.rules.reserve(in.elements("rule"));
    if (iface.root_type != R_pfifo_fast)
        in.each_table("class", [&](const toml::table &one) {
            iface.classes.push_back(read_class(one, iface, found));
            iface.handles_known = iface.handles_known && iface.classes.back().handle != 0;
        });
    in.each_table("rule",
                  [&](const toml::table &one) { iface.rules.push_back(read_rule(one, found)); });
    return iface;
}

// ---- The file -----------------------------------------------------------------------------------

// Where a key has more parts than any policy's could have. toml++ takes a step deeper for each, and
// thousands would be more than a stack holds.
std::optional<position> key_of_many_parts(string_view text)
{
    constexpr int most = 16;
    int dots = 0;
    position at;
    const auto advance = [&](std::size_t i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte == '\n') at = {at.line + 1, 0};
        if ((byte & 0xc0) != 0x80) ++at.column;
    };
    string_view quote;  // what ends the text or comment that we are in; empty: outside
    for (std::size_t i = 0; i < text.size(); advance(i), ++i) {
        const string_view rest = text.substr(i);
        const char c = rest.front();
        if (!quote.empty()) {
            const bool ends = (c == quote.front() && rest.substr(0, quote.size()) == quote) ||
                              (quote.size() == 1 && c == '\n');  // an unclosed one, too
            const bool escape = c == '\\' && quote.front() == '"' && rest.size() > 1;
            for (std::size_t n = ends ? quote.size() - 1 : escape ? 1 : 0; n > 0; --n) advance(i++);
            if (ends) quote = {};
            continue;
        }
        if (c == '"' || c == '\'') {
            quote = c == '"' ? R"(""")" : "'''";
            if (rest.substr(0, 3) != quote) quote.remove_suffix(2);
            for (std::size_t n = quote.size() - 1; n > 0; --n) advance(i++);
            continue;
        }
        if (c == '#') quote = "\n";
        if (string_view("=,{}[]\n#").find(c) != string_view::npos) dots = 0;
        if (c == '.' && ++dots > most) return at;
    }
    return std::nullopt;
}

}  // namespace

void places::note(string_view key, position at)
{
    static constexpr string_view kept[] = {
        "burst", "cburst",   "handle", "parent", "rate",   "ceil",    "leaf",
        "ul",    "sc",       "ls",     "rt",     "mark",   "tos",     "dscp",
        "mac",   "schedule", "url",    "mkvlan", "domain", "vlan_id", "vlan_prio"};
    const auto *known = std::find(std::begin(kept), std::end(kept), key);
    if (known != std::end(kept)) all_.emplace_back(*known, at);
}

policy parse_policy(string_view text, diagnostics &found)
{
    policy p;
    if (const auto deep = key_of_many_parts(text)) {
        found.error(*deep, "a key of more than 16 parts; those of a policy have 3 at most");
        return p;
    }
    const toml::parse_result parsed = toml::parse(text);
    if (!parsed) {
        const toml::parse_error &e = parsed.error();
        found.error(place(e.source()), "this is no TOML: " + one_line(e.description()));
        return p;
    }
    table_reader in(parsed.table(), "a policy", {"interface", "schedule"}, found);
    in.each_table("schedule", [&](const toml::table &one) {
        p.schedules.push_back(read_schedule(one, found));
    });
    in.each_table("interface", [&](const toml::table &one) {
        p.interfaces.push_back(read_interface(one, found));
    });
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
