// SPDX-License-Identifier: MIT
// A walk of the class tree in pre-order, by a loop that allocates nothing. A recursion would need
// more stack than a small thread has: trees of 2,000 levels are walked on 64 KiB.
#pragma once

#include "list_range.h"
#include "mordel.h"

namespace mordel {

// What the library allocates for a class: the public record, then its parent, which a loop needs to
// get back up. A class never moves to another parent.
struct class_record {
    qos_class cls;
    qos_class *parent;  // null at top level
};

inline qos_class *parent_of(const qos_class *cls)
{
    return reinterpret_cast<const class_record *>(cls)->parent;
}

// for (qos_class &cls : preorder(list)): every class of the list, each followed by its descendants.
// The body of the loop neither links nor unlinks classes: the next one is looked up after it.
class preorder {
public:
    class iterator {
    public:
        explicit iterator(list_head *top) : top_(top), list_(top), at_(top->next) {}
        qos_class &operator*() const { return record_of<&qos_class::node>(at_); }
        iterator &operator++()
        {
            qos_class *here = &**this;
            if (!list_empty(&here->children)) {
                list_ = &here->children;
                at_ = list_->next;
                return *this;
            }
            at_ = at_->next;
            while (at_ == list_ && list_ != top_) {
                qos_class *owner = parent_of(here);
                list_ = parent_of(owner) == nullptr ? top_ : &parent_of(owner)->children;
                at_ = owner->node.next;
                here = owner;
            }
            return *this;
        }
        bool operator!=(const list_head *end) const { return at_ != end; }

    private:
        list_head *top_;
        list_head *list_;  // the list that holds the current class
        list_head *at_;    // the current class's node; top_ at the end
    };

    explicit preorder(list_head *top) : top_(top) {}
    iterator begin() const { return iterator(top_); }
    const list_head *end() const { return top_; }

private:
    list_head *top_;
};

}  // namespace mordel
