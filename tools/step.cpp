// SPDX-License-Identifier: MIT
// Owns the words for a step. Pure: takes records and gives texts.

#include "step.h"

#include <algorithm>

namespace tool {

using std::string;

string step_text(const step &s)
{
    switch (s.by) {
    case program::tc:
        return "tc " + s.command;
    case program::iptables_restore:
        return "iptables-restore: " + s.command;
    case program::ifconfig:
        return "ifconfig " + s.command;
    case program::start_script:
        return s.command;
    }
    return "";
}

std::vector<string> commands_of(const std::vector<step> &steps, program by)
{
    std::vector<string> all;
    for (const step &s : steps)
        if (s.by == by) all.push_back(s.command);
    return all;
}

std::vector<string> undo_of(const std::vector<step> &steps, std::size_t done)
{
    std::vector<string> all;
    for (std::size_t i = std::min(done, steps.size()); i-- > 0;)
        all.insert(all.end(), steps[i].undo.begin(), steps[i].undo.end());
    return all;
}

}  // namespace tool
