// SPDX-License-Identifier: MIT
// The intrusive list, link by link, and the typed walk over it.
#include "list_range.h"

#include <cstdlib>
#include <vector>

#include "support.h"

namespace {

class List : public test::mordel_test {
protected:
    void SetUp() override
    {
        test::mordel_test::SetUp();
        for (list_head *fresh : {&a, &b, &c, &d}) *fresh = {&junk, &junk};
    }

    // Exactly these nodes, in this order, both ways.
    void expect_ring(list_head &ring, const std::vector<list_head *> &nodes)
    {
        list_head *before = &ring;
        for (size_t i = 0; i <= nodes.size(); ++i) {
            SCOPED_TRACE(i);
            list_head *node = i < nodes.size() ? nodes[i] : &ring;
            EXPECT_EQ(node, before->next);
            EXPECT_EQ(before, node->prev);
            before = node;
        }
        EXPECT_EQ(nodes.empty() ? 1U : 0U, list_empty(&ring));
        EXPECT_EQ(&junk, junk.next) << "an unlinked node's old links were followed";
        EXPECT_EQ(&junk, junk.prev) << "an unlinked node's old links were followed";
    }

    void expect_links(const list_head &node, const list_head *prev, const list_head *next)
    {
        EXPECT_EQ(prev, node.prev);
        EXPECT_EQ(next, node.next);
    }

    list_head junk{&junk, &junk};  // what a node not on a list points to
    list_head head{&head, &head};
    list_head a, b, c, d;
};

TEST_F(List, NextIsTheFirstPointerOfANode)
{
    EXPECT_EQ(0U, offsetof(list_head, next));
    EXPECT_EQ(sizeof(void *), offsetof(list_head, prev));
    EXPECT_EQ(2 * sizeof(void *), sizeof(list_head));
}

TEST_F(List, FreshHeadIsEmpty)
{
    EXPECT_EQ(1U, list_empty(&head));
    expect_ring(head, {});
}

TEST_F(List, OnlyNextTellsWhetherAHeadIsEmpty)
{
    const list_head no_prev{&head, nullptr};
    EXPECT_EQ(0U, list_empty(&no_prev));
    list_head self{&self, nullptr};
    EXPECT_EQ(1U, list_empty(&self));
    self = {&self, &a};
    EXPECT_EQ(1U, list_empty(&self));
    self = {&a, &self};
    EXPECT_EQ(0U, list_empty(&self));
    self = {nullptr, &self};
    EXPECT_EQ(0U, list_empty(&self));
}

TEST_F(List, AddTailOfOneNodeLinksItBothWaysToTheHead)
{
    list_add_tail(&a, &head);
    EXPECT_EQ(0U, list_empty(&head));
    expect_links(head, &a, &a);
    expect_links(a, &head, &head);
    expect_ring(head, {&a});
}

TEST_F(List, AddTailAppends)
{
    list_add_tail(&a, &head);
    list_add_tail(&b, &head);
    expect_ring(head, {&a, &b});
    list_add_tail(&c, &head);
    expect_ring(head, {&a, &b, &c});
}

TEST_F(List, AddBetweenHeadAndFirstInsertsAtTheFront)
{
    list_add(&b, &head, head.next);
    expect_ring(head, {&b});
    list_add_tail(&a, &head);
    list_add(&c, &head, head.next);
    expect_ring(head, {&c, &b, &a});
}

TEST_F(List, AddInsertsBeforeAnyNode)
{
    list_add_tail(&a, &head);
    list_add_tail(&b, &head);
    list_add(&c, b.prev, &b);
    expect_ring(head, {&a, &c, &b});
    list_add(&d, a.prev, &a);
    expect_ring(head, {&d, &a, &c, &b});
}

TEST_F(List, AddWritesTheFourLinksThatItIsToldAndNoOther)
{
    list_head prev{&a, &b};
    list_head next{&c, &d};
    list_head node{&a, &d};
    list_add(&node, &prev, &next);
    expect_links(prev, &b, &node);
    expect_links(node, &prev, &next);
    expect_links(next, &node, &c);
    for (const list_head *other : {&a, &b, &c, &d}) expect_links(*other, &junk, &junk);
}

// next->prev, new->next, new->prev, prev->next: seen where the nodes are one and the same.
TEST_F(List, AddStoresItsLinksInTheStatedOrder)
{
    list_add_tail(&a, &head);
    list_add(&a, &a, &head);  // prev->next comes behind new->next
    expect_links(a, &a, &a);
    expect_links(head, &a, &a);

    list_head next{&junk, &junk};
    list_add(&next, &b, &next);  // new->prev comes behind next->prev
    expect_links(next, &b, &next);
    expect_links(b, &junk, &next);
}

TEST_F(List, DelJoinsTheNeighboursAndLeavesTheNodesOwnLinks)
{
    for (list_head *node : {&a, &b, &c, &d}) list_add_tail(node, &head);
    list_del(&b);
    expect_ring(head, {&a, &c, &d});
    expect_links(b, &a, &c);
    list_del(&a);
    expect_ring(head, {&c, &d});
    expect_links(a, &head, &c);
    list_del(&d);
    expect_ring(head, {&c});
    expect_links(d, &c, &head);
    list_del(&c);
    expect_ring(head, {});
    expect_links(c, &head, &head);
    EXPECT_EQ(0U, list_empty(&c)) << "a removed node is no empty list";
    expect_links(b, &a, &c);
}

TEST_F(List, RemovedNodeCanBeAddedAgain)
{
    list_add_tail(&a, &head);
    list_add_tail(&b, &head);
    list_del(&a);
    list_add_tail(&a, &head);
    expect_ring(head, {&b, &a});
}

TEST_F(List, ReplaceTakesTheOldNodesPlaceAndLeavesItsLinks)
{
    for (list_head *node : {&a, &b, &c}) list_add_tail(node, &head);
    list_replace(&b, &d);
    expect_ring(head, {&a, &d, &c});
    expect_links(b, &a, &c);
    list_replace(&a, &b);
    expect_ring(head, {&b, &d, &c});
    expect_links(a, &head, &d);
    list_replace(&c, &a);
    expect_ring(head, {&b, &d, &a});
    expect_links(c, &d, &head);
}

TEST_F(List, ReplaceOfTheOnlyNode)
{
    list_add_tail(&a, &head);
    list_replace(&a, &b);
    expect_links(head, &b, &b);
    expect_ring(head, {&b});
    expect_links(a, &head, &head);
}

TEST_F(List, ReplaceOfAHeadMovesItsNodes)
{
    list_add_tail(&a, &head);
    list_add_tail(&b, &head);
    list_head other{&junk, &junk};
    list_replace(&head, &other);
    expect_ring(other, {&a, &b});
    expect_links(head, &b, &a);
}

// new->next and its prev before new->prev and its next: an empty head shows it.
TEST_F(List, ReplaceStoresItsLinksInTheStatedOrder)
{
    list_replace(&head, &a);
    expect_links(a, &a, &a);
    expect_links(head, &a, &head);
}

TEST_F(List, GlobalListsAreEmptyRingsAtStart)
{
    expect_ring(qos_root, {});
    expect_ring(sched_root, {});
}

// ---- Typed walk --------------------------------------------------------------------------------

class ListRange : public test::mordel_test {
protected:
    void TearDown() override
    {
        while (!list_empty(&head)) {
            list_head *first = head.next;
            list_del(first);
            std::free(reinterpret_cast<char *>(first) - offsetof(qos_class, node));
        }
        test::mordel_test::TearDown();
    }

