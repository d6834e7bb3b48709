// A policy as a person wants to see it.
#pragma once

#include <string>

#include "policy.h"

namespace tool {

struct look {
    bool colour = false;
    bool utf8 = false;
};

std::string show_tree(const policy &p, const look &how);
std::string show_dot(const policy &p);
std::string show_json(const policy &p);

// "sfq perturb 10s"
std::string leaf_text(const leaf_qdisc &leaf);
// "tcp dport 80:443, dscp EF"; "everything" for a rule without a match
std::string match_text(const qos_match &match);
// "mark 0x10, log"
std::string target_text(const qos_target &target);

}  // namespace tool
