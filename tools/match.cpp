// SPDX-License-Identifier: MIT
// The tables of the match kinds and of the target kinds, and above each the functions that their
// rows hold. Pure: no file, no kernel, no state.
#include "match.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>

#include "names.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using std::string_view;
using key_list = std::span<const string_view>;

// "FIRST:LAST"
struct range {
    u32 first;
    u32 last;
};

std::optional<range> parse_range(string_view text)
{
    range out{};
    const char *end = text.data() + text.size();
    const auto first = std::from_chars(text.data(), end, out.first);
    if (first.ec != std::errc{} || first.ptr == end || *first.ptr != ':') return std::nullopt;
    const auto last = std::from_chars(first.ptr + 1, end, out.last);
    if (last.ec != std::errc{} || last.ptr != end) return std::nullopt;
    return out;
}

// A number, which stands for a range of one, or a text "FIRST:LAST"
std::optional<range> read_range(table_reader &in, string_view key, u32 least, u32 most)
{
    const toml::node *node = in.get(key);
    if (node == nullptr) return std::nullopt;
    std::optional<range> out;
    if (const auto *number = node->as_integer()) {
        const std::int64_t value = number->get();
        if (value >= least && value <= most)
            out = range{static_cast<u32>(value), static_cast<u32>(value)};
    } else if (const auto *text = node->as_string()) {
        out = parse_range(text->get());
        if (out && (out->first < least || out->last > most)) out.reset();
        if (out && out->first > out->last) {
            in.wrong(key, format("a range begins with its lower end; write \"%u:%u\"", out->last,
                                 out->first));
            return std::nullopt;
        }
    }
    if (!out)
        in.wrong(key, format("it is a number from %u to %u, or two like \"%u:%u\"", least, most,
                             most / 2 + 1, most));
    return out;
}

string range_text(u32 first, u32 last)
{
    return first == last ? format("%u", first) : format("%u:%u", first, last);
}

// Puts a text into a char array whose other bytes are zeros. The caller has checked that the text
// fits: a longer one would be cut here without a word.
template <std::size_t N>
void store(char (&field)[N], const string &text)
{
    std::memcpy(field, text.data(), std::min(text.size(), N - 1));
}

// The text of a char array. The library reads such a field to its end when it has no NUL, and so
// does this.
template <std::size_t N>
string stored(const char (&field)[N])
{
    return {field, ::strnlen(field, N)};
}

// ---- Protocol, ports, TCP flags -----------------------------------------------------------------

// Bits by the ids of the library's table
u8 read_flags(table_reader &in, string_view key)
{
    u8 flags = 0;
    const toml::array *list = in.array(key, "it is an array like [\"SYN\", \"ACK\"]");
    if (list == nullptr) return 0;
    for (const toml::node &node : *list)
        if (const auto flag = in.word_in(key, node, mordel::TcpFlagStrMap); flag.is_good())
            flags |= static_cast<u8>(1U << flag.get());
    return flags;
}

void read_tcp_flags(table_reader &in, qos_match &m)
{
    const toml::table *table =
        in.table("tcp_flags", "it is a table like { mask = [\"SYN\", \"ACK\"], set = [\"SYN\"] }");
    if (table == nullptr) return;
    table_reader sub(*table, "tcp_flags", {"mask", "set"}, in.found());
    if (!sub.must({"mask", "set"}, "a list of flags")) return;
    const std::size_t before = in.found().errors();
    m.tcp_flag_mask = read_flags(sub, "mask");
    m.tcp_flag_comp = read_flags(sub, "set");
    // The library writes --tcp-flags only when both lists have a flag. Left out, the rule would
    // pick far more packets than the policy says.
    for (const string_view key : {string_view("mask"), string_view("set")})
        if (const auto *list = sub.get(key)->as_array(); list != nullptr && list->empty())
            sub.wrong(key, "without a flag the library writes no match; name one");
    // Only when both lists were read: a mask with a wrong name in it looks too short.
    if ((m.tcp_flag_comp & ~m.tcp_flag_mask) != 0 && in.found().errors() == before)
        in.found().error(sub.at("set"), "set names flags that mask does not, so no packet matches;"
                                        " add them to mask");
}

