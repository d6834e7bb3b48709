// SPDX-License-Identifier: MIT
// What a policy file says is what the library's calls write, byte for byte. The calls are made
// here, without any of the tool's code, and the file is written beside them in one of the many
// spellings that mean the same.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <span>
#include <sstream>

#include "list_range.h"
#include "policy_read.h"
#include "render.h"
#include "start_script.h"
#include "tarnic_iptables.h"
#include "tarnic_qos.h"

namespace {

using std::string;
using tool::diagnostics;
using tool::kernel_kind;
using tool::policy;
using tool::render;

using strings = std::vector<string>;

__attribute__((format(printf, 1, 2))) string say(const char *pattern, ...)
{
    char text[1024];
    va_list args;
    va_start(args, pattern);
    std::vsnprintf(text, sizeof text, pattern, args);
    va_end(args);
    return text;
}

string read_file(const string &path)
{
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in) << path;
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

string joined(const strings &parts, const char *between)
{
    string all;
    for (const string &part : parts) all += (all.empty() ? "" : between) + part;
    return all;
}

// What was found, a line each
string shown(const diagnostics &found)
{
    string all;
    for (const tool::diagnostic &d : found.sorted())
        all += say("%u:%u: %s%s\n", d.at.line, d.at.column, d.warning ? "warning: " : "",
                   d.text.c_str());
    return all;
}

// The three scripts of an interface, by the library's own writers
using scripts = std::array<string, 3>;

template <typename Write>
string text_of(Write write)
{
    char *text = nullptr;
    std::size_t size = 0;
    FILE *out = ::open_memstream(&text, &size);
    write(out);
    (void)std::fclose(out);
    string all(text, size);
    std::free(text);
    return all;
}

scripts written_by_library(const string &name)
{
    qos_if *rec = mordel::root_qdisc_find_by_name(name.c_str());
    if (rec == nullptr) return {};
    return {text_of([&](FILE *out) { mordel::start2script(out, name.c_str(), rec); }),
            text_of([&](FILE *out) { mordel::stop2script(out, name.c_str(), rec); }),
            text_of([&](FILE *out) { mordel::rules2script(out, name.c_str(), &rec->rules); })};
}

void empty_library()
{
    for (const qos_if &rec : mordel::each<&qos_if::node>(qos_root))
        ASSERT_EQ(0, del_root_qdisc(string(rec.ifname).c_str()));
    (void)del_all_sched();
    ASSERT_NE(0U, list_empty(&qos_root));
}

enum class script { start, stop, rules };

// One interface's script of a rendering
string script_text(const tool::rendering &all, const string &name, script which)
{
    for (const tool::interface_texts &texts : all.interfaces) {
        if (texts.name != name) continue;
        if (which == script::stop) return texts.stop;
        return which == script::rules ? texts.rules : texts.start;
    }
    return "";
}

// A policy that must be taken, and one interface's script of it
string rendered(const string &text, const string &name = "eth0", script which = script::start,
                kernel_kind kernel = kernel_kind::vendor)
{
    diagnostics found;
    const policy p = tool::read_policy(text, kernel, found);
    EXPECT_FALSE(found.failed()) << shown(found) << text;
    if (found.failed()) return "";
    const tool::rendering all = render(p);
    EXPECT_EQ("", all.refused) << text;
    return script_text(all, name, which);
}

// ---- Random policies ----------------------------------------------------------------------------

// The same numbers with every library, unlike the standard distributions
class dice {
public:
    explicit dice(u32 seed) : engine_(seed) {}

    u32 below(u32 n) { return static_cast<u32>(engine_() % n); }
    bool chance(u32 percent) { return below(100) < percent; }
    u32 between(u32 least, u32 most)
    {
        return static_cast<u32>(least + engine_() % (u64{most} - least + 1));
    }
    // Both ends, numbers of every length, and such as larger units express
    u32 number(u32 least, u32 most)
    {
        const u32 round[] = {1000, 1024, 1000000, 1048576, 500, 512};
        switch (below(8)) {
        case 0:
            return least;
        case 1:
            return most;
        case 2:
        case 3: {
            const u32 unit = round[below(6)];
            const u64 value = u64{unit} * between(1, 4000);
            return value >= least && value <= most ? static_cast<u32>(value) : least;
        }
        case 4:
            return between(least, most);
        default:
            return between(
                least, static_cast<u32>(std::min<u64>(most, u64{least} + (u64{1} << below(32)))));
        }
    }
    template <typename List>
    const auto &pick(const List &list)
    {
        return list[below(static_cast<u32>(std::size(list)))];
    }
    template <typename List>
    void shuffle(List &list)
    {
        for (std::size_t i = list.size(); i > 1; --i)
            std::swap(list[i - 1], list[below(static_cast<u32>(i))]);
    }

private:
    std::mt19937 engine_;
};

constexpr u32 most = 0xffffffff;
constexpr u32 most_hfsc = 34359738;  // kbit/s, in 32 bits of bytes/s

string hex_digits(dice &d, u32 v) { return say(d.chance(50) ? "0x%x" : "0x%X", v); }
string spelt(dice &d, u32 v) { return d.chance(60) ? say("%u", v) : hex_digits(d, v); }

string any_case(dice &d, string word)
{
    const u32 how = d.below(4);
    for (char &c : word)
        if (how == 1 || (how == 3 && d.chance(50)))
            c = static_cast<char>(std::toupper(c));
        else if (how == 2)
            c = static_cast<char>(std::tolower(c));
    return word;
}

// A printable text without quotes and backslashes, as TOML has it
string in_quotes(dice &d, const string &text)
{
    if (d.chance(30)) return "'" + text + "'";
    if (d.chance(5)) return "\"\"\"" + text + "\"\"\"";
    string out = "\"";
    for (const char c : text)
        out += d.chance(2) ? say("\\u%04x", static_cast<unsigned>(c)) : string(1, c);
    return out + "\"";
}
string word(dice &d, const char *text) { return in_quotes(d, any_case(d, text)); }

// v / whole of a unit, where three decimals are enough for it
string with_unit(dice &d, u32 v, u32 whole, const char *unit)
{
    const u64 thousandths = u64{v} % whole * 1000 / whole;
    const u64 units = v / whole;
    if (thousandths == 0)
        return word(d, say("%llu%s", static_cast<unsigned long long>(units), unit).c_str());
    return word(d, say("%llu.%03llu%s", static_cast<unsigned long long>(units),
                       static_cast<unsigned long long>(thousandths), unit)
                       .c_str());
}
bool fits(u32 v, u32 whole) { return u64{v} % whole * 1000 % whole == 0; }

string spelt_rate(dice &d, u32 v)
{
    switch (d.below(5)) {
    case 0:
        return word(d, say("%ukbit", v).c_str());
    case 1:
        return word(d, say("%u%s", v, v == 0 ? "bit" : "000bit").c_str());
    case 2:
        return with_unit(d, v, 1000, "mbit");
    case 3:
        if (fits(v, 1000000)) return with_unit(d, v, 1000000, "gbit");
        return with_unit(d, v, 1000, "mbit");
    default:
        return spelt(d, v);
    }
}
string spelt_size(dice &d, u32 v)
{
    if (d.chance(25)) return word(d, say("%ub", v).c_str());
    if (d.chance(60) && fits(v, 1048576)) return with_unit(d, v, 1048576, "mb");
    if (d.chance(60) && fits(v, 1024)) return with_unit(d, v, 1024, "kb");
    return spelt(d, v);
}
string spelt_time(dice &d, u32 v)
{
    if (d.chance(30)) return word(d, say("%ums", v).c_str());
    if (d.chance(40)) return with_unit(d, v, 1000, "s");
    return spelt(d, v);
}

// A table of the file; its entries are those of arrays of tables.
struct table {
    string key;
    string kind;  // names it in the coverage
    std::vector<std::pair<string, string>> values;
    std::vector<table> tables;
    std::vector<table> entries;
};

class toml_writer {
public:
    toml_writer(dice &d, const table &root) : d_(d), end_(d.chance(10) ? "\r\n" : "\n")
    {
        body(root, "");
    }
    const string &text() const { return text_; }

private:
    void line(const string &text)
    {
        if (d_.chance(10)) text_ += end_;
        if (d_.chance(10)) text_ += "  ";
        text_ += text;
        if (d_.chance(10)) text_ += " # not [[this]] = \"1";
        text_ += end_;
    }
    string key(const string &name)
    {
        return d_.chance(5) ? "\"" + name + "\"" : d_.chance(5) ? "'" + name + "'" : name;
    }
    string equals() { return d_.chance(90) ? " = " : "="; }

    static strings groups(const table &t)
    {
        strings names;
        for (const table &e : t.entries)
            if (std::find(names.begin(), names.end(), e.key) == names.end()) names.push_back(e.key);
        return names;
    }

    string in_line(const table &t)
    {
        strings pairs;
        for (const auto &[name, value] : t.values) pairs.push_back(key(name) + equals() + value);
        for (const table &sub : t.tables) pairs.push_back(key(sub.key) + equals() + in_line(sub));
        for (const string &group : groups(t))
            pairs.push_back(key(group) + equals() + list(t, group));
        d_.shuffle(pairs);
        return "{ " + joined(pairs, ", ") + " }";
    }
    string list(const table &t, const string &group)
    {
        strings all;
        for (const table &e : t.entries)
            if (e.key == group) all.push_back(in_line(e));
        return "[" + end_ + joined(all, ("," + end_).c_str()) + (d_.chance(50) ? "," : "") + end_ +
               "]";
    }
    void dotted(strings &lines, const string &prefix, const table &t)
    {
        for (const auto &[name, value] : t.values)
            lines.push_back(prefix + key(name) + equals() + value);
        for (const table &sub : t.tables) dotted(lines, prefix + sub.key + ".", sub);
    }

    void body(const table &t, const string &path)
    {
        strings lines;
        std::vector<const table *> own;
        for (const auto &[name, value] : t.values) lines.push_back(key(name) + equals() + value);
        for (const table &sub : t.tables) {
            const u32 how = d_.below(3);
            if (how == 0) lines.push_back(key(sub.key) + equals() + in_line(sub));
            if (how == 1) dotted(lines, sub.key + ".", sub);
            if (how == 2) own.push_back(&sub);
        }
        strings rest = groups(t);
        d_.shuffle(rest);
        std::erase_if(rest, [&](const string &group) {
            if (!d_.chance(10)) return false;
            lines.push_back(key(group) + equals() + list(t, group));
            return true;
        });
        d_.shuffle(lines);
        for (const string &one : lines) line(one);
        for (const table *sub : own) {
            line("[" + path + sub->key + "]");
            body(*sub, path + sub->key + ".");
        }
        for (const string &group : rest)
            for (const table &e : t.entries) {
                if (e.key != group) continue;
                line("[[" + path + group + "]]");
                body(e, path + group + ".");
            }
    }

