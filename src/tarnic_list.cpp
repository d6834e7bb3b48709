// SPDX-License-Identifier: MIT
// The intrusive list. Owns nothing and takes no lock: callers serialise the calls on one list.

#include "mordel.h"

u32 list_empty(const list_head *head) { return head->next == head; }

// The order of the stores, here and in list_replace, is part of the interface: it decides what
// links remain where a caller passes nodes that are one.
void list_add(list_head *node, list_head *prev, list_head *next)
{
    next->prev = node;
    node->next = next;
    node->prev = prev;
    prev->next = node;
}

void list_add_tail(list_head *node, list_head *head) { list_add(node, head->prev, head); }

// The removed node keeps its own links, for walks that remove the record they stand on and then
// read its successor.
void list_del(list_head *entry)
{
    entry->prev->next = entry->next;
    entry->next->prev = entry->prev;
}

void list_replace(list_head *old_node, list_head *new_node)
{
    new_node->next = old_node->next;
    new_node->next->prev = new_node;
    new_node->prev = old_node->prev;
    new_node->prev->next = new_node;
}
