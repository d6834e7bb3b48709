// SPDX-License-Identifier: MIT
// A value of a policy file: whether the file gives it, whether it is right, and where it stands.
#pragma once

#include <utility>

#include "diagnostics.h"

namespace tool {

// absent: the file has no such key. wrong: the value in the file is not allowed, and that error has
// been reported, so that nobody reports what only follows from it. good: the value is allowed, or
// the key is absent and a default stands for it.
template <typename T>
class value {
public:
    value() = default;
    static value absent(position table) { return {state::absent, T{}, table}; }
    static value wrong(position at) { return {state::wrong, T{}, at}; }
    static value good(T v, position at) { return {state::good, std::move(v), at}; }

    bool is_absent() const { return state_ == state::absent; }
    bool is_wrong() const { return state_ == state::wrong; }
    bool is_good() const { return state_ == state::good; }

    // T{}, so 0 or empty, unless the value is good
    const T &get() const { return value_; }
    T get_or(T otherwise) const { return is_good() ? value_ : std::move(otherwise); }

    // The value's place; where the file has no such key, that of the table which could have it.
    position at() const { return at_; }

    // Makes an absent value good. A wrong value stays wrong.
    void default_to(T otherwise)
    {
        if (is_absent()) *this = good(std::move(otherwise), at_);
    }

private:
    enum class state : unsigned char { absent, wrong, good };
    value(state s, T v, position at) : value_(std::move(v)), at_(at), state_(s) {}

    T value_{};
    position at_;
    state state_ = state::absent;
};

}  // namespace tool
