// A policy brought into the kernel, and taken away.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "compare.h"
#include "policy.h"
#include "render.h"
#include "rules.h"

namespace tool {

struct apply_options {
    bool script = false;   // run the library's script as it stands
    bool dry_run = false;  // say what would be done
    unsigned wait = 10;    // seconds for each lock
};

// What came of one interface
struct outcome {
    enum class kind { built, changed, unchanged, stopped, failed } result = kind::unchanged;
    std::string name;
    std::vector<std::string> commands;  // of tc, and of iptables, that were (or would be) run
    std::size_t tc_commands = 0;        // the first so many of them
    bool by_script = false;
    std::vector<std::string> notes;  // what a person should know besides
    std::string error;               // why it failed
    std::string failed_command;      // "" when it was no command of the script
    unsigned failed_line = 0;        // of the start script
    bool restored = false;           // back on the default qdisc, without a chain
};

// Interfaces in turn; the first failure ends it. Call with the lock held. text: the policy's file,
// which `status` will want; texts: what render() made of the policy.
std::vector<outcome> apply_policy(const policy &p, const std::string &text, const rendering &texts,
                                  const apply_options &o);
std::vector<outcome> stop_policy(const policy &p, const rendering &texts, const apply_options &o);

// One apply or stop at a time, on the whole machine
class apply_lock {
public:
    // Waits so many seconds at most.
    explicit apply_lock(unsigned wait);
    apply_lock(const apply_lock &) = delete;
    apply_lock &operator=(const apply_lock &) = delete;
    ~apply_lock();
    const std::string &error() const { return error_; }  // "" when it is held

private:
    int fd_ = -1;
    std::string error_;
};

// The text of the policy that was last applied to an interface; none if there is none.
std::optional<std::string> applied_policy(const std::string &ifname);
// The interfaces that one was applied to
std::vector<std::string> applied_interfaces();

}  // namespace tool
