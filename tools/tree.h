// SPDX-License-Identifier: MIT
// An interface's classes as the kernel will have them: the entries of the policy, and the classes
// that come by themselves.
#pragma once

#include <string>
#include <vector>

#include "policy.h"

namespace tool {

// In the order in which the library is told of them. An entry whose parent could not be read hangs
// on no_parent.
inline constexpr u32 no_parent = 0xffffffff;
std::vector<tree_class> declared_classes(const policy_interface &iface);

// In the order of the library's tree, which is that of the start script; of a good policy.
std::vector<tree_class> tree_of(const policy_interface &iface);

const tree_class *find_class(const std::vector<tree_class> &tree, u32 handle);

// "0x10, 0x11 and 7 more", or "none": handles for a message
std::string listed_classes(const std::vector<tree_class> &tree);
std::string listed_leaves(const std::vector<tree_class> &tree);

// The default tree of an HTB or HFSC interface
std::vector<tree_class> default_tree(u32 root_type, u32 link_kbit, u32 phy_kbit);

// The curve that the script writes for a class besides ul: an id of mordel::CurveTypeMap, and the
// curve; null where there is none.
struct class_curve {
    int id = -1;
    const hfsc_curve *curve = nullptr;
};
class_curve written_curve(const hfsc_class_param &p, bool has_children);

}  // namespace tool
