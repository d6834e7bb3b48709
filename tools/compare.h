// What the kernel holds beside what the policy says.
#pragma once

#include <string>
#include <vector>

#include "kernel.h"
#include "policy.h"

namespace tool {

struct difference {
    // What it takes to mend it: a new tree, a changed class, a changed or new leaf qdisc
    enum class scope { tree, class_parameters, leaf } what = scope::tree;
    u32 handle = 0;    // of the class
    std::string text;  // "ceil is 3mbit, not 20mbit"
};

// Empty: the kernel holds what the policy says, as far as it can be read back. What the policy
// leaves to tc or the kernel is not compared; of RED's burst and avpkt the kernel tells what they
// come to.
std::vector<difference> compare(const policy_interface &iface, const live_tree &kernel);

}  // namespace tool