    dice &d_;
    string end_;
    string text_;
};

struct named {
    const char *name;
    u32 id;
};
constexpr named dscp_classes[] = {
    {"CS0", 0},   {"CS1", 1},   {"CS2", 2},   {"CS3", 3},   {"CS4", 4},   {"CS5", 5},
    {"CS6", 6},   {"CS7", 7},   {"BE", 8},    {"AF11", 9},  {"AF12", 10}, {"AF13", 11},
    {"AF21", 12}, {"AF22", 13}, {"AF23", 14}, {"AF31", 15}, {"AF32", 16}, {"AF33", 17},
    {"AF41", 18}, {"AF42", 19}, {"AF43", 20}, {"EF", 21}};
constexpr named tos_words[] = {{"Minimize-Delay", 16},
                               {"Maximize-Throughput", 8},
                               {"Maximize-Reliability", 4},
                               {"Minimize-Cost", 2},
                               {"Normal-Service", 0}};
constexpr named protocol_words[] = {{"tcp", 0}, {"udp", 1}, {"icmp", 2}, {"both", 3}, {"all", 4}};
constexpr named alg_words[] = {{"sip", 0}, {"Q.931", 1}, {"ftp", 2}};
constexpr named flag_words[] = {{"SYN", 0}, {"ACK", 1}, {"FIN", 2},
                                {"RST", 3}, {"URG", 4}, {"PSH", 5}};
constexpr named day_words[] = {{"Sun", 0}, {"Mon", 1}, {"Tue", 2}, {"Wed", 3},
                               {"Thu", 4}, {"Fri", 5}, {"Sat", 6}};
constexpr named root_words[] = {
    {"pfifo_fast", R_pfifo_fast}, {"htb", R_HTB}, {"hfsc", R_HFSC}, {"prio", R_PRIO}};
constexpr named leaf_words[] = {{"pfifo", L_pfifo}, {"sfq", L_SFQ}, {"red", L_RED}, {"tbf", L_TBF}};
static_assert(std::size(leaf_words) == mordel::leaf_types, "a word for each L_…");
static_assert(std::size(root_words) == mordel::root_types, "a word for each R_…");

constexpr char alphanumerics[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

std::map<string, unsigned> seen;  // how often each option, and each word of a list, was written

void put(table &t, const char *key, const string &literal)
{
    t.values.emplace_back(key, literal);
    ++seen[t.kind + "." + key];
}

table sub(table &t, const char *key, const char *kind)
{
    ++seen[t.kind + "." + key];
    table out;
    out.key = key;
    out.kind = kind;
    return out;
}

// Makes the calls of one policy and writes its file beside them. The library holds the result.
class generator {
public:
    explicit generator(u32 seed) : d_(seed)
    {
        root_.kind = "policy";
        const u32 schedules = d_.below(4);
        while (schedules_.size() < schedules) add_schedule();
        const u32 interfaces = d_.between(1, 3);
        while (names_.size() < interfaces) add_interface();
        // The order of interfaces does not matter, that of schedules neither.
        if (d_.chance(50)) std::reverse(root_.entries.begin(), root_.entries.end());
        toml_ = toml_writer(d_, root_).text();
        std::sort(warnings_.begin(), warnings_.end());
    }

    const string &toml() const { return toml_; }
    const std::set<string> &names() const { return names_; }
    const strings &warnings() const { return warnings_; }  // sorted

private:
    struct class_plan {
        u32 handle;
        u32 parent;
        bool built_in;
        bool inner = false;
        u32 limit = 0;  // HTB's ceil, HFSC's upper limit
    };

    string words(const named *list, std::size_t size, u32 bits, const char *kind)
    {
        strings all;
        for (std::size_t i = 0; i < size; ++i) {
            if ((bits >> i & 1) == 0) continue;
            ++seen[say("%s=%s", kind, list[i].name)];
            all.push_back(word(d_, list[i].name));
        }
        d_.shuffle(all);
        return "[" + joined(all, ", ") + "]";
    }

    string name_of_class()
    {
        string name;
        const u32 length = d_.chance(30) ? 31 : d_.between(1, 31);
        while (name.size() < length) {
            const char c = static_cast<char>(d_.between(' ', '~'));
            if (c != '"' && c != '\'' && c != '\\') name += c;
        }
        return name;
    }

    string of(const char *alphabet, u32 longest)
    {
        string text(1, d_.pick(string(alphanumerics)));
        const u32 length = d_.chance(30) ? longest : d_.between(1, longest);
        const string all = string(alphanumerics) + alphabet;
        while (text.size() < length) text += d_.pick(all);
        return text;
    }

    void add_schedule()
    {
        qos_sched s{};
        table t = sub(root_, "schedule", "schedule");
        do s.index = static_cast<u8>(d_.number(1, 255));
        while (schedules_.contains(s.index));
        schedules_.insert(s.index);
        put(t, "index", spelt(d_, s.index));
        if (d_.chance(60)) {
            s.days = static_cast<u8>(d_.below(128));
            put(t, "days", words(day_words, std::size(day_words), s.days, "day"));
        }
        if (d_.chance(30)) {
            s.all_day = 1;
            put(t, "all_day", "true");
        } else {
            if (d_.chance(20)) put(t, "all_day", "false");
            s.start_hour = static_cast<u8>(d_.number(0, 23));
            s.stop_hour = static_cast<u8>(d_.number(0, 23));
            s.start_min = static_cast<u8>(d_.number(0, 59));
            s.stop_min = static_cast<u8>(d_.number(0, 59));
            put(t, "start", in_quotes(d_, say("%d:%02d", s.start_hour, s.start_min)));
            put(t, "stop", in_quotes(d_, say("%d:%02d", s.stop_hour, s.stop_min)));
            if (s.start_min != 0 || s.stop_hour != 0 || s.stop_min != 0)
                warnings_.emplace_back("the hour of start alone");
        }
        EXPECT_EQ(1, add_sched(&s));
        root_.entries.push_back(t);
    }

    string new_name()
    {
        for (;;) {
            const string name = d_.chance(20) ? "_" + of("._-", 14) : of("._-", 15);
            if (names_.insert(name).second) return name;
        }
    }

    void add_interface()
    {
        name_ = new_name();
        type_ = d_.chance(10) ? u32{R_pfifo_fast} : d_.between(R_HTB, R_PRIO);
        classes_.clear();
        table t = sub(root_, "interface", "interface");
        put(t, "name", in_quotes(d_, name_));
        ++seen[string("root=") + root_words[type_].name];
        put(t, "root", word(d_, root_words[type_].name));
        if (type_ == R_pfifo_fast) add_pfifo_fast(t);
        if (type_ == R_PRIO) add_prio(t);
        if (type_ == R_HTB || type_ == R_HFSC) add_classful(t);
        add_rules(t);
        root_.entries.push_back(t);
    }

    std::array<u32, 4> speeds(table &t, bool must, u32 fastest = most)
    {
        std::array<u32, 4> all{};
        all[2] = d_.number(must ? 1 : 0, fastest);
        all[0] = d_.number(must ? 1 : 0, all[2]);
        all[1] = d_.number(0, most);
        all[3] = d_.number(0, most);
        const char *const keys[] = {"link_tx", "link_rx", "phy_tx", "phy_rx"};
        for (u32 i = 0; i < 4; ++i) {
            if ((must && i % 2 == 0) || d_.chance(50))
                put(t, keys[i], spelt_rate(d_, all[i]));
            else
                all[i] = 0;
        }
        return all;
    }

    void add_pfifo_fast(table &t)
    {
        pfifo_fast_root_param root{};
        root.queue_len = d_.number(0, most);
        put(t, "queue_len", spelt(d_, root.queue_len));
        EXPECT_EQ(0, add_root_qdisc(speeds(t, false).data(), name_.c_str(), R_pfifo_fast, &root));
    }

    // The leaf classes alone, and for automark 0
    u32 some_leaf(bool or_none)
    {
        strings all;
        std::vector<u32> leaves;
        for (const class_plan &c : classes_)
            if (!c.inner) leaves.push_back(c.handle);
        if (leaves.empty() || (or_none && d_.chance(10))) return 0;
        return d_.pick(leaves);
    }

    automark_value automark(table &t)
    {
        automark_value out{};
        const u32 how = d_.below(4);
        if (how == 0) return out;
        out.enable = 1;
        strings marks;
        for (u16 &mark : out.mark) {
            mark = static_cast<u16>(some_leaf(true));
            marks.push_back(spelt(d_, mark));
        }
        const string list = "[ " + joined(marks, ", ") + (d_.chance(30) ? ", ]" : " ]");
        if (how == 1) {
            put(t, "automark", list);
            return out;
        }
        table own = sub(t, "automark", "automark");
        put(own, "marks", list);
        if (how == 2) {
            out.enable = static_cast<u8>(d_.below(2));
            put(own, "enable", out.enable != 0 ? "true" : "false");
        }
        t.tables.push_back(own);
        return out;
    }

    void add_prio(table &t)
    {
        constexpr u8 kernel_map[16] = {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1};
        prio_root_param root{};
        root.bands = 3;
        if (d_.chance(70)) {
            root.bands = static_cast<u8>(d_.number(2, 16));
            put(t, "bands", spelt(d_, root.bands));
        }
        std::copy_n(kernel_map, 16, root.priomap);
        if (root.bands < 3 || d_.chance(50)) {
            strings map;
            for (u8 &band : root.priomap) {
                band = static_cast<u8>(d_.below(root.bands));
                map.push_back(spelt(d_, band));
            }
            put(t, "priomap", "[" + joined(map, ",") + "]");
        }
        for (u32 i = 1; i <= root.bands; ++i) classes_.push_back({i, 0, true});
        root.automark = automark(t);
        EXPECT_EQ(0, add_root_qdisc(speeds(t, false).data(), name_.c_str(), R_PRIO, &root));
        add_classes(t);
    }

    u32 new_handle()
    {
        for (;;) {
            const u32 handle = d_.chance(20) ? 0xfff : d_.number(1, 0xfff);
            if (std::none_of(classes_.begin(), classes_.end(),
                             [&](const class_plan &c) { return c.handle == handle; }))
                return handle;
        }
    }

    void add_classful(table &t)
    {
        const bool built_in = d_.chance(70);
        if (!built_in || d_.chance(20)) put(t, "default_tree", built_in ? "true" : "false");
        const std::array<u32, 4> rates =
            speeds(t, true, built_in && type_ == R_HFSC ? most_hfsc : most);
        if (built_in)
            classes_ = {{1, 0, true, true, rates[2]},
                        {2, 1, true, false, rates[2]},
                        {3, 1, true, false, rates[0]}};
        for (u32 left = d_.below(6); left > 0; --left) {
            class_plan c{new_handle(), 0, false};
            if (c.handle != 1 && !classes_.empty() && d_.chance(85))
                c.parent = d_.pick(classes_).handle;
            for (class_plan &above : classes_) above.inner |= above.handle == c.parent;
            classes_.push_back(c);
        }
        class_root_param root{};
        root.default_class = static_cast<u16>(some_leaf(true));
        const bool third = built_in && !classes_[2].inner;
        if (third && d_.chance(40))
            root.default_class = 3;
        else
            put(t, "default", spelt(d_, root.default_class));
        if (type_ == R_HFSC && root.default_class == 0)
            warnings_.emplace_back("without a default class");
        root.automark = automark(t);
        EXPECT_EQ(0, add_root_qdisc(rates.data(), name_.c_str(), type_, &root));
        if (!built_in) { EXPECT_EQ(0, del_class(name_.c_str(), 1)); }
        add_classes(t);
    }

    void add_classes(table &t)
    {
        for (class_plan &c : classes_) {
            if (c.built_in && d_.chance(50)) continue;
            table entry = sub(t, "class", "class");
            put(entry, "handle", spelt(d_, c.handle));
            string name;
            if (d_.chance(60)) put(entry, "name", in_quotes(d_, name = name_of_class()));
            if (!c.built_in) {
                if (c.parent != (c.handle == 1 ? 0U : 1U) || d_.chance(30))
                    put(entry, "parent", spelt(d_, c.parent));
                if (type_ == R_HTB) add_htb(entry, c, name);
                if (type_ == R_HFSC) add_hfsc(entry, c, name);
            }
            if (!c.inner && d_.chance(70)) add_leaf(entry, c.handle);
            t.entries.push_back(entry);
        }
    }

    u32 limit_above(const class_plan &c) const
    {
        for (const class_plan &above : classes_)
            if (above.handle == c.parent) return above.limit;
        return 0;
    }

    // Bytes that a rate carries in as long as a burst may take
    static u32 sent(u32 kbit)
    {
        return static_cast<u32>(std::min<u64>(most, u64{kbit} * 125 * 274));
    }

    void add_htb(table &t, class_plan &c, const string &name)
    {
        const u32 above = limit_above(c);
        htb_class_param p{};
        p.rate = d_.number(1, above == 0 ? most : above);
        p.ceil = p.rate;
        put(t, "rate", spelt_rate(d_, p.rate));
        if (d_.chance(60)) {
            p.ceil = d_.number(p.rate, above == 0 ? most : above);
            put(t, "ceil", spelt_rate(d_, p.ceil));
        }
        if (d_.chance(50)) put(t, "prio", spelt(d_, p.prio = d_.number(0, 7)));
        if (d_.chance(50)) put(t, "burst", spelt_size(d_, p.burst = d_.number(0, sent(p.rate))));
        if (d_.chance(50)) put(t, "cburst", spelt_size(d_, p.cburst = d_.number(0, sent(p.ceil))));
        c.limit = p.ceil;
        EXPECT_EQ(0, add_class(name_.c_str(), c.parent, c.handle, &p, name.c_str()));
    }

    hfsc_curve curve(table &t, const char *key, u32 most_rate)
    {
        hfsc_curve out{};
        if (d_.chance(50)) return out;
        out.rate = d_.number(0, most_rate);
        if (d_.chance(40)) {
            put(t, key, spelt_rate(d_, out.rate));
            return out;
        }
        table own = sub(t, key, "curve");
        put(own, "rate", spelt_rate(d_, out.rate));
        if (d_.chance(60)) put(own, "umax", spelt_size(d_, out.umax = d_.number(0, most)));
        if (d_.chance(60)) put(own, "dmax", spelt_time(d_, out.dmax = d_.number(0, most)));
        t.tables.push_back(own);
        if (out.umax > 4294 && out.dmax != 0 &&
            std::ceil(out.umax * 1e3 / out.dmax) <= out.rate * 125.0)
            warnings_.emplace_back("miscounts");
        return out;
    }

    void add_hfsc(table &t, class_plan &c, const string &name)
    {
        const u32 above = limit_above(c);
        const u32 limit = above == 0 ? most_hfsc : std::min(above, most_hfsc);
        hfsc_class_param p{};
        p.ul = curve(t, "ul", most_hfsc);
        p.sc = curve(t, "sc", limit);
        p.ls = curve(t, "ls", most_hfsc);
        p.rt = curve(t, "rt", limit);
        c.limit = p.ul.rate;
        // Of these the first is written, and of an inner class no rt.
        std::vector<u32> given;
        for (const hfsc_curve *one : {&p.sc, &p.ls, &p.rt})
            if (one->rate != 0) given.push_back(one->rate);
        for (std::size_t i = 1; i < given.size(); ++i) warnings_.emplace_back("is not written");
        if (c.inner && p.rt.rate != 0 && given.size() == 1)
            warnings_.emplace_back("is not written");
        EXPECT_EQ(0, add_class(name_.c_str(), c.parent, c.handle, &p, name.c_str()));
    }

    // Whether tc finds a weight for it, and the kernel has room for that.
    static bool is_taken(const red_leaf_param &p)
    {
        const double room = p.burst + 1.0 - static_cast<double>(p.min) / p.avpkt;
        const int max_bits = static_cast<int>(std::bit_width(p.max));
        for (int n = 1; n + max_bits < 32; ++n) {
            const double passed = 1 - std::pow(1 - std::ldexp(1.0, -n), p.burst);
            if (room <= std::ldexp(passed, n)) return true;
        }
        return false;
    }

    void add_red(table &t, red_leaf_param &p)
    {
        do {
            p.min = d_.number(2, 1000000);
            p.max = d_.number(p.min + 1, p.min + 10000000);
            p.limit = d_.number(p.max, most);
            p.avpkt = d_.number(1, p.min / 2);
            const u32 least = p.min / p.avpkt + (p.min % p.avpkt == 0 ? 0 : 1);
            p.burst = d_.number(least, least + 1000);
        } while (!is_taken(p));
        put(t, "min", spelt_size(d_, p.min));
        put(t, "max", spelt_size(d_, p.max));
        put(t, "limit", spelt_size(d_, p.limit));
        put(t, "avpkt", spelt_size(d_, p.avpkt));
        put(t, "burst", spelt(d_, p.burst));
    }

    void add_leaf(table &entry, u32 handle)
    {
        leaf_qdisc leaf{};
        leaf.type = d_.below(mordel::leaf_types);
        const char *type = leaf_words[leaf.type].name;
        table t = sub(entry, "leaf", type);
        put(t, "type", word(d_, type));
        if (leaf.type == L_pfifo && d_.chance(70))
            put(t, "limit", spelt(d_, leaf.param.pfifo.limit = d_.number(0, most)));
        if (leaf.type == L_SFQ && d_.chance(80)) {
            leaf.param.sfq.perturb = static_cast<u8>(d_.number(0, 255));
            put(t, "perturb", spelt(d_, leaf.param.sfq.perturb));
        }
        if (leaf.type == L_RED) add_red(t, leaf.param.red);
        if (leaf.type == L_TBF) {
            tbf_leaf_param &p = leaf.param.tbf;
            put(t, "rate", spelt_rate(d_, p.rate = d_.number(1, 30000000)));
            put(t, "burst",
                spelt_size(d_, p.burst = d_.number(1514, std::min(sent(p.rate), 1000000000U))));
            const double longest = (4294967295.0 - p.burst) / (p.rate * 0.125);
            constexpr u32 most_ms = 4294967;  // tc counts microseconds in 32 bits
            const u32 latest = longest < most_ms ? static_cast<u32>(longest) : most_ms;
            put(t, "latency", spelt_time(d_, p.latency = d_.number(1, std::max(latest, 1U))));
        }
        entry.tables.push_back(t);
        EXPECT_EQ(0, add_leaf_qdisc(name_.c_str(), handle, &leaf));
    }

    void add_rules(table &t)
    {
        std::set<u32> indexes;
        for (u32 left = d_.below(8); left > 0; --left) {
            const u32 index = d_.number(0, 255);
            if (!indexes.insert(index).second) continue;
            table rule = sub(t, "rule", "rule");
            put(rule, "index", spelt(d_, index));
            qos_match match{};
            qos_target target{};
            if (d_.chance(90)) add_match(rule, match);
            add_target(rule, target);
            t.entries.push_back(rule);
            EXPECT_EQ(1, add_qos_rule(name_.c_str(), static_cast<u8>(index), &match, &target));
        }
    }

    // A number, or two
    string range(u32 least, u32 last, u32 &from, u32 &to)
    {
        from = d_.number(least, last);
        to = d_.chance(40) ? from : d_.number(from, last);
        if (from == to && d_.chance(70)) return spelt(d_, from);
        return in_quotes(d_, say("%u:%u", from, to));
    }

    static string dotted(u32 ip)
    {
        return say("%u.%u.%u.%u", ip >> 24, ip >> 16 & 255, ip >> 8 & 255, ip & 255);
    }

    string addresses(u32 &from, u32 &to)
    {
        const u32 how = d_.below(3);
        from = to = d_.number(1, most);
        if (how == 0) return in_quotes(d_, dotted(from));
        if (how == 1) {
            to = d_.number(from, most);
            return in_quotes(d_, dotted(from) + "-" + dotted(to));
        }
        const u32 bits = d_.between(1, 32);
        const u32 hosts = static_cast<u32>((u64{1} << (32 - bits)) - 1);
        const u32 ip = from | 0x80000000;  // else a wide one would begin at 0.0.0.0
        from = ip & ~hosts;
        to = ip | hosts;
        return in_quotes(d_, dotted(d_.chance(50) ? from : ip) + say("/%u", bits));
    }

    struct dscp {
        bool by_class;
        u32 value;
    };
    dscp add_dscp(table &t)
    {
        if (d_.chance(40)) {
            const u32 number = d_.number(0, 63);
            put(t, "dscp", spelt(d_, number));
            return {false, number};
        }
        const named &one = d_.pick(dscp_classes);
        ++seen[string("dscp=") + one.name];
        put(t, "dscp", word(d_, one.name));
        return {true, one.id};
    }

    void add_protocol(table &t, qos_match &m)
    {
        const named &protocol = d_.pick(protocol_words);
        m.flags |= 1 << 8;
        m.protocol = protocol.id;
        ++seen[string("protocol=") + protocol.name];
        put(t, "protocol", word(d_, protocol.name));
        if (protocol.id == 2 || protocol.id == 4) return;
        u32 from = 0;
        u32 to = 0;
        if (d_.chance(50)) {
            put(t, "sport", range(1, 65535, from, to));
            m.sport_start = static_cast<u16>(from);
            m.sport_end = static_cast<u16>(to);
        }
        if (d_.chance(50)) {
            put(t, "dport", range(1, 65535, from, to));
            m.dport_start = static_cast<u16>(from);
            m.dport_end = static_cast<u16>(to);
        }
        if (protocol.id == 1 || d_.chance(40)) return;
        m.tcp_flag_comp = static_cast<u8>(d_.between(1, 63));
        m.tcp_flag_mask = static_cast<u8>(m.tcp_flag_comp | d_.below(64));
        table flags = sub(t, "tcp_flags", "tcp_flags");
        put(flags, "mask", words(flag_words, std::size(flag_words), m.tcp_flag_mask, "flag"));
        put(flags, "set", words(flag_words, std::size(flag_words), m.tcp_flag_comp, "flag"));
        t.tables.push_back(flags);
    }

    void add_hosts(table &t, qos_match &m)
    {
        if (d_.chance(20)) {
            m.flags |= 1 << 2;
            for (int i = 0; i < 17; ++i)
                m.src_mac[i] = i % 3 == 2 ? ':' : d_.pick(string("0123456789abcdefABCDEF"));
            put(t, "mac", in_quotes(d_, m.src_mac));
        }
        if (d_.chance(25)) {
            m.flags |= 1 << 3;
            put(t, "src", addresses(m.src_ip_start, m.src_ip_end));
        }
        if (d_.chance(25)) {
            m.flags |= 1 << 3;
            put(t, "dst", addresses(m.dst_ip_start, m.dst_ip_end));
        }
        if (d_.chance(20)) {
            m.flags |= 1 << 9;
            const string domain = of("._-", 255);
            domain.copy(m.domain, sizeof m.domain - 1);
            put(t, "domain", in_quotes(d_, domain));
        }
        if (d_.chance(20)) {
            m.flags |= 1 << 10;
            const string url = of("._-/:%+,=@", 255);
            url.copy(m.url, sizeof m.url - 1);
            put(t, "url", in_quotes(d_, url));
        }
    }

    void add_packet(table &t, qos_match &m)
    {
        if (d_.chance(30)) {
            m.flags |= 1 << 4;
            const dscp value = add_dscp(t);
            m.dscp_mode = value.by_class ? 1 : 0;
            if (value.by_class)
                m.dscp_value.class_id = value.value;
            else
                m.dscp_value.raw = static_cast<u8>(value.value);
        }
        if (d_.chance(25)) {
            m.flags |= 1 << 5;
            m.tos = add_tos(t);
            if (d_.chance(60)) {
                m.precedence = static_cast<u8>(d_.number(0, 7));
                put(t, "precedence", spelt(d_, m.precedence));
            }
        }
        if (d_.chance(20)) {
            m.flags |= 1 << 6;
            const named &alg = d_.pick(alg_words);
            m.alg = alg.id;
            ++seen[string("alg=") + alg.name];
            put(t, "alg", word(d_, alg.name));
        }
        if (d_.chance(20)) {
            u32 from = 0;
            u32 to = 0;
            m.flags |= 1 << 7;
            put(t, "length", range(0, 65535, from, to));
            m.pkt_len = from << 16 | to;
        }
        // The script says --vlan-id for the priority's bit and --vlan-prio for the id's.
        if (d_.chance(20)) {
            m.flags |= 1 << 0;
            m.vlan_id = static_cast<u16>(d_.number(0, 4095));
            put(t, "vlan_id", spelt(d_, m.vlan_id));
        }
        if (d_.chance(20)) {
            m.flags |= 1 << 1;
            m.dot1p_prio = static_cast<u8>(d_.number(0, 7));
            put(t, "vlan_prio", spelt(d_, m.dot1p_prio));
        }
    }

    void add_match(table &rule, qos_match &m)
    {
        table t = sub(rule, "match", "match");
        if (d_.chance(40)) add_protocol(t, m);
        add_hosts(t, m);
        add_packet(t, m);
        if (!schedules_.empty() && d_.chance(30)) {
            const std::vector<u8> all(schedules_.begin(), schedules_.end());
            m.sched_index = d_.pick(all);
            put(t, "schedule", spelt(d_, m.sched_index));
        }
        rule.tables.push_back(t);
    }

    u32 add_tos(table &t)
    {
        const named &tos = d_.pick(tos_words);
        ++seen[string("tos=") + tos.name];
        put(t, "tos", word(d_, tos.name));
        return tos.id;
    }

    // Both targets keep their values in the same place: only one pair of them is for both.
    void add_shared(table &t, qos_target &out)
    {
        const u32 how = d_.below(5);
        if (how == 0) {
            out.flags |= 1 << 1 | 1 << 2;
            out.value.raw = static_cast<u8>(d_.number(0, 7));
            put(t, "tos", word(d_, "Normal-Service"));
            put(t, "precedence", spelt(d_, out.value.raw));
            put(t, "dscp", spelt(d_, out.value.raw));
        }
        if (how == 1) {
            out.flags |= 1 << 1;
            out.kind = add_tos(t);
            if (d_.chance(60)) {
                out.value.raw = static_cast<u8>(d_.number(0, 7));
                put(t, "precedence", spelt(d_, out.value.raw));
            }
        }
        if (how == 2) {
            out.flags |= 1 << 2;
            const dscp value = add_dscp(t);
            out.kind = value.by_class ? 1 : 0;
            if (value.by_class)
                out.value.class_id = value.value;
            else
                out.value.raw = static_cast<u8>(value.value);
        }
    }

    void add_target(table &rule, qos_target &out)
    {
        table t = sub(rule, "target", "target");
        const u32 leaf = some_leaf(false);
        if (leaf != 0 && d_.chance(70)) {
            out.flags |= 1 << 0;
            out.mark = static_cast<u16>(leaf);
            put(t, "mark", spelt(d_, leaf));
        }
        add_shared(t, out);
        if (d_.chance(20)) {
            out.flags |= 1 << 3;
            table tag = sub(t, "mkvlan", "mkvlan");
            put(tag, "id", spelt(d_, out.vlan_id = static_cast<u16>(d_.number(0, 4095))));
            if (d_.chance(60))
                put(tag, "prio", spelt(d_, out.vlan_prio = static_cast<u8>(d_.number(0, 7))));
            if (d_.chance(60)) {
                out.vlan_double = static_cast<u8>(d_.below(2));
                put(tag, "double", out.vlan_double != 0 ? "true" : "false");
            }
            t.tables.push_back(tag);
        }
        if (out.flags == 0 || d_.chance(15)) {
            const bool log = d_.chance(80);
            put(t, "log", log ? "true" : "false");
            out.log = log ? 1 : 0;
            if (log) out.flags |= 1 << 4;
            if (log) warnings_.emplace_back("no command comes of log");
        }
        rule.tables.push_back(t);
    }

    dice d_;
    table root_;
    string toml_;
    std::set<u8> schedules_;
    std::set<string> names_;
    strings warnings_;
    string name_;   // of the interface that is being made,
    u32 type_ = 0;  // and its root
    std::vector<class_plan> classes_;
};

// The keys of every kind of table
constexpr std::pair<const char *, const char *> keys_of[] = {
    {"policy", "interface schedule"},
    {"schedule", "index days all_day start stop"},
    {"interface", "name root phy_tx phy_rx link_tx link_rx default default_tree bands priomap"
                  " queue_len automark class rule"},
    {"automark", "enable marks"},
    {"class", "handle parent name rate ceil prio burst cburst ul sc ls rt leaf"},
    {"curve", "rate umax dmax"},
    {"pfifo", "type limit"},
    {"sfq", "type perturb"},
    {"red", "type min max limit avpkt burst"},
    {"tbf", "type rate burst latency"},
    {"rule", "index match target"},
    {"match", "protocol sport dport tcp_flags src dst mac dscp tos precedence length alg vlan_id"
              " vlan_prio domain url schedule"},
    {"tcp_flags", "mask set"},
    {"target", "mark tos precedence dscp mkvlan log"},
    {"mkvlan", "id prio double"}};

// Each word of each list is to be written as well.
strings all_options()
{
    strings all;
    for (const auto &[kind, keys] : keys_of) {
        std::istringstream in(keys);
        for (string key; in >> key;) all.push_back(string(kind) + "." + key);
    }
    const auto add = [&](const char *kind, const auto &list) {
        for (const named &one : list) all.push_back(say("%s=%s", kind, one.name));
    };
    add("root", root_words);
    add("dscp", dscp_classes);
    add("tos", tos_words);
    add("protocol", protocol_words);
    add("alg", alg_words);
    add("flag", flag_words);
    add("day", day_words);
    return all;
}

void expect_same(u32 seed)
{
    const generator made(seed);
    SCOPED_TRACE(say("seed %u\n", seed) + made.toml());
    std::map<string, scripts> by_calls;
    for (const string &name : made.names()) by_calls[name] = written_by_library(name);
    empty_library();

    diagnostics found;
    const policy p = tool::read_policy(made.toml(), kernel_kind::vendor, found);
    strings warnings = made.warnings();
    for (const tool::diagnostic &d : found.all()) {
        const auto known = std::find_if(warnings.begin(), warnings.end(), [&](const string &w) {
            return d.warning && d.text.find(w) != string::npos;
        });
        if (known == warnings.end())
            ADD_FAILURE() << shown(found);
        else
            warnings.erase(known);
    }
    EXPECT_EQ(strings{}, warnings) << "warnings that did not come";
    if (found.failed()) return;

    const tool::rendering all = render(p);
    EXPECT_EQ("", all.refused);
    EXPECT_EQ(made.names().size(), p.interfaces.size());
    EXPECT_EQ(made.names().size(), all.interfaces.size());
    EXPECT_NE(0U, list_empty(&qos_root));
    for (const auto &[name, expected] : by_calls) {
        EXPECT_FALSE(expected[0].empty());
        EXPECT_EQ(expected[0], script_text(all, name, script::start));
        EXPECT_EQ("", tool::parse_start_script(expected[0], name).error);
        EXPECT_EQ(expected[1], script_text(all, name, script::stop));
        EXPECT_EQ(expected[2], script_text(all, name, script::rules));
    }
}

TEST(Render, IsWhatTheCallsWrite)
{
    seen.clear();
    for (u32 seed = 1; seed <= 1000; ++seed) {
        expect_same(seed);
        ASSERT_FALSE(HasFailure());  // one is enough to read
        ASSERT_NE(0U, list_empty(&qos_root));
    }
    const strings known = all_options();
    for (const string &option : known) EXPECT_LE(20U, seen[option]) << option;
    for (const auto &[option, count] : seen)
        EXPECT_NE(known.end(), std::find(known.begin(), known.end(), option)) << option;
}

// ---- Option by option ---------------------------------------------------------------------------

strings lines_of(const string &text)
{
    strings all;
    std::istringstream in(text);
    for (string line; std::getline(in, line);) all.push_back(line);
    return all;
}

// The lines of one text that another has not
strings new_lines(const string &before, const string &after)
{
    const strings old = lines_of(before);
    std::multiset<string> known(old.begin(), old.end());
    strings all;
    for (const string &line : lines_of(after)) {
        const auto at = known.find(line);
        if (at == known.end())
            all.push_back(line);
        else
            known.erase(at);
    }
    return all;
}

struct option_row {
    string added;      // to the end of a policy
    strings expected;  // the lines that come of it
};

void expect_lines(const string &base, const std::vector<option_row> &rows)
{
    const string before = rendered(base);
    for (const option_row &row : rows) {
        SCOPED_TRACE(row.added);
        EXPECT_EQ(row.expected, new_lines(before, rendered(base + row.added)));
    }
}

const char *const htb =
    "[[interface]]\nname = 'eth0'\nroot = 'htb'\nphy_tx = 1000\nlink_tx = 500\n";
const char *const hfsc =
    "[[interface]]\nname = 'eth0'\nroot = 'hfsc'\nphy_tx = 1000\nlink_tx = 500\n";
const char *const prio = "[[interface]]\nname = 'eth0'\nroot = 'prio'\n";
const char *const pfifo_leaf = "tc qdisc add dev eth0 parent 1:0x10  handle 0x100: pfifo ";
const char *const filter_10 =
    "tc filter add dev eth0 parent 1:0 protocol ip prio 50 handle 0x10 fw classid 1:0x10";

strings automarks(const std::array<u32, 8> &marks)
{
    strings all;
    for (u32 i = 0; i < 8; ++i)
        all.push_back(say("iptables -t mangle -A QOS_eth0_AUTO -m connmark --mark %u -j MARK"
                          " --set-mark 0x%x 2>/dev/null",
                          (i + 1) * 100, marks[i]));
    return all;
}

TEST(Render, WritesWhatAnHtbInterfaceSays)
{
    expect_lines(htb, {{"default = 2", {"tc qdisc add dev eth0 handle 1:0 root htb default 0x2"}},
                       {"default = 0", {"tc qdisc add dev eth0 handle 1:0 root htb default 0x0"}},
                       {"default = 3", {}},
                       {"link_rx = 100", {}},
                       {"phy_rx = '1gbit'", {}},
                       {"default_tree = true", {}},
                       {"automark = [2, 3, 0, 2, 3, 0, 2, 3]", automarks({2, 3, 0, 2, 3, 0, 2, 3})},
                       {"automark = { marks = [0, 0, 0, 0, 0, 0, 0, 3] }",
                        automarks({0, 0, 0, 0, 0, 0, 0, 3})},
                       {"automark = { enable = true, marks = [2, 2, 2, 2, 2, 2, 2, 2] }",
                        automarks({2, 2, 2, 2, 2, 2, 2, 2})},
                       {"automark = { enable = false, marks = [2, 3, 0, 2, 3, 0, 2, 3] }", {}},
                       {"[[interface.class]]\nhandle = 3\nname = 'usual'", {}},
                       {"[[interface.class]]\nhandle = 3\nleaf = { type = 'sfq' }",
                        {"tc qdisc add dev eth0 parent 1:0x3   handle 0x30: sfq "}},
                       {"[[interface.class]]\nhandle = 2\nleaf = { type = 'pfifo', limit = 7 }",
                        {"tc qdisc add dev eth0 parent 1:0x2   handle 0x20: pfifo limit 7"}}});
}

// The tree's two rates, and everything that is written without a rule
TEST(Render, WritesTheWholeOfASmallPolicy)
{
    const char *const chains = "iptables -t mangle -F QOS_a 2>/dev/null\n"
                               "iptables -t mangle -F QOS_a_AUTO 2>/dev/null\n"
                               "iptables -t mangle -X QOS_a 2>/dev/null\n"
                               "iptables -t mangle -X QOS_a_AUTO 2>/dev/null\n"
                               "iptables -t mangle -N QOS_a 2>/dev/null\n"
                               "iptables -t mangle -N QOS_a_AUTO 2>/dev/null\n"
                               "iptables -t mangle -D FORWARD -o a -g QOS_a 2>/dev/null\n"
                               "iptables -t mangle -D OUTPUT -o a -g QOS_a 2>/dev/null\n"
                               "iptables -t mangle -D QOS_a -m connmark ! --mark 0 -j QOS_a_AUTO"
                               " 2>/dev/null\n"
                               "iptables -t mangle -A FORWARD -o a -g QOS_a 2>/dev/null\n"
                               "iptables -t mangle -A OUTPUT -o a -g QOS_a 2>/dev/null\n"
                               "iptables -t mangle -A QOS_a -m connmark ! --mark 0 -j QOS_a_AUTO"
                               " 2>/dev/null\n";
    const char *const head = "#!/bin/sh\n#Generate by tarnic\n#Author: Ora Vel\n";
    const char *const del = "tc qdisc del dev a root 2>/dev/null\n";
    struct row {
        const char *policy;
        string tree;
    };
    const row rows[] = {
        {"root = 'pfifo_fast'\nqueue_len = 1000", "ifconfig a txqueuelen 1000\n"},
        {"root = 'pfifo_fast'\nqueue_len = 4294967295", "ifconfig a txqueuelen 4294967295\n"},
        {"root = 'htb'\nphy_tx = '100mbit'\nlink_tx = '20mbit'",
         "tc qdisc add dev a handle 1:0 root htb default 0x3\n"
         "tc class add dev a parent 1:0x0   classid 1:0x1   htb rate 100000kbit ceil 100000kbit"
         " prio 0 burst 1000000 cburst 1000000\n"
         "tc class add dev a parent 1:0x1   classid 1:0x2   htb rate 100000kbit ceil 100000kbit"
         " prio 0 burst 6000 cburst 6000\n"
         "tc qdisc add dev a parent 1:0x2   handle 0x20: sfq perturb 10\n"
         "tc filter add dev a parent 1:0 protocol ip prio 50 handle 0x2 fw classid 1:0x2\n"
         "tc class add dev a parent 1:0x1   classid 1:0x3   htb rate 20000kbit ceil 20000kbit"
         " prio 0 burst 6000 cburst 6000\n"
         "tc qdisc add dev a parent 1:0x3   handle 0x30: pfifo \n"
         "tc filter add dev a parent 1:0 protocol ip prio 50 handle 0x3 fw classid 1:0x3\n"},
        {"root = 'hfsc'\nphy_tx = 70\nlink_tx = 60\ndefault_tree = false\ndefault = 0xfff\n"
         "[[interface.class]]\nhandle = 0xfff\nparent = 0\nul = 9\nsc = 8",
         "tc qdisc add dev a handle 1:0 root hfsc default 0xfff\n"
         "tc class add dev a parent 1:0x0   classid 1:0xfff hfsc ul rate 9kbit sc rate 8kbit \n"
         "tc qdisc add dev a parent 1:0xfff handle 0xfff0: pfifo \n"
         "tc filter add dev a parent 1:0 protocol ip prio 50 handle 0xfff fw classid 1:0xfff\n"},
        {"root = 'prio'\nbands = 2\npriomap = [0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 1, 1]",
         "tc qdisc add dev a handle 1:0 root prio bands 2 priomap"
         " 0 1 0 1 0 1 0 1 0 1 0 1 0 1 1 1\n"
         "tc qdisc add dev a parent 1:0x1   handle 0x10: pfifo \n"
         "tc filter add dev a parent 1:0 protocol ip prio 50 handle 0x1 fw classid 1:0x1\n"
         "tc qdisc add dev a parent 1:0x2   handle 0x20: pfifo \n"
         "tc filter add dev a parent 1:0 protocol ip prio 50 handle 0x2 fw classid 1:0x2\n"},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.policy);
        const string text = string("[[interface]]\nname = 'a'\n") + r.policy;
        EXPECT_EQ(string(head) + del + r.tree + chains, rendered(text, "a"));
        EXPECT_EQ(string(head) + chains, rendered(text, "a", script::rules));
        EXPECT_EQ(string(head) + del +
                      "iptables -t mangle -D FORWARD -o a -g QOS_a 2>/dev/null\n"
                      "iptables -t mangle -D OUTPUT -o a -g QOS_a 2>/dev/null\n"
                      "iptables -t mangle -D QOS_a -m connmark ! --mark 0 -j QOS_a_AUTO"
                      " 2>/dev/null\n"
                      "iptables -t mangle -F QOS_a 2>/dev/null\n"
                      "iptables -t mangle -F QOS_a_AUTO 2>/dev/null\n"
                      "iptables -t mangle -X QOS_a 2>/dev/null\n"
                      "iptables -t mangle -X QOS_a_AUTO 2>/dev/null\n",
                  rendered(text, "a", script::stop));
    }
}

TEST(Render, WritesWhatAPrioInterfaceSays)
{
    expect_lines(
        prio,
        {{"bands = 3", {}},
         {"bands = 4",
          {"tc qdisc add dev eth0 handle 1:0 root prio bands 4 priomap"
           " 1 2 2 2 1 2 0 0 1 1 1 1 1 1 1 1",
           "tc qdisc add dev eth0 parent 1:0x4   handle 0x40: pfifo ",
           "tc filter add dev eth0 parent 1:0 protocol ip prio 50 handle 0x4 fw classid 1:0x4"}},
         {"priomap = [2, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2]",
          {"tc qdisc add dev eth0 handle 1:0 root prio bands 3 priomap"
           " 2 1 0 0 0 0 0 0 0 0 0 0 0 0 1 2"}},
         {"link_tx = 5\nlink_rx = 6\nphy_tx = 7\nphy_rx = 8", {}},
         {"automark = [1, 2, 3, 0, 0, 0, 0, 1]", automarks({1, 2, 3, 0, 0, 0, 0, 1})},
         {"[[interface.class]]\nhandle = 2\nname = 'b'\nleaf = { type = 'sfq', perturb = 255 }",
          {"tc qdisc add dev eth0 parent 1:0x2   handle 0x20: sfq perturb 255"}}});
}

TEST(Render, WritesWhatAnHtbClassSays)
{
    const string entry = "[[interface.class]]\nhandle = 0x10\nrate = 100\n";
    const auto with = [](const string &middle) {
        return strings{"tc class add dev eth0 parent 1:0x1   classid 1:0x10  htb " + middle,
                       pfifo_leaf, filter_10};
    };
    expect_lines(htb,
                 {{entry, with("rate 100kbit ceil 100kbit prio 0 ")},
                  {entry + "name = 'x'", with("rate 100kbit ceil 100kbit prio 0 ")},
                  {entry + "ceil = '0.5mbit'", with("rate 100kbit ceil 500kbit prio 0 ")},
                  {entry + "prio = 7", with("rate 100kbit ceil 100kbit prio 7 ")},
                  {entry + "burst = '1b'", with("rate 100kbit ceil 100kbit prio 0 burst 1 ")},
                  {entry + "cburst = '1kb'", with("rate 100kbit ceil 100kbit prio 0 cburst 1024")},
                  {entry + "burst = 5\ncburst = '2mb'",
                   with("rate 100kbit ceil 100kbit prio 0 burst 5 cburst 2097152")},
                  {entry + "parent = 1", with("rate 100kbit ceil 100kbit prio 0 ")},
                  {entry + "parent = 0",
                   {"tc class add dev eth0 parent 1:0x0   classid 1:0x10  htb rate 100kbit"
                    " ceil 100kbit prio 0 ",
                    pfifo_leaf, filter_10}},
                  {entry + "leaf = { type = 'PFIFO', limit = 3 }",
                   {"tc class add dev eth0 parent 1:0x1   classid 1:0x10  htb rate 100kbit"
                    " ceil 100kbit prio 0 ",
                    string(pfifo_leaf) + "limit 3", filter_10}}});
    // An inner class has no leaf and no filter any more.
    const string inner = string(htb) + "default = 2\n" + entry + "parent = 3\n";
    const string script = rendered(inner);
    EXPECT_EQ(string::npos, script.find("fw classid 1:0x3\n"));
    EXPECT_NE(string::npos, script.find("parent 1:0x3   classid 1:0x10  htb rate 100kbit"));
}

TEST(Render, WritesWhatAnHfscClassSays)
{
    const string entry = "[[interface.class]]\nhandle = 0x10\n";
    const auto with = [](const string &curves) {
        return strings{"tc class add dev eth0 parent 1:0x1   classid 1:0x10  hfsc " + curves,
                       pfifo_leaf, filter_10};
    };
    expect_lines(hfsc, {{"default = 2", {"tc qdisc add dev eth0 handle 1:0 root hfsc default 0x2"}},
                        {entry, with("ul rate 0kbit ")},
                        {entry + "ul = 9", with("ul rate 9kbit ")},
                        {entry + "ul = { rate = 9, umax = 2, dmax = 3 }",
                         with("ul umax 2b dmax 3ms rate 9kbit ")},
                        {entry + "sc = 8", with("ul rate 0kbit sc rate 8kbit ")},
                        {entry + "ls = 7", with("ul rate 0kbit ls rate 7kbit ")},
                        {entry + "rt = 6", with("ul rate 0kbit rt rate 6kbit ")},
                        {entry + "sc = { rate = 8, umax = '1.5kb' }",
                         with("ul rate 0kbit sc umax 1536b rate 8kbit ")},
                        {entry + "ls = { rate = 7, dmax = '2s' }",
                         with("ul rate 0kbit ls dmax 2000ms rate 7kbit ")},
                        {entry + "rt = { rate = 6, umax = 1, dmax = 1 }",
                         with("ul rate 0kbit rt umax 1b dmax 1ms rate 6kbit ")},
                        {entry + "sc = 8\nls = 7\nrt = 6", with("ul rate 0kbit sc rate 8kbit ")},
                        {entry + "ls = 7\nrt = 6", with("ul rate 0kbit ls rate 7kbit ")}});
}

TEST(Render, WritesWhatALeafSays)
{
    const string entry = "[[interface.class]]\nhandle = 3\nleaf = ";
    const string head = "tc qdisc add dev eth0 parent 1:0x3   handle 0x30: ";
    for (const char *base : {htb, hfsc, prio})
        expect_lines(
            base,
            {{entry + "{ type = 'pfifo' }", {}},
             {entry + "{ type = 'pfifo', limit = 0 }", {}},
             {entry + "{ type = 'pfifo', limit = 50 }", {head + "pfifo limit 50"}},
             {entry + "{ type = 'sfq' }", {head + "sfq "}},
             {entry + "{ type = 'sfq', perturb = 0 }", {head + "sfq "}},
             {entry + "{ type = 'sfq', perturb = 10 }", {head + "sfq perturb 10"}},
             {entry + "{ type = 'red', min = '15kb', max = 45000, limit = '1mb', avpkt = 1000,"
                      " burst = 25 }",
              {head + "red min 15360b max 45000b burst 25 limit 1048576b avpkt 1000b"}},
             {entry + "{ type = 'tbf', rate = '8mbit', burst = '10kb', latency = '0.4s' }",
              {head + "tbf latency 400ms rate 8000kbit burst 10240b"}}});
}

TEST(Render, WritesWhatAMatchSays)
{
    struct row {
        const char *match;
        strings pieces;  // a line each
    };
    const row rows[] = {
        {"", {""}},
        {"protocol = 'tcp'", {"-p tcp "}},
        {"protocol = 'udp'", {"-p udp "}},
        {"protocol = 'icmp'", {"-p icmp "}},
        {"protocol = 'all'", {"-p all "}},
        {"protocol = 'both'", {"-p tcp ", "-p udp "}},
        {"protocol = 'tcp', sport = 80", {"-p tcp --sport 80:80 "}},
        {"protocol = 'udp', dport = '1024:65535'", {"-p udp --dport 1024:65535 "}},
        {"protocol = 'both', sport = '1:2', dport = 3",
         {"-p tcp --sport 1:2 --dport 3:3 ", "-p udp --sport 1:2 --dport 3:3 "}},
        {"protocol = 'tcp', tcp_flags = { mask = ['SYN', 'ACK'], set = ['SYN'] }",
         {"-p tcp --tcp-flag SYN,ACK, SYN, "}},
        {"protocol = 'both', tcp_flags = { mask = ['PSH', 'URG', 'RST', 'FIN', 'ACK', 'SYN'],"
         " set = ['PSH'] }",
         {"-p tcp --tcp-flag SYN,ACK,FIN,RST,URG,PSH, PSH, ", "-p udp "}},
        {"src = '192.168.1.7'", {"-m iprange --src-range 192.168.1.7-192.168.1.7 "}},
        {"src = '192.168.1.0/24'", {"-m iprange --src-range 192.168.1.0-192.168.1.255 "}},
        {"src = '10.0.0.0/8'", {"-m iprange --src-range 10.0.0.0-10.255.255.255 "}},
        {"src = '10.1.2.3/32'", {"-m iprange --src-range 10.1.2.3-10.1.2.3 "}},
        {"dst = '0.0.0.1-255.255.255.255'", {"-m iprange --dst-range 0.0.0.1-255.255.255.255 "}},
        {"src = '1.2.3.4', dst = '5.6.7.8'",
         {"-m iprange --src-range 1.2.3.4-1.2.3.4 --dst-range 5.6.7.8-5.6.7.8 "}},
        {"mac = '00:11:22:aA:Bb:ff'", {"-m mac --mac-source 00:11:22:aA:Bb:ff "}},
        {"dscp = 0", {"-m dscp --dscp 0x0 "}},
        {"dscp = 63", {"-m dscp --dscp 0x3f "}},
        {"dscp = 'CS0'", {"-m dscp --dscp-class CS0 "}},
        {"dscp = 'ef'", {"-m dscp --dscp-class EF "}},
        {"tos = 'Minimize-Delay'", {"-m tos --tos Minimize-Delay --precedence 0 "}},
        {"tos = 'Normal-Service', precedence = 7", {"-m tos --tos Normal-Service --precedence 7 "}},
        {"length = 0", {"-m length --length 0:0 "}},
        {"length = '1400:65535'", {"-m length --length 1400:65535 "}},
        {"alg = 'sip'", {"-m helper --helper sip "}},
        {"alg = 'q.931'", {"-m helper --helper Q.931 "}},
        {"alg = 'ftp'", {"-m helper --helper ftp "}},
        {"vlan_id = 4095", {"-m VLAN --vlan-id 4095 "}},
        {"vlan_prio = 7", {"-m VLAN --vlan-prio 7 "}},
        {"vlan_id = 0, vlan_prio = 0", {"-m VLAN --vlan-id 0 --vlan-prio 0 "}},
        {"domain = 'a-b.example'", {"-m domain --name \"a-b.example\" "}},
        {"url = 'http://a.example:80/%7Eb,c=d@e+f'",
         {"-m urlfilter --url http://a.example:80/%7Eb,c=d@e+f "}},
        {"schedule = 1", {"-m time --timestart 00:00 --timestop 23:59 "}},
        {"url = 'u', domain = 'd', protocol = 'icmp', length = 1, alg = 'ftp', dscp = 1,"
         " tos = 'Minimize-Cost', src = '1.1.1.1', mac = '00:00:00:00:00:00', vlan_id = 1,"
         " schedule = 1",
         {"-p icmp -m mac --mac-source 00:00:00:00:00:00 -m iprange --src-range 1.1.1.1-1.1.1.1"
          " -m dscp --dscp 0x1 -m tos --tos Minimize-Cost --precedence 0 -m helper --helper ftp"
          " -m length --length 1:1 -m domain --name \"d\" -m urlfilter --url u -m VLAN --vlan-id 1"
          " -m time --timestart 00:00 --timestop 23:59 "}},
    };
    const string base = string("[[schedule]]\nindex = 1\nall_day = true\n") + htb;
    for (const row &r : rows) {
        strings expected;
        for (const string &piece : r.pieces)
            expected.push_back("iptables -t mangle -A QOS_eth0 " + piece +
                               "-j MARK --set-mark 0x3 ");
        expect_lines(base, {{string("[[interface.rule]]\nindex = 1\nmatch = { ") + r.match +
                                 " }\ntarget = { mark = 3 }",
                             expected}});
    }
    for (const named &dscp : dscp_classes)
        expect_lines(base, {{say("[[interface.rule]]\nindex = 1\nmatch.dscp = '%s'\n"
                                 "target.mark = 2",
                                 dscp.name),
                             {say("iptables -t mangle -A QOS_eth0 -m dscp --dscp-class %s -j MARK"
                                  " --set-mark 0x2 ",
                                  dscp.name)}}});
    for (const named &tos : tos_words)
        expect_lines(base, {{say("[[interface.rule]]\nindex = 1\nmatch.tos = '%s'\n"
                                 "target.mark = 2",
                                 tos.name),
                             {say("iptables -t mangle -A QOS_eth0 -m tos --tos %s --precedence 0"
                                  " -j MARK --set-mark 0x2 ",
                                  tos.name)}}});
}

TEST(Render, WritesWhatATargetSays)
{
    struct row {
        const char *target;
        strings pieces;
    };
    const row rows[] = {
        {"mark = 2", {"-j MARK --set-mark 0x2 "}},
        {"tos = 'Minimize-Cost'", {"-j TOS --set-tos Minimize-Cost --set-precedence 0 "}},
        {"tos = 'Normal-Service', precedence = 5",
         {"-j TOS --set-tos Normal-Service --set-precedence 5 "}},
        {"dscp = 46", {"-j DSCP --set-dscp 0x2e "}},
        {"dscp = 'AF43'", {"-j DSCP --set-dscp AF43 "}},
        {"tos = 'Normal-Service', precedence = 5, dscp = 5",
         {"-j TOS --set-tos Normal-Service --set-precedence 5 ", "-j DSCP --set-dscp 0x5 "}},
        {"mkvlan = { id = 100 }", {"-j MKVLAN --set-vlan-id 100 --set-vlan-prio 0   "}},
        {"mkvlan = { id = 4095, prio = 7, double = true }",
         {"-j MKVLAN --set-vlan-id 4095 --set-vlan-prio 7 --double "}},
        {"mkvlan = { id = 0, double = false }", {"-j MKVLAN --set-vlan-id 0 --set-vlan-prio 0   "}},
        {"log = true", {}},
        {"log = false", {}},
        {"mark = 3, dscp = 1, mkvlan = { id = 1, prio = 2 }, log = true",
         {"-j MARK --set-mark 0x3 ", "-j DSCP --set-dscp 0x1 ",
          "-j MKVLAN --set-vlan-id 1 --set-vlan-prio 2   "}},
    };
    for (const row &r : rows) {
        strings expected;
        for (const string &piece : r.pieces)
            expected.push_back("iptables -t mangle -A QOS_eth0 " + piece);
        expect_lines(htb, {{string("[[interface.rule]]\nindex = 0\ntarget = { ") + r.target + " }",
                            expected}});
    }
    // The rules stand in the order of their indexes, not in that of the file.
    expect_lines(htb, {{"[[interface.rule]]\nindex = 255\ntarget = { dscp = 2 }\n"
                        "[[interface.rule]]\nindex = 0\ntarget = { dscp = 1 }\n",
                        {"iptables -t mangle -A QOS_eth0 -j DSCP --set-dscp 0x1 ",
                         "iptables -t mangle -A QOS_eth0 -j DSCP --set-dscp 0x2 "}}});
}

TEST(Render, WritesWhatAScheduleSays)
{
    struct row {
        const char *schedule;
        const char *piece;
    };
    const row rows[] = {
        {"all_day = true", "--timestart 00:00 --timestop 23:59 "},
        {"all_day = true\ndays = ['Mon', 'Fri']",
         "--timestart 00:00 --timestop 23:59 --days Mon,Fri "},
        {"all_day = true\ndays = ['Sat', 'Sun']",
         "--timestart 00:00 --timestop 23:59 --days Sun,Sat "},
        {"all_day = true\ndays = ['Sun', 'Mon', 'Tue', 'Wed', 'Thu', 'Fri', 'Sat']",
         "--timestart 00:00 --timestop 23:59 --days Sun,Mon,Tue,Wed,Thu,Fri,Sat "},
        {"all_day = true\ndays = []", "--timestart 00:00 --timestop 23:59 "},
        // Of times the library keeps the hour of start.
        {"start = '8:00'\nstop = '17:30'", "--timestart 8:00 --timestop 0:00 "},
        {"start = '23:59'\nstop = '0:00'", "--timestart 23:00 --timestop 0:00 "},
        {"all_day = false\nstart = '0:00'\nstop = '0:00'\ndays = ['Wed']",
         "--timestart 0:00 --timestop 0:00 --days Wed "},
    };
    const string rule = "[[interface.rule]]\nindex = 1\nmatch = { schedule = 255 }\n"
                        "target = { mark = 2 }\n";
    for (const row &r : rows)
        expect_lines(htb, {{rule + "[[schedule]]\nindex = 255\n" + r.schedule,
                            {string("iptables -t mangle -A QOS_eth0 -m time ") + r.piece +
                             "-j MARK --set-mark 0x2 "}}});
}

// ---- Examples -----------------------------------------------------------------------------------

const string golden = MORDEL_GOLDEN_DIR;
const string own_golden = MORDEL_POLICIES;
const string examples = MORDEL_EXAMPLES;

TEST(Render, TheHomeRoutersPolicyIsTheHomeRoutersProgram)
{
    const string text = read_file(examples + "/home-router.toml");
    for (const char *name : {"lan0", "wan0", "wifi0"}) {
        SCOPED_TRACE(name);
        const string path = golden + "/home_router/" + name;
        EXPECT_EQ(read_file(path + ".start"), rendered(text, name));
        EXPECT_EQ(read_file(path + ".stop"), rendered(text, name, script::stop));
    }
}

TEST(Render, TheOtherExamplesAreTheirGoldenScripts)
{
    EXPECT_EQ(read_file(own_golden + "/hfsc.start"),
              rendered(read_file(examples + "/hfsc.toml"), "ppp0"));
    EXPECT_EQ(read_file(own_golden + "/prio.start"),
              rendered(read_file(examples + "/prio.toml"), "wlan0"));
}

TEST(Render, MainlineHasNothingAgainstTheExamples)
{
    for (const char *name : {"home-router", "hfsc", "prio"}) {
        diagnostics found;
        (void)tool::read_policy(read_file(examples + "/" + name + ".toml"), kernel_kind::mainline,
                                found);
        EXPECT_EQ("", shown(found)) << name;
    }
}

// ---- Scripts on disk ----------------------------------------------------------------------------

constexpr int cannot = 77;  // no private /var/tmp is to be had
constexpr int differs = 1;

bool write_text(const char *path, const string &text)
{
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    (void)::close(fd);
    return ok;
}

bool private_var_tmp()
{
    const string ids[] = {say("0 %u 1", ::geteuid()), say("0 %u 1", ::getegid())};
    if (::geteuid() != 0 &&
        (::unshare(CLONE_NEWUSER) != 0 || !write_text("/proc/self/uid_map", ids[0]) ||
         !write_text("/proc/self/setgroups", "deny") || !write_text("/proc/self/gid_map", ids[1])))
        return false;
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", "/var/tmp", "tmpfs", 0, "mode=1777") == 0;
}

// In a process of its own. The interface, eth0, has the default tree and one rule.
int scripts_on_disk(const policy &p)
{
    if (!private_var_tmp()) return cannot;
    const tool::rendering all = render(p);
    const bool started = tool::write_start_script(p, "eth0") && list_empty(&qos_root) != 0;
    const tool::policy_interface &iface = p.interfaces.front();
    const tool::policy_rule &rule = iface.rules.front();
    const bool stopped =
        add_root_qdisc(iface.speeds, "eth0", iface.root_type, &iface.param) == 0 &&
        add_qos_rule("eth0", static_cast<u8>(rule.index.get()), &rule.match, &rule.target) == 1 &&
        stop_qos("eth0") == 1;
    const bool ok = started && stopped &&
                    read_file("/var/tmp/qos_start") == script_text(all, "eth0", script::start) &&
                    read_file("/var/tmp/qos_stop") == script_text(all, "eth0", script::stop);
    return ok ? 0 : differs;
}

TEST(Render, IsWhatStartQosPutsOnDisk)
{
    const string policies[] = {
        htb, hfsc, prio, "[[interface]]\nname = 'eth0'\nroot = 'pfifo_fast'\nqueue_len = 9\n"};
    for (const string &text : policies) {
        SCOPED_TRACE(text);
        diagnostics found;
        const policy p = tool::read_policy(
            text + "[[interface.rule]]\nindex = 1\nmatch.url = 'a'\ntarget.dscp = 1\n",
            kernel_kind::vendor, found);
        ASSERT_FALSE(found.failed()) << shown(found);
        const pid_t child = ::fork();
        ASSERT_LE(0, child);
        if (child == 0) ::_exit(scripts_on_disk(p));
        int status = 0;
        ASSERT_EQ(child, ::waitpid(child, &status, 0));
        ASSERT_TRUE(WIFEXITED(status));
        if (WEXITSTATUS(status) == cannot) GTEST_SKIP() << "no namespaces: no /var/tmp of its own";
        EXPECT_EQ(0, WEXITSTATUS(status));
    }
}

// ---- Hostile texts ------------------------------------------------------------------------------

// Bytes as TOML writes them. A byte from 0x80 on becomes a character of two bytes.
string escaped(const string &bytes)
{
    string out = "\"";
    for (const char c : bytes) out += say("\\u%04x", static_cast<unsigned char>(c));
    return out + "\"";
}

const char *const hostile[] = {"",          "-",          "-a",        "--help",    "-j ACCEPT",
                               "$(reboot)", "a;reboot",   "a||reboot", "a\nreboot", "`reboot`",
                               "${IFS}",    "a\" ; b \"", "a' ; b '",  "a\\nb",     "a #",
                               "\x1b[2J",   "{a,b}",      "../a b",    "%s %n",     "a\r"};
// Characters that look like others, or like none
const char *const look_alikes[] = {"\u0435th0", "eth\uff10", "a\u2010b",
                                   "a\u2028b",  "a\uff1bb",  "a\u200bb"};

// A field that goes into a script; %s is the text. A field without `safe` is a word that is looked
// up, or of a fixed form.
struct text_field {
    const char *key;  // with which the error begins
    const char *policy;
    const char *safe;  // what it holds besides letters and digits
};
const text_field fields[] = {
    {"name ", "[[interface]]\nname = %s\nroot = 'pfifo_fast'\nqueue_len = 1\n", "._-"},
    {"url ", "match.url = %s\n", "._-/:%+,=@"},
    {"domain ", "match.domain = %s\n", "._-"},
    {"mac ", "match.mac = %s\n", nullptr},
    {"protocol ", "match.protocol = %s\n", nullptr},
    {"sport ", "match = { protocol = 'tcp', sport = %s }\n", nullptr},
    {"mask ", "match = { protocol = 'tcp', tcp_flags = { mask = ['SYN', %s], set = ['SYN'] } }\n",
     nullptr},
    {"src ", "match.src = %s\n", nullptr},
    {"dst ", "match.dst = %s\n", nullptr},
    {"dscp ", "match.dscp = %s\n", nullptr},
    {"tos ", "match.tos = %s\n", nullptr},
    {"length ", "match.length = %s\n", nullptr},
    {"alg ", "match.alg = %s\n", nullptr},
};

string with_text(const text_field &field, const string &literal)
{
    string text = field.policy;
    text.replace(text.find("%s"), 2, literal);
    if (text.find("[[interface]]") == string::npos)
        text = string(htb) + "[[interface.rule]]\nindex = 1\ntarget.mark = 2\n" + text;
    return text;
}

bool printable(const string &text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

void expect_refused(const text_field &field, const string &literal)
{
    const string text = with_text(field, literal);
    SCOPED_TRACE(text);
    diagnostics found;
    (void)tool::read_policy(text, kernel_kind::vendor, found);
    ASSERT_TRUE(found.failed());
    EXPECT_EQ(1U, found.all().size()) << shown(found);
    const tool::diagnostic &d = found.all().front();
    EXPECT_EQ(0U, d.text.find(field.key)) << d.text;
    EXPECT_TRUE(printable(d.text)) << d.text;
}

bool is_safe(const text_field &field, char c)
{
    return string(alphanumerics).find(c) != string::npos ||
           (c != '\0' && std::strchr(field.safe, c) != nullptr);
}

TEST(Injection, TextsForAScriptAreRefused)
{
    for (const text_field &field : fields) {
        for (const char *text : hostile) expect_refused(field, escaped(text));
        for (const char *text : look_alikes) expect_refused(field, "\"" + string(text) + "\"");
        expect_refused(field, "\"\"\"a\nb\"\"\"");
        expect_refused(field, "\"" + string(256, 'a') + "\"");
    }
    for (const char *name : {".", "..", ".a", "a/b", "a:1", "abcdefghijklmnop"})
        expect_refused(fields[0], escaped(name));
    for (const char *mac : {"00:11:22:33:44:5g", "00:11:22:33:44:55 -j ACCEPT", "00:11:22:33:44",
                            "00-11-22-33-44-55", "00:11:22:33:44:55\n"})
        expect_refused(fields[3], escaped(mac));
}

// Each byte, in front, in the middle and at the end
TEST(Injection, EachByteIsEitherSafeOrRefused)
{
    for (const text_field &field : fields) {
        if (field.safe == nullptr) continue;
        for (int byte = 0; byte < 256; ++byte) {
            const char c = static_cast<char>(byte);
            for (const string &text : {string{c, 'a'}, string{'a', c, 'b'}, string{'a', c}}) {
                const bool option = text[0] == '-' || (text[0] == '.' && &field == &fields[0]);
                if (is_safe(field, c) && !option) {
                    const string name = &field == &fields[0] ? text : "eth0";
                    const string script = rendered(with_text(field, escaped(text)), name);
                    EXPECT_NE(string::npos, script.find(text)) << script;
                } else {
                    expect_refused(field, escaped(text));
                }
            }
        }
    }
}

// It is for people: nothing of it is in a script.
TEST(Injection, ANameOfAClassIsInNoScript)
{
    const string base = string(htb) + "[[interface.class]]\nhandle = 0x10\nrate = 9\n";
    const string plain = rendered(base);
    const string plain_rules = rendered(base, "eth0", script::rules);
    unsigned taken = 0;
    strings texts(std::begin(hostile), std::end(hostile));
    texts.insert(texts.end(), std::begin(look_alikes), std::end(look_alikes));
    for (int byte = 0; byte < 256; ++byte) texts.push_back({'a', static_cast<char>(byte), 'b'});
    for (const string &text : texts) {
        const string named = base + "name = " + escaped(text) + "\n";
        SCOPED_TRACE(named);
        diagnostics found;
        const policy p = tool::read_policy(named, kernel_kind::vendor, found);
        if (found.failed()) continue;
        ++taken;
        EXPECT_TRUE(printable(text));
        const tool::rendering all = render(p);
        EXPECT_EQ(plain, script_text(all, "eth0", script::start));
        EXPECT_EQ(plain_rules, script_text(all, "eth0", script::rules));
    }
    EXPECT_LE(100U, taken);
}

// A text of these bytes, or of those that a field may hold, or something between
string fuzzed(dice &d, const string &usual, const string &safe)
{
    if (d.chance(50)) return usual;
    string text;
    for (u32 left = d.between(0, 20); left > 0; --left) text += d.pick(safe);
    if (d.chance(60)) return text;
    for (u32 left = d.between(1, 3); left > 0; --left)
        text.insert(d.below(static_cast<u32>(text.size()) + 1), 1, static_cast<char>(d.below(256)));
    return text;
}

struct fuzz_policy {
    string name;
    string text;
};

// Bytes from 0x80 on, as they are, make it no TOML.
string raw_or_escaped(dice &d, const string &bytes)
{
    const bool plain = std::all_of(bytes.begin(), bytes.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0x80) != 0 || std::isalnum(c) != 0;
    });
    return plain && d.chance(50) ? "\"" + bytes + "\"" : escaped(bytes);
}

