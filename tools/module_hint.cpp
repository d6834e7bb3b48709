// SPDX-License-Identifier: MIT
// Owns the way from a refused command to the modules that it needs. Pure: takes texts.

#include "module_hint.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "text.h"

namespace tool {
namespace {

using std::string;
using words = std::vector<string>;

// How tc and iptables say that the kernel does not know something
constexpr std::string_view unknown[] = {
    "No such file or directory",         "Specified qdisc kind is unknown",
    "Specified qdisc not found",         "TC classifier not found",
    "Specified filter kind is unknown",  "missing kernel module",
    "No chain/target/match by that name"};

// Not from modules: the targets that every table has, and an interface's own chains
bool is_built_in(const string &target)
{
    constexpr std::string_view targets[] = {"ACCEPT", "DROP", "RETURN", "QUEUE"};
    return std::find(std::begin(targets), std::end(targets), target) != std::end(targets) ||
           target.starts_with("QOS_");
}

// The word behind the handle or "root" of a qdisc, or "fw" of a filter: the commands are those of
// the start script.
words modules_of_tc(const words &w)
{
    const auto word = [&](std::size_t at) { return at < w.size() ? w[at] : string(); };
    if (word(0) == "filter") return {"cls_fw"};
    if (word(0) != "qdisc" || word(1) == "del") return {};
    const string kind = word(6) == "root" ? word(7) : word(8);
    return kind.empty() ? words() : words{"sch_" + kind};
}

words modules_of_rule(const words &w)
{
    words all;
    for (std::size_t i = 0; i + 1 < w.size(); ++i) {
        const bool named = w[i] == "-m" || (w[i] == "-j" && !is_built_in(w[i + 1]));
        const string module = "xt_" + w[i + 1];
        if (named && std::find(all.begin(), all.end(), module) == all.end()) all.push_back(module);
    }
    return all;
}

}  // namespace

string module_hint(program by, const string &said, const string &command)
{
    const bool not_there =
        std::any_of(std::begin(unknown), std::end(unknown),
                    [&](std::string_view sign) { return said.find(sign) != string::npos; });
    if (!not_there) return "";
    const words w = words_of(command);
    const words modules = by == program::tc ? modules_of_tc(w) : modules_of_rule(w);
    if (modules.empty()) return "";
    const std::vector<std::string_view> views(modules.begin(), modules.end());
    return "; the kernel may lack its module " + joined(views);
}

}  // namespace tool
