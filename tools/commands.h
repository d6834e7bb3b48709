// SPDX-License-Identifier: MIT
// The commands of mordel, and the options that the command line gives them.
#pragma once

#include <string>
#include <vector>

#include "apply.h"
#include "policy_read.h"
#include "watch.h"

namespace tool {

enum exit_status {
    done = 0,
    failed = 1,
    refused = 2,    // a bad policy or command line
    unreported = 3  // done, but the report could not be written
};

// The options of all commands: each command sets its own and leaves the rest at these values.
struct options {
    std::string file;
    std::string interface;
    std::vector<std::string> words;  // of stop: interfaces, or a policy file
    kernel_kind kernel = kernel_kind::mainline;
    bool json = false;
    bool rules_only = false;
    bool stop = false;
    bool dot = false;
    bool boot = false;
    bool save = false;
    bool prune = false;
    bool all = false;
    double seconds = 1;
    apply_options apply;
    watch_options watch;
};

// Each does its work, with its messages, and returns the exit status.
int check(const options &o);
int render(const options &o);
int show(const options &o);
int apply(const options &o);
int stop(const options &o);
int recover(const options &o);
int confirm(const options &o);
int status(const options &o);

}  // namespace tool