    void fill(u16 count)
    {
        for (u16 i = 1; i <= count; ++i) {
            auto *record = static_cast<qos_class *>(std::calloc(1, sizeof(qos_class)));
            record->handle = i;
            list_add_tail(&record->node, &head);
        }
    }

    std::vector<int> handles() const
    {
        std::vector<int> seen;
        for (const qos_class &c : mordel::each<&qos_class::node>(head)) seen.push_back(c.handle);
        return seen;
    }

    list_head head{&head, &head};
};

TEST_F(ListRange, WalksTheRecordsInListOrder)
{
    EXPECT_EQ(std::vector<int>{}, handles());
    fill(1);
    EXPECT_EQ((std::vector<int>{1}), handles());
    fill(3);
    EXPECT_EQ((std::vector<int>{1, 1, 2, 3}), handles());
}

TEST_F(ListRange, RecordsMayBeChangedThroughIt)
{
    fill(3);
    for (qos_class &c : mordel::each<&qos_class::node>(head)) c.handle = u16(c.handle + 10);
    EXPECT_EQ((std::vector<int>{11, 12, 13}), handles());
}

TEST_F(ListRange, BodyMayRemoveAndFreeTheCurrentRecord)
{
    const struct {
        unsigned removed;  // bit n: record n
        std::vector<int> left;
    } cases[] = {
        {1U << 1, {2, 3, 4}},
        {1U << 2, {1, 3, 4}},
        {1U << 4, {1, 2, 3}},
        {1U << 2 | 1U << 3, {1, 4}},
        {1U << 1 | 1U << 3, {2, 4}},
        {1U << 3 | 1U << 4, {1, 2}},
        {0x1e, {}},
        {0, {1, 2, 3, 4}},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.removed);
        fill(4);
        std::vector<int> seen;
        for (qos_class &c : mordel::each<&qos_class::node>(head)) {
            seen.push_back(c.handle);
            if ((row.removed >> c.handle & 1U) == 0) continue;
            list_del(&c.node);
            c.node = {nullptr, nullptr};
            std::free(&c);
        }
        EXPECT_EQ((std::vector<int>{1, 2, 3, 4}), seen);
        EXPECT_EQ(row.left, handles());
        for (qos_class &c : mordel::each<&qos_class::node>(head)) {
            list_del(&c.node);
            std::free(&c);
        }
        EXPECT_EQ(1U, list_empty(&head));
    }
}

TEST_F(ListRange, FindsTheRecordWhereverItsNodeLies)
{
    list_head list{};
    mordel::list_init(&list);
    EXPECT_EQ(&list, list.next);
    EXPECT_EQ(&list, list.prev);

    qos_if record{};
    list_add_tail(&record.node, &list);
    for (qos_if &found : mordel::each<&qos_if::node>(list)) EXPECT_EQ(&record, &found);
    mordel::list_init(&list);

    qos_rule first_member{};
    list_add_tail(&first_member.node, &list);
    for (qos_rule &found : mordel::each<&qos_rule::node>(list)) EXPECT_EQ(&first_member, &found);

    qos_class by_children{};
    EXPECT_EQ(&by_children, &mordel::record_of<&qos_class::children>(&by_children.children));
    EXPECT_EQ(&by_children, &mordel::record_of<&qos_class::node>(&by_children.node));
}

}  // namespace