fuzz_policy fuzz(dice &d)
{
    const string safe = string(alphanumerics) + "._-";
    const string name = fuzzed(d, "eth0", safe);
    const string mac = d.chance(70) ? "00:11:22:33:44:55" : fuzzed(d, "00:11:22:33:44:55", "0:aF");
    const string url = fuzzed(d, "http://a.example/", safe + "/:%+,=@");
    return {name, "[[interface]]\nname = " + raw_or_escaped(d, name) +
                      "\nroot = 'prio'\n[[interface.class]]\nhandle = 1\nname = " +
                      escaped(fuzzed(d, "class", safe + " $()`;|&<>*?!#~{}[]'")) +
                      "\n[[interface.rule]]\nindex = 1\nmatch = { mac = " + escaped(mac) +
                      ", domain = " + escaped(fuzzed(d, "a.example", safe)) +
                      ", url = " + raw_or_escaped(d, url) + " }\ntarget = { mark = 1 }\n"};
}

// What the formats and the texts that are let into them can hold; the quotes are a domain's.
bool only_known_characters(const string &line)
{
    return line.find_first_not_of(string(alphanumerics) + " ._-/:%+,=@>!#\"") == string::npos;
}

bool shell_takes(const string &text)
{
    FILE *shell = ::popen("sh -n 2>/dev/null", "w");
    if (shell == nullptr) return false;
    const bool all = std::fwrite(text.data(), 1, text.size(), shell) == text.size();
    return ::pclose(shell) == 0 && all;
}

