// SPDX-License-Identifier: MIT
// The journal: says what an apply is about to do, so that the next one can take back, or finish,
// what a killed one left.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "image.h"
#include "state.h"

namespace tool {

struct journal_entry {
    std::string name;
    // if_nametoindex() when it began: another index is another interface, and the tree went with
    // the old one.
    unsigned index = 0;
    image before;                   // what the kernel held
    std::vector<std::string> undo;  // tc's commands, in order
    bool operator==(const journal_entry &) const = default;
};

struct journal {
    enum class phase { under_way, unconfirmed, committed } what = phase::under_way;
    std::string boot;      // this_boot(): after another boot the kernel holds nothing of it
    double until = 0;      // unconfirmed: taken back then; CLOCK_BOOTTIME, seconds
    std::string saved_as;  // where the policy goes when it is kept; ""
    std::string policy;    // its text, where it goes anywhere
    std::vector<journal_entry> entries;
    bool operator==(const journal &) const = default;
};

// A text that is another after each boot; "" where the kernel gives none.
std::string this_boot();

// The file /var/run/mordel/journal. A journal is whole before the first step that it is about: one
// that a crash has cut short has begun nothing.
class journal_file {
public:
    explicit journal_file(const state_folder &state) : path_(state.path() + "/journal") {}

    // Replaces the journal in one step, and waits until the disk has it. "", or why not: the
    // journal is then the old or the new one.
    std::string write(const journal &j) const;
    // None with `why` "": there is none. None with a reason: the file is cut short, damaged, of
    // another version or not ours.
    std::optional<journal> read(std::string &why) const;
    std::string remove() const;  // "", or why not

private:
    std::string path_;
};

// The file's text, and the journal of such a text; none for another text
std::string journal_text(const journal &j);
std::optional<journal> parse_journal(const std::string &text);

}  // namespace tool
