// SPDX-License-Identifier: MIT
// One thing that the kernel holds otherwise than the policy says, and the list of all of them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "mordel.h"
#include "text.h"
#include "ticks.h"

namespace tool {

struct difference {
    // What mends the difference. in_place.cpp makes its steps by this.
    enum class scope {
        tree,              // a new tree: another kind of root, or what no root is changed in
        root,              // the root is changed
        new_class,         // the class is added, with all that belongs to it
        class_parameters,  // the class is changed
        remade_class,      // the class is deleted and added: what no class is changed in
        old_class,         // the class is deleted, with all that belongs to it
        leaf,              // the leaf qdisc is changed or replaced
        filter             // the filter is added, replaced or deleted
    } what = scope::tree;
    u32 handle = 0;            // of the class; 0: of the root
    std::string text;          // "ceil is 3mbit, not 20mbit"
    std::string because = {};  // of scope tree: why the kernel cannot do otherwise
};

class differences {
public:
    using scope = difference::scope;

    void add(scope what, u32 handle, std::string text, std::string because = "")
    {
        all_.push_back({what, handle, std::move(text), std::move(because)});
    }
    void number(scope what, u32 handle, const char *name, u32 seen, u32 wanted)
    {
        if (seen != wanted) add(what, handle, format("%s is %u, not %u", name, seen, wanted));
    }
    void rate(scope what, u32 handle, const char *name, u64 bytes_per_s, u32 wanted_kbit)
    {
        if (bytes_per_s != bytes_per_second(wanted_kbit))
            add(what, handle,
                format("%s is %s, not %s", name, exact_rate(bytes_per_s).c_str(),
                       rate_text(wanted_kbit).c_str()));
    }
    // A wanted burst of 0 is not in the script: tc picks one, which is right whatever it is.
    void burst(scope what, u32 handle, const char *name, double seen, u32 wanted, u32 kbit)
    {
        if (wanted != 0 && !near_burst(seen, wanted, bytes_per_second(kbit)))
            add(what, handle, format("%s is %.0fb, not %ub", name, seen, wanted));
    }

    const std::vector<difference> &all() const { return all_; }

    // "20mbit"; in bit/s where the rate is no whole number of kbit/s, since rounded it could look
    // like the wanted one ("rate is 1mbit, not 1mbit").
    static std::string exact_rate(u64 bytes_per_s)
    {
        return bytes_per_s % 125 == 0 ? rate_text(bytes_per_s / 125)
                                      : std::to_string(bytes_per_s * 8) + "bit";
    }

private:
    std::vector<difference> all_;
};

}  // namespace tool
