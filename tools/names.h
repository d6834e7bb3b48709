// SPDX-License-Identifier: MIT
// The words that policies and reports have for the library's numbers: lookups in the library's
// tables, and the words for which the library has no table.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mordel.h"
#include "tarnic_iptables.h"

namespace tool {

// By qos_match.protocol: in a policy, and in a report
inline constexpr std::string_view protocol_names[] = {"tcp", "udp", "icmp", "both", "all"};
inline constexpr std::string_view protocol_texts[] = {"tcp", "udp", "icmp", "tcp+udp",
                                                      "all protocols"};
static_assert(std::size(protocol_names) == mordel::protocols);
static_assert(std::size(protocol_texts) == mordel::protocols);

// qos_match.dscp_mode, and qos_target.kind of a DSCP target
enum { dscp_number, dscp_class };

// Bits of qos_match.flags, crossed on purpose. The script says --vlan-id for the bit that the
// library names after 802.1p and --vlan-prio for the one named after 802.1q; a policy means what
// the script says.
enum { match_vlan_id = mordel::QF_802_1P, match_vlan_prio = mordel::QF_802_1Q };

constexpr bool has(u32 flags, u32 bit) { return (flags >> bit & 1) != 0; }

// All texts of one of the library's tables; and the id of a text, in either case, none when the
// table has no such text.
std::vector<std::string_view> texts_of(const txt_map *map);
std::optional<u32> id_in(const txt_map *map, std::string_view word);

// The names of the bits that are set, of a table whose ids are bits
std::string bit_names(u32 bits, const txt_map *map, std::string_view between);

bool same_word(std::string_view a, std::string_view b);

}  // namespace tool