// Ports take a protocol that has ports, and TCP flags take TCP. Behind another protocol the library
// leaves them out, and the rule would pick far more packets than the policy says.
void check_protocol(table_reader &in, const value<u32> &protocol)
{
    const bool tcp = protocol.is_good() &&
                     (protocol.get() == mordel::proto_tcp || protocol.get() == mordel::proto_both);
    const bool ported = tcp || (protocol.is_good() && protocol.get() == mordel::proto_udp);
    if ((in.has("sport") || in.has("dport")) && !ported)
        in.found().error(in.at(in.has("sport") ? "sport" : "dport"),
                         "ports without TCP or UDP; add protocol = \"tcp\", \"udp\" or \"both\"");
    if (in.has("tcp_flags") && !tcp)
        in.found().error(in.at("tcp_flags"),
                         "TCP flags without TCP; add protocol = \"tcp\" or \"both\"");
}

constexpr string_view protocol_keys[] = {"protocol", "sport", "dport", "tcp_flags"};

void read_protocol(table_reader &in, qos_match &m)
{
    const value<u32> protocol = in.word("protocol", protocol_names);
    // What belongs beside a wrong protocol is not known: nothing is said of ports and flags.
    if (protocol.is_wrong()) return;
    if (protocol.is_good()) m.flags |= 1U << mordel::QF_PROTOCOL;
    m.protocol = protocol.get();
    check_protocol(in, protocol);
    if (const auto r = read_range(in, "sport", 1, 65535)) {
        m.sport_start = static_cast<u16>(r->first);
        m.sport_end = static_cast<u16>(r->last);
    }
    if (const auto r = read_range(in, "dport", 1, 65535)) {
        m.dport_start = static_cast<u16>(r->first);
        m.dport_end = static_cast<u16>(r->last);
    }
    read_tcp_flags(in, m);
}

string protocol_text(const qos_match &m)
{
    string out(protocol_texts[m.protocol]);
    // A range that begins with 0 is none, to the library too.
    if (m.sport_start != 0) out += " sport " + range_text(m.sport_start, m.sport_end);
    if (m.dport_start != 0) out += " dport " + range_text(m.dport_start, m.dport_end);
    if (m.tcp_flag_mask != 0)
        out += " flags " + bit_names(m.tcp_flag_comp, mordel::TcpFlagStrMap, "+") + "/" +
               bit_names(m.tcp_flag_mask, mordel::TcpFlagStrMap, "+");
    return out;
}

// ---- Addresses ----------------------------------------------------------------------------------

// "A", "A/BITS" or "A-B". In host byte order, so that the ends of a range compare as numbers.
std::optional<range> parse_addresses(const string &text)
{
    if (const std::size_t dash = text.find('-'); dash != string::npos) {
        const auto first = parse_ipv4(string_view(text).substr(0, dash));
        const auto last = parse_ipv4(string_view(text).substr(dash + 1));
        return first && last ? std::optional(range{*first, *last}) : std::nullopt;
    }
    const std::size_t slash = text.find('/');
    const auto ip = parse_ipv4(string_view(text).substr(0, slash));
    if (!ip || slash == string::npos) return ip ? std::optional(range{*ip, *ip}) : std::nullopt;
    unsigned bits = 0;
    const char *end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(text.data() + slash + 1, end, bits);
    if (error != std::errc{} || behind != end || bits > 32) return std::nullopt;
    // The host's part of the address. With 0 bits the shift would be by 32, which C++ leaves
    // undefined.
    const u32 host = bits == 0 ? no_limit : (u32{1} << (32 - bits)) - 1;
    return range{*ip & ~host, *ip | host};
}

std::optional<range> read_addresses(table_reader &in, string_view key)
{
    const string right = "it is an address, \"192.168.1.0/24\" or \"192.168.1.100-192.168.1.109\"";
    const value<string> text = in.text(key, right);
    if (!text.is_good()) return std::nullopt;
    const auto out = parse_addresses(text.get());
    // The library takes a first address of 0 for no range: such a rule would pick every address.
    if (!out) {
        in.wrong(key, right);
    } else if (out->first > out->last) {
        in.wrong(key, format("a range begins with its lower end; write \"%s-%s\"",
                             ipv4_text(out->last).c_str(), ipv4_text(out->first).c_str()));
    } else if (out->first == 0) {
        in.wrong(key,
                 format("0.0.0.0 means no range to the library; begin with 0.0.0.1, or leave out"
                        " %.*s to match every address",
                        static_cast<int>(key.size()), key.data()));
    } else {
        return out;
    }
    return std::nullopt;
}

constexpr string_view ip_keys[] = {"src", "dst"};

