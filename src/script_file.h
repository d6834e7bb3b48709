// The opening of a generated script.
#pragma once

#include "guards.h"

namespace mordel {

// Opens a script for writing: empty, mode 0700. Null, and an old file is as it was, when the path
// cannot be opened for writing or is no plain file of ours: a symbolic link, another kind of file,
// another user's, or one with a second name.
stream_guard open_script(const char *path);

// The header lines of every script
void write_script_header(FILE *out);

}  // namespace mordel
