// SPDX-License-Identifier: MIT
// What a rule may match, and what it may do to a packet: all that this command knows of one kind of
// either is its row.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "mainline.h"
#include "mordel.h"
#include "policy.h"
#include "table_reader.h"

namespace tool {

// What mainline kernels refuse, and what to write instead; null: nothing
struct refusal {
    const char *what;
    const char *instead;
};

struct match_kind {
    u32 bit;  // of qos_match.flags
    std::span<const std::string_view> keys;
    void (*read)(table_reader &in, qos_match &match);
    refusal mainline;
    std::string (*text)(const qos_match &match);  // "dscp EF"
};

struct target_kind {
    u32 bit;  // of qos_target.flags
    std::span<const std::string_view> keys;
    void (*read)(table_reader &in, qos_target &target);
    refusal (*mainline)(const qos_target &target);
    std::string (*text)(const qos_target &target);  // "set dscp EF"
};

std::span<const match_kind> match_kinds();    // in the order of reports
std::span<const target_kind> target_kinds();  // likewise

// The match and the target of a rule's entry, all kinds of them
void read_match(const toml::table &table, policy_rule &rule, diagnostics &found);
void read_target(const toml::table &table, policy_rule &rule, diagnostics &found);

// Warns of what mainline kernels refuse of a rule.
void warn_of_kinds(const policy_rule &rule, diagnostics &found);

// "tcp dport 80:443, dscp EF"; "everything" for a rule without a match
std::string match_text(const qos_match &match);
// "mark 0x10, log"
std::string target_text(const qos_target &target);

}  // namespace tool