void read_ip(table_reader &in, qos_match &m)
{
    if (in.has("src") || in.has("dst")) m.flags |= 1U << mordel::QF_IP;
    if (const auto r = read_addresses(in, "src")) {
        m.src_ip_start = r->first;
        m.src_ip_end = r->last;
    }
    if (const auto r = read_addresses(in, "dst")) {
        m.dst_ip_start = r->first;
        m.dst_ip_end = r->last;
    }
}

string address_text(const char *key, u32 first, u32 last)
{
    if (first == 0) return "";
    return string(key) + " " + ipv4_text(first) + (first == last ? "" : "-" + ipv4_text(last));
}

string ip_text(const qos_match &m)
{
    const string src = address_text("src", m.src_ip_start, m.src_ip_end);
    const string dst = address_text("dst", m.dst_ip_start, m.dst_ip_end);
    return src + (src.empty() || dst.empty() ? "" : ", ") + dst;
}

constexpr string_view mac_keys[] = {"mac"};

void read_mac(table_reader &in, qos_match &m)
{
    const value<string> mac = in.text("mac", "it is a text like \"00:11:22:33:44:55\"");
    if (!mac.is_good()) return;
    // Set before the text is judged: what a mainline kernel refuses is told beside a wrong text,
    // and both are mended at once. So for domain and URL below.
    m.flags |= 1U << mordel::QF_MAC;
    if (is_mac(mac.get()))
        store(m.src_mac, mac.get());
    else
        in.wrong("mac", "it is six pairs of hexadecimal digits, like \"00:11:22:33:44:55\"");
}

string mac_text(const qos_match &m) { return "mac " + stored(m.src_mac); }

// ---- DSCP and TOS, of both tables ---------------------------------------------------------------

constexpr string_view dscp_keys[] = {"dscp"};

struct dscp {
    u32 mode;   // dscp_number or dscp_class
    u32 value;  // the number; of a class its id in the library's table
};

// A number or the name of a class. The library keeps which of the two it is (the mode), since
// iptables has an option for each.
std::optional<dscp> read_dscp_value(table_reader &in)
{
    const toml::node *node = in.get("dscp");
    if (node == nullptr) return std::nullopt;
    if (const auto *number = node->as_integer()) {
        if (number->get() >= 0 && number->get() <= 63)
            return dscp{dscp_number, static_cast<u32>(number->get())};
    } else if (const auto *text = node->as_string()) {
        if (const auto id = id_in(mordel::DscpClassStrMap, text->get()))
            return dscp{dscp_class, *id};
    }
    in.wrong("dscp", "it is a number from 0 to 63, or a class: CS0 to CS7, BE, AF11 to AF43, EF");
    return std::nullopt;
}

string dscp_text(u32 mode, u8 raw, u32 id)
{
    return mode == dscp_class ? TxtMapById(mordel::DscpClassStrMap, static_cast<int>(id))
                              : format("%d", raw);
}

void read_dscp(table_reader &in, qos_match &m)
{
    const auto d = read_dscp_value(in);
    if (!d) return;
    m.flags |= 1U << mordel::QF_DSCP;
    m.dscp_mode = d->mode;
    if (d->mode == dscp_class)
        m.dscp_value.class_id = d->value;
    else
        m.dscp_value.raw = static_cast<u8>(d->value);
}

string dscp_match_text(const qos_match &m)
{
    return "dscp " + dscp_text(m.dscp_mode, m.dscp_value.raw, m.dscp_value.class_id);
}

constexpr string_view tos_keys[] = {"tos", "precedence"};

struct tos {
    u32 id;
    u8 precedence;
};

// precedence belongs to tos: the library has one bit for the pair and writes both or none.
std::optional<tos> read_tos_value(table_reader &in)
{
    const value<u32> precedence = in.number("precedence", 0, 7);
    if (in.has("precedence") && !in.has("tos"))
        in.found().error(in.at("precedence"),
                         "precedence without tos; add one, tos = \"Normal-Service\" for none");
    const value<u32> id = in.word("tos", mordel::TosStrMap);
    if (!id.is_good()) return std::nullopt;
    return tos{id.get(), static_cast<u8>(precedence.get())};
}

string tos_text(u32 id, u8 precedence)
{
    return format("tos %s precedence %d", TxtMapById(mordel::TosStrMap, static_cast<int>(id)),
                  precedence);
}