TEST(Injection, WhatIsTakenMakesAPlainScript)
{
    dice d(4);
    const std::size_t lines = lines_of(rendered(string(prio) + "[[interface.rule]]\nindex = 1\n"
                                                               "target = { mark = 1 }\n"))
                                  .size();
    unsigned taken = 0;
    unsigned refused = 0;
    for (int i = 0; i < 10000 && !HasFailure(); ++i) {
        const fuzz_policy made = fuzz(d);
        diagnostics found;
        const policy p = tool::read_policy(made.text, kernel_kind::vendor, found);
        SCOPED_TRACE(made.text);
        for (const tool::diagnostic &diagnostic : found.all())
            EXPECT_TRUE(printable(diagnostic.text)) << diagnostic.text;
        if (found.failed()) {
            ++refused;
            continue;
        }
        ++taken;
        const tool::rendering texts = render(p);
        ASSERT_EQ("", texts.refused);
        const string script = script_text(texts, made.name, script::start);
        const strings all = lines_of(script);
        EXPECT_EQ(lines, all.size()) << script;
        for (const string &line : all) {
            EXPECT_TRUE(only_known_characters(line)) << line;
            EXPECT_TRUE(line.rfind("#", 0) == 0 || line.rfind("tc ", 0) == 0 ||
                        line.rfind("iptables -t mangle -", 0) == 0)
                << line;
            const auto quotes = std::count(line.begin(), line.end(), '"');
            EXPECT_TRUE(quotes == 0 || (quotes == 2 && line.find(" --name \"") != string::npos))
                << line;
        }
        if (taken % 50 == 1 && taken < 1000) { EXPECT_TRUE(shell_takes(script)) << script; }
    }
    EXPECT_LE(1000U, taken);
    EXPECT_LE(1000U, refused);
}

TEST(Injection, TheShellWouldSaySo)
{
    EXPECT_TRUE(shell_takes("echo a\n"));
    EXPECT_FALSE(shell_takes("echo \"a\n"));
}

}  // namespace
