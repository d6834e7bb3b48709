// The library's numbers, and the names that policies and reports have for them.
#pragma once

#include <string>
#include <string_view>

#include "mordel.h"

namespace tool {

// By qos_if.root_type, leaf_qdisc.type, qos_match.protocol, qos_match.alg
inline constexpr std::string_view root_names[] = {"pfifo_fast", "htb", "hfsc", "prio"};
inline constexpr std::string_view leaf_names[] = {"pfifo", "sfq", "red", "tbf"};
inline constexpr std::string_view protocol_names[] = {"tcp", "udp", "icmp", "both", "all"};
inline constexpr std::string_view alg_names[] = {"sip", "Q.931", "ftp"};

// By bit: TCP flags, days
inline constexpr std::string_view flag_names[] = {"SYN", "ACK", "FIN", "RST", "URG", "PSH"};
inline constexpr std::string_view day_names[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

// By the id of a DSCP class
inline constexpr std::string_view dscp_names[] = {
    "CS0",  "CS1",  "CS2",  "CS3",  "CS4",  "CS5",  "CS6",  "CS7",  "BE",   "AF11", "AF12",
    "AF13", "AF21", "AF22", "AF23", "AF31", "AF32", "AF33", "AF41", "AF42", "AF43", "EF"};

// A TOS's name and its id, at the same place
inline constexpr std::string_view tos_names[] = {"Minimize-Delay", "Maximize-Throughput",
                                                 "Maximize-Reliability", "Minimize-Cost",
                                                 "Normal-Service"};
inline constexpr u32 tos_ids[] = {16, 8, 4, 2, 0};

// Bits of qos_match.flags. The script says --vlan-id for the first and --vlan-prio for the second,
// whatever their names in the library; a policy means what the script says.
enum match_bit {
    match_vlan_id,
    match_vlan_prio,
    match_mac,
    match_ip,
    match_dscp,
    match_tos,
    match_alg,
    match_length,
    match_protocol,
    match_domain,
    match_url
};

// Bits of qos_target.flags
enum target_bit { target_mark, target_tos, target_dscp, target_mkvlan, target_log };

// qos_match.protocol
enum { protocol_tcp, protocol_udp, protocol_icmp, protocol_both, protocol_all };

// qos_match.dscp_mode, and qos_target.kind of a DSCP target
enum { dscp_number, dscp_class };

constexpr bool has(u32 flags, u32 bit) { return (flags >> bit & 1) != 0; }

}  // namespace tool