void read_tos(table_reader &in, qos_match &m)
{
    const auto t = read_tos_value(in);
    if (!t) return;
    m.flags |= 1U << mordel::QF_TOS;
    m.tos = t->id;
    m.precedence = t->precedence;
}

string tos_match_text(const qos_match &m) { return tos_text(m.tos, m.precedence); }

// ---- Matches of one value each ------------------------------------------------------------------

constexpr string_view alg_keys[] = {"alg"};

void read_alg(table_reader &in, qos_match &m)
{
    const value<u32> alg = in.word("alg", mordel::AlgStrMap);
    if (!alg.is_good()) return;
    m.flags |= 1U << mordel::QF_ALG;
    m.alg = alg.get();
}

string alg_text(const qos_match &m)
{
    return string("alg ") + TxtMapById(mordel::AlgStrMap, static_cast<int>(m.alg));
}

constexpr string_view length_keys[] = {"length"};

void read_length(table_reader &in, qos_match &m)
{
    const auto r = read_range(in, "length", 0, 65535);
    if (!r) return;
    m.flags |= 1U << mordel::QF_PKTLEN;
    // The library keeps both ends in one number: the lower one in the high half.
    m.pkt_len = r->first << 16 | r->last;
}

string length_text(const qos_match &m)
{
    return "length " + range_text(m.pkt_len >> 16, m.pkt_len & 0xffff);
}

constexpr string_view vlan_id_keys[] = {"vlan_id"};

void read_vlan_id(table_reader &in, qos_match &m)
{
    const value<u32> id = in.number("vlan_id", 0, 4095);
    if (!id.is_good()) return;
    // The bit is the one under which the script says --vlan-id (names.h).
    m.flags |= 1U << match_vlan_id;
    m.vlan_id = static_cast<u16>(id.get());
}

string vlan_id_text(const qos_match &m) { return format("vlan_id %d", m.vlan_id); }

constexpr string_view vlan_prio_keys[] = {"vlan_prio"};

void read_vlan_prio(table_reader &in, qos_match &m)
{
    const value<u32> prio = in.number("vlan_prio", 0, 7);
    if (!prio.is_good()) return;
    m.flags |= 1U << match_vlan_prio;
    m.dot1p_prio = static_cast<u8>(prio.get());
}

string vlan_prio_text(const qos_match &m) { return format("vlan_prio %d", m.dot1p_prio); }

constexpr string_view domain_keys[] = {"domain"};

void read_domain(table_reader &in, qos_match &m)
{
    const char *const right =
        "it goes into a script as it is: 1 to 255 letters, digits and . _ -, no dash first";
    const value<string> domain = in.text("domain", right);
    if (!domain.is_good()) return;
    m.flags |= 1U << mordel::QF_DOMAIN;
    // A script names domain and URL without quotes. A character that a shell knows would make a
    // command of the text.
    if (safe_domain(domain.get()) && domain.get().size() < sizeof m.domain)
        store(m.domain, domain.get());
    else
        in.wrong("domain", right);
}

string domain_text(const qos_match &m) { return "domain " + stored(m.domain); }

constexpr string_view url_keys[] = {"url"};

void read_url(table_reader &in, qos_match &m)
{
    const char *const right = "it goes into a script as it is: 1 to 255 letters, digits and"
                              " . _ - / : % + , = @, no dash first";
    const value<string> url = in.text("url", right);
    if (!url.is_good()) return;
    m.flags |= 1U << mordel::QF_URL;
    if (safe_url(url.get()) && url.get().size() < sizeof m.url)
        store(m.url, url.get());
    else
        in.wrong("url", right);
}

string url_text(const qos_match &m) { return "url " + stored(m.url); }

// ---- Targets ------------------------------------------------------------------------------------

refusal nothing_refused(const qos_target &) { return {nullptr, nullptr}; }

constexpr string_view mark_keys[] = {"mark"};

// Whether a leaf class has this handle, check_mark says when all classes are read.
void read_mark(table_reader &in, qos_target &t)
{
    const value<u32> mark = in.number("mark", 0, 65535);
    if (!mark.is_good()) return;
    t.flags |= 1U << mordel::target_mark;
    t.mark = static_cast<u16>(mark.get());
}

string mark_text(const qos_target &t) { return "mark " + hex(t.mark); }

void read_tos_target(table_reader &in, qos_target &t)
{
    const auto tos = read_tos_value(in);
    if (!tos) return;
    t.flags |= 1U << mordel::target_tos;
    t.kind = tos->id;
    t.value.raw = tos->precedence;
}

