// SPDX-License-Identifier: MIT
// Typed walks over the intrusive list: for (qos_class &c : each<&qos_class::node>(list)).
//
// The walk takes the next record before the body of the loop runs. The body may so unlink and free
// the current record, and no other: a freed next record would be walked all the same. A const list
// is one whose head is const; its records are not.
#pragma once

#include <bit>
#include <cstddef>

#include "mordel.h"

namespace mordel {

template <auto Member>
struct member;
template <typename Record, list_head Record::*Member>
struct member<Member> {
    using record = Record;
};

// The record that a list_head lies in. In the C++ ABI of Linux a pointer to a data member is that
// member's offset in bytes; offsetof takes no template argument.
template <auto Member>
typename member<Member>::record &record_of(list_head *node)
{
    char *const at = reinterpret_cast<char *>(node) - std::bit_cast<std::ptrdiff_t>(Member);
    return *reinterpret_cast<typename member<Member>::record *>(at);
}

template <auto Node>
class each {
public:
    class iterator {
    public:
        explicit iterator(list_head *at) : at_(at), next_(at->next) {}
        typename member<Node>::record &operator*() const { return record_of<Node>(at_); }
        iterator &operator++()
        {
            at_ = next_;
            next_ = at_->next;
            return *this;
        }
        bool operator!=(const list_head *end) const { return at_ != end; }

    private:
        list_head *at_;
        list_head *next_;
    };

    explicit each(const list_head &head) : head_(&head) {}
    iterator begin() const { return iterator(head_->next); }
    const list_head *end() const { return head_; }

private:
    const list_head *head_;
};

inline void list_init(list_head *head) { *head = {head, head}; }

}  // namespace mordel
