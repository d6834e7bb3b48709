// SPDX-License-Identifier: MIT
// Files in a folder of ours, read and replaced so that nobody makes us wait, follow a link, or meet
// half a file after a crash.
#pragma once

#include <optional>
#include <string>

namespace tool {

// What a function below says of its failure is a message that names the path.

// "", or why a folder is not ours alone to write: it is none, another user's, or open to others.
std::string not_our_folder(const std::string &path);

// Makes a folder if it is missing, then as above.
std::string make_own_folder(const std::string &path);

// Opens a plain file that is ours alone; -1 and a reason in `why` otherwise. `why` is "" when there
// is no such file. A program that is started later inherits the descriptor, unless `flags` have
// O_CLOEXEC.
int open_own(const std::string &path, int flags, std::string &why);

// All of a file. None with a reason in `why`; `why` is "" when there is no such file.
std::optional<std::string> read_own(const std::string &path, std::string &why);

// Writes a new file, and waits until the disk has it. What is in its place goes first. "", or why
// there is none: after a failure nothing is left of the file.
std::string write_own(const std::string &path, const std::string &text);

// Gives a written file its name, in place of an older file of ours, and waits until the disk has
// the name.
std::string rename_own(const std::string &from, const std::string &to);

// Writes the file PATH.new and gives it the name PATH: a reader meets the old text or the new one.
std::string replace_own(const std::string &path, const std::string &text);

// Removes a file and waits until the disk has forgotten it. That there is none is no failure.
std::string remove_own(const std::string &path);

// "", or why no file of ours can be at the path: something else is there.
std::string place_taken(const std::string &path);

// A text with its sum as the last line, and the text of such a file: none when the file was cut
// short or a byte of it has changed.
std::string sealed(const std::string &text);
std::optional<std::string> unsealed(const std::string &file);

}  // namespace tool