refusal tos_refused(const qos_target &) { return {"a TOS target, for its precedence", "set dscp"}; }

string tos_target_text(const qos_target &t) { return "set " + tos_text(t.kind, t.value.raw); }

void read_dscp_target(table_reader &in, qos_target &t)
{
    const auto dscp = read_dscp_value(in);
    if (!dscp) return;
    // The library keeps both targets in one pair of fields, `kind` and `value`: the TOS id or the
    // DSCP mode, the precedence or the DSCP number. Both targets together are possible only where
    // the fields happen to agree. TOS is read before DSCP, by the order of `targets`.
    if (has(t.flags, mordel::target_tos) &&
        (t.kind != 0 || dscp->mode != dscp_number || dscp->value != t.value.raw))
        in.found().error(in.at("dscp"), "tos and dscp in one target share their storage; make two"
                                        " rules of it");
    t.flags |= 1U << mordel::target_dscp;
    t.kind = dscp->mode;
    if (dscp->mode == dscp_class)
        t.value.class_id = dscp->value;
    else
        t.value.raw = static_cast<u8>(dscp->value);
}

refusal dscp_refused(const qos_target &t)
{
    if (t.kind != dscp_class) return {nullptr, nullptr};
    return {"a DSCP target by class name", "give its number"};
}

string dscp_target_text(const qos_target &t)
{
    return "set dscp " + dscp_text(t.kind, t.value.raw, t.value.class_id);
}

constexpr string_view mkvlan_keys[] = {"mkvlan"};

void read_mkvlan(table_reader &in, qos_target &t)
{
    const toml::table *table = in.table("mkvlan", "it is a table like { id = 100, prio = 5 }");
    if (table == nullptr) return;
    table_reader sub(*table, "mkvlan", {"id", "prio", "double"}, in.found());
    sub.must({"id"}, "a number from 0 to 4095");
    t.flags |= 1U << mordel::target_mkvlan;
    t.vlan_id = static_cast<u16>(sub.number("id", 0, 4095).get());
    t.vlan_prio = static_cast<u8>(sub.number("prio", 0, 7).get());
    t.vlan_double = sub.flag("double").get() ? 1 : 0;
}

refusal mkvlan_refused(const qos_target &) { return {"an MKVLAN target", "leave it out"}; }

string mkvlan_text(const qos_target &t)
{
    return format("add vlan %d prio %d%s", t.vlan_id, t.vlan_prio,
                  t.vlan_double != 0 ? " double" : "");
}

constexpr string_view log_keys[] = {"log"};

// The library keeps the flag and writes no command for it, whichever the kernel: so the warning
// stands here and not among those for mainline kernels.
void read_log(table_reader &in, qos_target &t)
{
    if (!in.flag("log").get()) return;
    t.flags |= 1U << mordel::target_log;
    t.log = 1;
    in.found().warning(in.at("log"), "no command comes of log; it is kept and shown alone");
}

string log_text(const qos_target &) { return "log"; }

// ---- The tables ---------------------------------------------------------------------------------

// clang-format off
constexpr match_kind matches[] = {
    {mordel::QF_PROTOCOL, protocol_keys, read_protocol, {nullptr, nullptr}, protocol_text},
    {mordel::QF_IP, ip_keys, read_ip, {nullptr, nullptr}, ip_text},
    {mordel::QF_MAC, mac_keys, read_mac,
     {"a MAC match in chains that OUTPUT enters", "match addresses"}, mac_text},
    {mordel::QF_DSCP, dscp_keys, read_dscp, {nullptr, nullptr}, dscp_match_text},
    {mordel::QF_TOS, tos_keys, read_tos,
     {"a TOS match, for its precedence", "match dscp"}, tos_match_text},
    {mordel::QF_ALG, alg_keys, read_alg, {nullptr, nullptr}, alg_text},
    {mordel::QF_PKTLEN, length_keys, read_length, {nullptr, nullptr}, length_text},
    {match_vlan_id, vlan_id_keys, read_vlan_id, {"a VLAN match", "leave it out"}, vlan_id_text},
    {match_vlan_prio, vlan_prio_keys, read_vlan_prio,
     {"a VLAN match", "leave it out"}, vlan_prio_text},
    {mordel::QF_DOMAIN, domain_keys, read_domain,
     {"a domain match", "match addresses"}, domain_text},
    {mordel::QF_URL, url_keys, read_url, {"a URL match", "match addresses"}, url_text},
};

