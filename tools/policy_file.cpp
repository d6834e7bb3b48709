// SPDX-License-Identifier: MIT
// Owns the reading of the policy files that users name, and the words for what is wrong with them.

#include "policy_file.h"

#include <cstdio>

#include "output.h"
#include "policy_folder.h"
#include "text.h"

namespace tool {

using std::string;

// FILE:LINE:COLUMN: as compilers write it, so that editors jump to the place.
void print(const string &file, const diagnostics &found)
{
    for (const diagnostic &d : found.sorted())
        std::fprintf(stderr, "%s:%u:%u: %s%s\n", harmless(file).c_str(), d.at.line, d.at.column,
                     d.warning ? "warning: " : "", d.text.c_str());
}

std::optional<loaded> load(const string &file, kernel_kind kernel)
{
    string why;
    std::optional<string> text = read_policy_file(file, why);
    if (!text) {
        complain(why);
        return std::nullopt;
    }
    loaded l;
    l.rules = read_policy(*text, kernel, l.found);
    l.text = std::move(*text);
    for (const policy_interface &iface : l.rules.interfaces) l.names.push_back(iface.name);
    return l;
}

std::optional<loaded> load_good(const string &file, kernel_kind kernel)
{
    std::optional<loaded> l = load(file, kernel);
    if (!l) return std::nullopt;
    print(file, l->found);
    return l->found.failed() ? std::nullopt : std::move(l);
}

std::optional<loaded> only(loaded l, const string &interface)
{
    if (interface.empty()) return l;
    std::erase_if(l.rules.interfaces,
                  [&](const policy_interface &iface) { return iface.name != interface; });
    return l.rules.interfaces.empty() ? std::nullopt : std::optional(std::move(l));
}

std::optional<loaded> load_chosen(const string &file, kernel_kind kernel, const string &interface)
{
    auto l = load_good(file, kernel);
    if (!l) return std::nullopt;
    l = only(std::move(*l), interface);
    if (!l) complain(file + " has no interface " + quoted(interface));
    return l;
}

std::optional<rendering> texts_of(const policy &p)
{
    rendering texts = render(p);
    if (texts.refused.empty()) return texts;
    complain("the library refused " + texts.refused);
    return std::nullopt;
}

}  // namespace tool
