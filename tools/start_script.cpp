// SPDX-License-Identifier: MIT
// Owns the grammar of the start scripts that the library writes. A word counts by its place in the
// command, never by a search: an interface may be named "root" or "parent". Reads no file.

#include "start_script.h"

#include <charconv>

#include "text.h"

namespace tool {
namespace {

using std::string;
using words = std::vector<string>;
using kind = object::kind;

// The number between `before` and `after`: 0x10 of "1:0x10" with "1:0x" before it, 0x100 of
// "0x100:" with "0x" before and ":" after it. None when anything else stands in the word.
std::optional<u32> hexadecimal(std::string_view word, std::string_view before,
                               std::string_view after = "")
{
    if (!word.starts_with(before) || !word.ends_with(after) ||
        word.size() <= before.size() + after.size())
        return std::nullopt;
    word = word.substr(before.size(), word.size() - before.size() - after.size());
    // from_chars takes no "0x": that is part of `before`.
    u32 value = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value, 16);
    if (error != std::errc() || end != word.data() + word.size()) return std::nullopt;
    return value;
}

// Whether a command begins with the words of the pattern; "*" stands for any one word.
bool opens_with(const words &command, const words &pattern)
{
    if (command.size() < pattern.size()) return false;
    for (std::size_t i = 0; i < pattern.size(); ++i)
        if (pattern[i] != "*" && pattern[i] != command[i]) return false;
    return true;
}

// Reads a script line by line and ends at the first line of unknown form.
class reader {
public:
    explicit reader(const string &ifname) : ifname_(ifname) {}

    start_script read(const string &text)
    {
        for (const string &line : lines_of(text)) {
            ++number_;
            if (take(line)) continue;
            // One unknown line refuses all: a plan without the line would be taken for whole.
            script_ = {};
            script_.error = format("line %u is unknown: %s", number_, quoted(line).c_str());
            return script_;
        }
        // The script of a pfifo_fast interface adds no root: it only sets a queue length.
        if (script_.find(kind::root, 0) == nullptr && !script_.queue_length)
            script_.error = "there is neither a root qdisc nor a queue length";
        return script_;
    }

private:
    bool take(const string &line)
    {
        if (line.starts_with("#")) return true;
        // Left out: the plan knows from the kernel whether there is a root to remove.
        if (line == "tc qdisc del dev " + ifname_ + " root 2>/dev/null") return true;
        if (line.starts_with("tc ")) return take_tree(line.substr(3));
        if (line.starts_with("iptables -t mangle ")) return take_rule(line.substr(19));
        if (line.starts_with("ifconfig ")) return take_queue_length(line.substr(9));
        return false;
    }

    bool take_tree(const string &text)
    {
        const words w = words_of(text);
        const auto what = tree_object(w);
        if (!what) return false;
        // An object that comes twice refuses the script: find() could tell one of the two alone.
        if (!script_.places.emplace(std::pair(what->what, what->number), script_.tree.size())
                 .second)
            return false;
        constexpr std::size_t leaf_words = 9;  // up to the qdisc's kind
        script_.tree.push_back(
            {text, *what, number_, what->what == kind::leaf && w.size() > leaf_words});
        return true;
    }

    std::optional<object> tree_object(const words &w) const
    {
        if (opens_with(w, {"qdisc", "add", "dev", ifname_, "handle", "1:0", "root", "*"}))
            return object{kind::root, 0, ""};
        if (opens_with(w, {"class", "add", "dev", ifname_, "parent", "*", "classid", "*", "*"}))
            return numbered(kind::tree_class, hexadecimal(w[7], "1:0x"),
                            hexadecimal(w[5], "1:0x").has_value());
        if (opens_with(w, {"qdisc", "add", "dev", ifname_, "parent", "*", "handle", "*", "*"})) {
            // By the library's rule the leaf of class 1:10 has the handle 100:. plan.cpp computes
            // with that, so a script with another handle is refused.
            const auto handle = hexadecimal(w[5], "1:0x");
            return numbered(kind::leaf, handle,
                            handle && hexadecimal(w[7], "0x", ":") == *handle * 16);
        }
        if (opens_with(w, {"filter", "add", "dev", ifname_, "parent", "1:0", "protocol", "ip",
                           "prio", "50", "handle", "*", "fw", "classid", "*"}))
            return numbered(kind::filter, hexadecimal(w[11], "0x"),
                            w.size() == 15 && hexadecimal(w[14], "1:0x").has_value());
        return std::nullopt;
    }

    static std::optional<object> numbered(kind what, std::optional<u32> number, bool good)
    {
        if (!number || !good) return std::nullopt;
        return object{what, *number, ""};
    }

    // Keeps the rules and jumps that are added. Commands that make, empty or delete the chains are
    // checked but not kept: lines_to_load() and lines_to_replace() write their own.
    bool take_rule(string text)
    {
        // A redirection is the shell's work; iptables-restore would refuse it as an argument.
        constexpr std::string_view silence = " 2>/dev/null";
        if (text.ends_with(silence)) text.resize(text.size() - silence.size());
        const words w = words_of(text);
        if (w.size() < 2) return false;
        const string rules = rule_chain(ifname_);
        const bool own = w[1] == rules || w[1] == automark_chain(ifname_);
        if (w[0] == "-F" || w[0] == "-X" || w[0] == "-N") return own && w.size() == 2;
        const bool jump = (w[1] == "FORWARD" || w[1] == "OUTPUT") &&
                          words(w.begin() + 2, w.end()) == words{"-o", ifname_, "-g", rules};
        if (!own && !jump) return false;
        if (w[0] == "-A")
            script_.rules.push_back(
                {text, {jump ? kind::jump : kind::rule, 0, w[1]}, number_, false});
        return w[0] == "-A" || w[0] == "-D";
    }

    // A second queue length refuses the script, as a second root does.
    bool take_queue_length(const string &text)
    {
        const words w = words_of(text);
        if (w.size() != 3 || w[0] != ifname_ || w[1] != "txqueuelen" || script_.queue_length)
            return false;
        script_.queue_length = command{text, {kind::queue_length, 0, ""}, number_, false};
        return true;
    }

    const string &ifname_;
    unsigned number_ = 0;
    start_script script_;
};

}  // namespace

const command *start_script::find(kind what, u32 number) const
{
    const auto place = places.find({what, number});
    return place == places.end() ? nullptr : &tree[place->second];
}

start_script parse_start_script(const string &text, const string &ifname)
{
    return reader(ifname).read(text);
}

}  // namespace tool