// tos stands before dscp: read_dscp_target looks for what read_tos_target has stored.
constexpr target_kind targets[] = {
    {mordel::target_mark, mark_keys, read_mark, nothing_refused, mark_text},
    {mordel::target_tos, tos_keys, read_tos_target, tos_refused, tos_target_text},
    {mordel::target_dscp, dscp_keys, read_dscp_target, dscp_refused, dscp_target_text},
    {mordel::target_mkvlan, mkvlan_keys, read_mkvlan, mkvlan_refused, mkvlan_text},
    {mordel::target_log, log_keys, read_log, nothing_refused, log_text},
};
// clang-format on

// All keys of a match and of a target, in the order in which messages list them: not that of the
// rows, and schedule has no row.
constexpr string_view match_keys[] = {
    "protocol",   "sport",  "dport", "tcp_flags", "src",       "dst",    "mac", "dscp",    "tos",
    "precedence", "length", "alg",   "vlan_id",   "vlan_prio", "domain", "url", "schedule"};
constexpr string_view target_keys[] = {"mark", "tos", "precedence", "dscp", "mkvlan", "log"};

// Whether each bit below `bits` has one row, and each key of the rows is listed. A kind without a
// row would be refused in policies and missing in reports; a key that is not listed would be
// refused as unknown though a row reads it.
template <typename Rows, typename Keys>
constexpr bool are_whole(const Rows &rows, u32 bits, const Keys &keys)
{
    u32 seen = 0;
    for (const auto &row : rows) {
        if ((seen >> row.bit & 1) != 0) return false;
        seen |= 1U << row.bit;
        for (const string_view key : row.keys)
            if (std::find(std::begin(keys), std::end(keys), key) == std::end(keys)) return false;
    }
    return seen == (1U << bits) - 1;
}
static_assert(are_whole(matches, mordel::match_kinds, match_keys),
              "a row for each QF_…, and its keys among match_keys");
static_assert(are_whole(targets, mordel::target_kinds, target_keys),
              "a row for each target_…, and its keys among target_keys");

// The texts of the kinds whose flag is set
template <typename Rows, typename Record>
string texts(const Rows &rows, const Record &record)
{
    string out;
    for (const auto &row : rows)
        if (has(record.flags, row.bit)) out += (out.empty() ? "" : ", ") + row.text(record);
    return out;
}

}  // namespace

std::span<const match_kind> match_kinds() { return matches; }
std::span<const target_kind> target_kinds() { return targets; }

void read_match(const toml::table &table, policy_rule &rule, diagnostics &found)
{
    table_reader in(table, "a match", found);
    in.only("a match", match_keys);
    for (const match_kind &kind : matches) {
        kind.read(in, rule.match);
        rule.match_at[kind.bit] = in.at(kind.keys.front());
    }
    rule.schedule = in.number("schedule", 1, 255);
    rule.match.sched_index = static_cast<u8>(rule.schedule.get());
}

void read_target(const toml::table &table, policy_rule &rule, diagnostics &found)
{
    table_reader in(table, "a target", found);
    in.only("a target", target_keys);
    for (const target_kind &kind : targets) {
        kind.read(in, rule.target);
        rule.target_at[kind.bit] = in.at(kind.keys.front());
    }
    if (in.empty()) found.error(in.at(), "an empty target; give mark, tos, dscp, mkvlan or log");
}

// Goes by the flags in the record, not by the keys in the file: what the script will say counts.
void warn_of_kinds(const policy_rule &rule, diagnostics &found)
{
    const auto warn = [&](const refusal &refused, position at) {
        if (refused.what != nullptr) warn_of_mainline(found, at, refused.what, refused.instead);
    };
    for (const match_kind &kind : matches)
        if (has(rule.match.flags, kind.bit)) warn(kind.mainline, rule.match_at[kind.bit]);
    for (const target_kind &kind : targets)
        if (has(rule.target.flags, kind.bit))
            warn(kind.mainline(rule.target), rule.target_at[kind.bit]);
}

string match_text(const qos_match &match)
{
    string out = texts(matches, match);
    // A schedule has no flag and so no row; index 0 is none.
    if (match.sched_index != 0)
        out += (out.empty() ? "" : ", ") + format("schedule %d", match.sched_index);
    return out.empty() ? "everything" : out;
}

string target_text(const qos_target &target) { return texts(targets, target); }

}  // namespace tool
