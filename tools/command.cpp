// SPDX-License-Identifier: MIT
// Owns the names of an interface's chains, the words of a command, and the words for what a command
// is about. Pure: takes texts and records.
#include "command.h"

#include <sstream>

#include "tarnic_iptables.h"
#include "text.h"

namespace tool {

using std::string;
using kind = object::kind;

string rule_chain(const string &ifname) { return mordel::chain_prefix + ifname; }
string automark_chain(const string &ifname) { return rule_chain(ifname) + mordel::automark_suffix; }

string object_text(const object &what)
{
    switch (what.what) {
    case kind::root:
        return "root";
    case kind::tree_class:
        return format("class 1:%x", what.number);
    case kind::leaf:
        return format("leaf of 1:%x", what.number);
    case kind::filter:
        return format("filter of mark 0x%x", what.number);
    case kind::queue_length:
        return "queue length";
    case kind::chain:
        return "chain " + what.chain;
    case kind::jump:
        return "jump of " + what.chain;
    case kind::rule:
        return "rule of " + what.chain;
    case kind::interface:
        return "interface";
    }
    return "";
}

std::vector<string> texts_of(const std::vector<command> &commands)
{
    std::vector<string> all;
    for (const command &c : commands) all.push_back(c.text);
    return all;
}

std::vector<string> words_of(std::string_view text)
{
    std::vector<string> out;
    // The script puts a domain in double quotes for the shell. Here words are handed to a program
    // without a shell: the quotes would become part of the domain.
    std::istringstream in{string(text)};
    for (string word; in >> word;) {
        if (word.size() >= 2 && word.front() == '"' && word.back() == '"')
            word = word.substr(1, word.size() - 2);
        out.push_back(word);
    }
    return out;
}

}  // namespace tool
