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
    std::string refused;  // the first part that the library refused, "root of eth0: 0x1"; or ""
    std::vector<interface_texts> interfaces;  // in the policy's order; empty after a refusal
};

// Throws std::bad_alloc when a text finds no memory: half a script would leave half a tree.
rendering render(const policy &p);

// Has the library write the start script of an interface to start_script_path. False when the
// library refused the policy or could not write the file.
bool write_start_script(const policy &p, const std::string &ifname);

}  // namespace tool
