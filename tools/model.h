// A policy in the library's own lists, and the scripts that come of it.
#pragma once

#include <string>

#include "policy.h"

namespace tool {

// The library's lists are one for the process, and so is a model: it fills them, and empties them
// at its end.
class model {
public:
    explicit model(const policy &p);
    model(const model &) = delete;
    model &operator=(const model &) = delete;
    ~model();

    // What the library refused; "" when it took all.
    const std::string &refused() const { return refused_; }

private:
    void declare(const policy_interface &iface);

    std::string refused_;
};

enum class script { start, stop, rules };

// The script of an interface that a model declares, byte for byte as the library writes it.
std::string script_text(const std::string &ifname, script which);

}  // namespace tool
