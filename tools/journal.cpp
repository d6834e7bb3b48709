// SPDX-License-Identifier: MIT
// Owns the journal's file: JSON, and a sum as its last line. The commands of a journal are run by
// root, so a journal is read strictly: a value of another type, a key too many or a sum that
// differs is no journal of ours.

#include "journal.h"

#include <fcntl.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <string_view>

#include "guards.h"
#include "own_file.h"
#include "process.h"

namespace tool {
namespace {

using std::string;
using std::string_view;
using json = nlohmann::ordered_json;

constexpr unsigned version = 1;

// In the order of the enumerators
constexpr string_view phase_names[] = {"under way", "unconfirmed", "committed"};
constexpr string_view kind_names[] = {"root",  "class", "leaf", "filter",   "queue length",
                                      "chain", "jump",  "rule", "interface"};
static_assert(std::size(phase_names) == 1 + std::size_t(journal::phase::committed));
static_assert(std::size(kind_names) == 1 + std::size_t(object::kind::interface));

// ---- Bytes --------------------------------------------------------------------------------------

// JSON takes no bytes that are not UTF-8, which a comment in a rule may hold: each byte is written
// as the character of its number, as in Latin-1.
string characters_of(string_view bytes)
{
    string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80) {
            out += static_cast<char>(0xc0 | byte >> 6);
            out += static_cast<char>(0x80 | (byte & 0x3f));
        } else {
            out += c;
        }
    }
    return out;
}

// Thrown and caught in this file: a value is not what a journal has in its place.
struct not_ours {};

// The JSON parser has checked that the text is UTF-8.
string bytes_of(string_view characters)
{
    string out;
    for (std::size_t i = 0; i < characters.size(); ++i) {
        const auto first = static_cast<unsigned char>(characters[i]);
        if (first < 0x80) {
            out += characters[i];
            continue;
        }
        if (first > 0xc3) throw not_ours{};  // a character over 0xff
        const auto second = static_cast<unsigned char>(characters[++i]);
        out += static_cast<char>((first & 3) << 6 | (second & 0x3f));
    }
    return out;
}

// ---- Writing ------------------------------------------------------------------------------------

json texts(const std::vector<string> &all)
{
    json out = json::array();
    for (const string &text : all) out.push_back(characters_of(text));
    return out;
}

// A tree has thousands of commands: a list for each, without the names of its values.
json command_json(const command &c)
{
    return json::array({characters_of(c.text), kind_names[std::size_t(c.what.what)], c.what.number,
                        characters_of(c.what.chain), c.line, c.options});
}

json entry_json(const journal_entry &e)
{
    json tree = json::array();
    for (const command &c : e.before.tree) tree.push_back(command_json(c));
    return {{"name", characters_of(e.name)},
            {"index", e.index},
            {"tree", tree},
            {"unwritable", characters_of(e.before.unwritable)},
            {"rules", texts(e.before.rules)},
            {"queue_len", e.before.queue_len},
            {"undo", texts(e.undo)}};
}

// ---- Reading ------------------------------------------------------------------------------------

const json &list(const json &j, std::size_t size)
{
    if (!j.is_array() || j.size() != size) throw not_ours{};
    return j;
}

// An object with as many keys: at() then finds each that is asked for, or there is another.
const json &record(const json &j, std::size_t keys)
{
    if (!j.is_object() || j.size() != keys) throw not_ours{};
    return j;
}

const json &at(const json &j, const char *key)
{
    const auto found = j.find(key);
    if (found == j.end()) throw not_ours{};
    return *found;
}

string text(const json &j)
{
    if (!j.is_string()) throw not_ours{};
    return bytes_of(j.get_ref<const string &>());
}

u32 number(const json &j)
{
    if (!j.is_number_unsigned() || j.get<u64>() > std::numeric_limits<u32>::max()) throw not_ours{};
    return j.get<u32>();
}

bool yes_or_no(const json &j)
{
    if (!j.is_boolean()) throw not_ours{};
    return j.get<bool>();
}

double seconds(const json &j)
{
    if (!j.is_number()) throw not_ours{};
    return j.get<double>();
}

template <typename Enum, std::size_t N>
Enum one_of(const json &j, const string_view (&names)[N])
{
    const string name = text(j);
    for (std::size_t i = 0; i < N; ++i)
        if (names[i] == name) return static_cast<Enum>(i);
    throw not_ours{};
}

template <typename Record>
std::vector<Record> all(const json &j, Record (*read)(const json &))
{
    if (!j.is_array()) throw not_ours{};
    std::vector<Record> out;
    for (const json &one : j) out.push_back(read(one));
    return out;
}

command read_command(const json &j)
{
    const json &c = list(j, 6);
    return {text(c[0]),
            {one_of<object::kind>(c[1], kind_names), number(c[2]), text(c[3])},
            number(c[4]),
            yes_or_no(c[5])};
}

journal_entry read_entry(const json &j)
{
    const json &e = record(j, 7);
    journal_entry out;
    out.name = text(at(e, "name"));
    out.index = number(at(e, "index"));
    out.before.tree = all(at(e, "tree"), read_command);
    out.before.unwritable = text(at(e, "unwritable"));
    out.before.rules = all(at(e, "rules"), text);
    out.before.queue_len = number(at(e, "queue_len"));
    out.undo = all(at(e, "undo"), text);
    return out;
}

journal read_journal(const json &j)
{
    const json &r = record(j, 7);
    if (number(at(r, "version")) != version) throw not_ours{};
    journal out;
    out.what = one_of<journal::phase>(at(r, "phase"), phase_names);
    out.boot = text(at(r, "boot"));
    out.until = seconds(at(r, "until"));
    out.saved_as = text(at(r, "saved_as"));
    out.policy = text(at(r, "policy"));
    out.entries = all(at(r, "entries"), read_entry);
    return out;
}

}  // namespace

// ---- The text -----------------------------------------------------------------------------------

string journal_text(const journal &j)
{
    json entries = json::array();
    for (const journal_entry &e : j.entries) entries.push_back(entry_json(e));
    const json whole = {{"version", version},
                        {"phase", phase_names[std::size_t(j.what)]},
                        {"boot", characters_of(j.boot)},
                        {"until", j.until},
                        {"saved_as", characters_of(j.saved_as)},
                        {"policy", characters_of(j.policy)},
                        {"entries", entries}};
    return whole.dump() + "\n";
}

std::optional<journal> parse_journal(const string &text)
{
    const json whole = json::parse(text, nullptr, false);  // false: an error is no exception
    try {
        return read_journal(whole);
    } catch (const not_ours &) {
        return std::nullopt;
    }
}

string this_boot()
{
    const mordel::fd_guard fd{::open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC)};
    string id = fd ? read_rest(fd.get()).value_or("") : "";
    if (id.ends_with('\n')) id.pop_back();
    return id;
}

// ---- The file -----------------------------------------------------------------------------------

string journal_file::write(const journal &j) const
{
    return replace_own(path_, sealed(journal_text(j)));
}

std::optional<journal> journal_file::read(string &why) const
{
    const auto file = read_own(path_, why);
    if (!file) return std::nullopt;
    const auto text = unsealed(*file);
    if (!text) {
        why = path_ + " is cut short or damaged";
        return std::nullopt;
    }
    auto j = parse_journal(*text);
    if (!j) why = path_ + " is of another version";
    return j;
}

string journal_file::remove() const
{
    const string stays = remove_own(path_ + ".new");  // of a write that was broken off
    const string why = remove_own(path_);
    return why.empty() ? stays : why;
}

}  // namespace tool
