// SPDX-License-Identifier: MIT
// What the library makes of a policy: the scripts of its interfaces, as texts.
#pragma once

#include <string>
#include <vector>

#include "policy.h"

namespace tool {

// The scripts of an interface, byte for byte as the library writes them
struct interface_texts {
    std::string name;
    std::string start;
    std::string stop;
    std::string rules;
};

struct rendering {
    std::string refused;  // what the library did not take, "root of eth0: 0x1"; "": it took all
    std::vector<interface_texts> interfaces;  // in the order of the policy; none if it refused
};

// Throws std::bad_alloc when there is no room for a text: half a script is no script.
rendering render(const policy &p);

// Has the library write the start script of an interface to its place (start_script_path). False
// when the library refused the policy or could not write.
bool write_start_script(const policy &p, const std::string &ifname);

}  // namespace tool
