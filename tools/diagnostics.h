// SPDX-License-Identifier: MIT
// The errors and warnings that reading a policy has found, each with its place in the file.
#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace tool {

// A place in the file. Both numbers count from 1; columns count characters, not bytes.
struct position {
    unsigned line = 1;
    unsigned column = 1;
    bool operator==(const position &) const = default;
    bool operator<(const position &other) const
    {
        return line != other.line ? line < other.line : column < other.column;
    }
};

struct diagnostic {
    position at;
    bool warning = false;
    std::string text;
};

class diagnostics {
public:
    void error(position at, std::string text) { add({at, false, std::move(text)}); }
    void warning(position at, std::string text) { add({at, true, std::move(text)}); }

    bool failed() const { return errors_ != 0; }
    std::size_t errors() const { return errors_; }

    const std::vector<diagnostic> &all() const { return all_; }

    // Checks run table by table and would report out of order; two of one place keep their order.
    // In the order of the file
    std::vector<diagnostic> sorted() const
    {
        std::vector<diagnostic> list = all_;
        std::stable_sort(list.begin(), list.end(),
                         [](const auto &a, const auto &b) { return a.at < b.at; });
        return list;
    }

private:
    void add(diagnostic d)
    {
        if (!d.warning) ++errors_;
        all_.push_back(std::move(d));
    }

    std::vector<diagnostic> all_;
    std::size_t errors_ = 0;
};

}  // namespace tool
