// SPDX-License-Identifier: MIT
// What the rules offer the tree's scripts, the reports, the command mordel and the tests.
#pragma once

#include <cstdio>

#include "mordel.h"

namespace mordel {

// ---- Names -------------------------------------------------------------------------------------

extern const txt_map WeekStrMap[];
extern const txt_map DscpClassStrMap[];
extern const txt_map TosStrMap[];
extern const txt_map AlgStrMap[];
extern const txt_map TcpFlagStrMap[];
extern const txt_map RuleActStrMap[];
extern const txt_map QfStrMap[];

// Bits of qos_match.flags, by their ids in QfStrMap
enum match_kind {
    QF_802_1P,
    QF_802_1Q,
    QF_MAC,
    QF_IP,
    QF_DSCP,
    QF_TOS,
    QF_ALG,
    QF_PKTLEN,
    QF_PROTOCOL,
    QF_DOMAIN,
    QF_URL,
    match_kinds
};

// Bits of qos_target.flags
enum target_kind { target_mark, target_tos, target_dscp, target_mkvlan, target_log, target_kinds };

// Values of qos_match.protocol
enum protocol_id { proto_tcp, proto_udp, proto_icmp, proto_both, proto_all, protocols };

// ---- Rendering ---------------------------------------------------------------------------------

// A rule chain is chain_prefix and its interface's name; an automark chain has the suffix too.
constexpr char chain_prefix[] = "QOS_";
constexpr char automark_suffix[] = "_AUTO";
constexpr u32 flag_text_size = 32;    // what get_tcp_flag_str clears
constexpr u32 rule_text_size = 1024;  // what draw_target clears

// Clears flag_text_size bytes and lists the flags' names, each followed by a comma.
void get_tcp_flag_str(char *text, u8 flags);

// Clears rule_text_size bytes of text, whatever size says, and renders one target kind.
// Returns the length of the text; 0: no text.
u32 draw_target(u32 kind, char *text, u32 size, const qos_target *target);

// Writes a rule's lines for the chain PREFIX + IFNAME. action: an id of RuleActStrMap.
// Returns 1; 0, and nothing is written, for an unknown protocol.
int draw_rule(FILE *out, const qos_rule *rule, u32 action, const char *prefix, const char *ifname);

void del_rule_chain_jumps(FILE *out, const char *prefix, const char *ifname);
void add_rule_chain_jumps(FILE *out, const char *prefix, const char *ifname);
void flush_rule_chains(FILE *out, const char *prefix, const char *ifname);
void delete_rule_chains(FILE *out, const char *prefix, const char *ifname);
void renew_rule_chains(FILE *out, const char *prefix, const char *ifname);

// The rule script whole
void rules2script(FILE *out, const char *ifname, list_head *rules);

// ---- Report ------------------------------------------------------------------------------------

void show_match(const qos_match *match);
void show_target(const qos_target *target);

}  // namespace mordel
