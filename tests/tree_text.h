// SPDX-License-Identifier: MIT
// What the tree tests share: the tree as text, parameter records, traces, the heap.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "mordel.h"
#include "support.h"

#ifdef __GLIBC__
#if __GLIBC_PREREQ(2, 33)
#include <malloc.h>
#define MORDEL_HEAP_SIZE
#endif
#endif

namespace test {

// ---- Records -----------------------------------------------------------------------------------

inline qos_if &interface_of(list_head *node)
{
    return *reinterpret_cast<qos_if *>(reinterpret_cast<char *>(node) - offsetof(qos_if, node));
}

inline qos_class &class_of(list_head *node)
{
    return *reinterpret_cast<qos_class *>(reinterpret_cast<char *>(node) -
                                          offsetof(qos_class, node));
}

// The nodes of a list; a list whose two directions disagree fails the test.
inline std::vector<list_head *> nodes_of(list_head &head)
{
    std::vector<list_head *> nodes;
    list_head *before = &head;
    for (list_head *node = head.next; node != &head; node = node->next) {
        EXPECT_EQ(before, node->prev);
        nodes.push_back(node);
        before = node;
    }
    EXPECT_EQ(before, head.prev);
    return nodes;
}

inline std::vector<qos_if *> interfaces()
{
    std::vector<qos_if *> all;
    for (list_head *node : nodes_of(qos_root)) all.push_back(&interface_of(node));
    return all;
}

inline std::vector<std::string> interface_names()
{
    std::vector<std::string> names;
    for (const qos_if *rec : interfaces()) names.emplace_back(rec->ifname);
    return names;
}

inline bool all_zero(const void *from, size_t size)
{
    const auto *byte = static_cast<const unsigned char *>(from);
    for (size_t i = 0; i < size; ++i)
        if (byte[i] != 0) return false;
    return true;
}

// ---- Text --------------------------------------------------------------------------------------

inline std::string joined(const std::vector<u32> &numbers)
{
    std::string text;
    for (const u32 n : numbers) text += (text.empty() ? "" : " ") + std::to_string(n);
    return text;
}

inline std::string text_of(const leaf_qdisc &leaf)
{
    const auto &p = leaf.param;
    switch (leaf.type) {
    case L_pfifo:
        return "pfifo " + joined({p.pfifo.limit});
    case L_SFQ:
        return "sfq " + joined({p.sfq.perturb});
    case L_RED:
        return "red " + joined({p.red.min, p.red.max, p.red.burst, p.red.limit, p.red.avpkt});
    case L_TBF:
        return "tbf " + joined({p.tbf.latency, p.tbf.rate, p.tbf.burst});
    default:
        return "leaf type " + std::to_string(leaf.type);
    }
}

inline std::string text_of(const hfsc_curve &curve)
{
    return " " + std::to_string(curve.umax) + "/" + std::to_string(curve.dmax) + "/" +
           std::to_string(curve.rate);
}

inline std::string text_of(u32 type, const qos_class_param &p)
{
    switch (type) {
    case C_HTB:
        return "htb " + joined({p.htb.rate, p.htb.ceil, p.htb.burst, p.htb.cburst, p.htb.prio});
    case C_HFSC:
        return "hfsc" + text_of(p.hfsc.ul) + text_of(p.hfsc.sc) + text_of(p.hfsc.ls) +
               text_of(p.hfsc.rt);
    case C_PRIO:
        return "prio";
    default:
        return "class type " + std::to_string(type);
    }
}

// A line per class, a class's children two columns further right:
// HANDLE NAME TYPE PARAMETERS, LEAF. Bytes that no field of the class's type owns must be zero.
inline std::string tree(list_head &classes, const std::string &indent = "")
{
    std::string text;
    for (list_head *node : nodes_of(classes)) {
        qos_class &cls = class_of(node);
        const std::string name = cls.name;
        text += indent + std::to_string(cls.handle) + " " + (name.empty() ? "-" : name) + " " +
                text_of(cls.type, cls.param) + ", " + text_of(cls.leaf) + "\n";
        EXPECT_TRUE(all_zero(cls.name + name.size(), sizeof cls.name - name.size())) << text;
        const size_t used = cls.type == C_HTB    ? sizeof cls.param.htb
                            : cls.type == C_HFSC ? sizeof cls.param.hfsc
                                                 : 0;
        EXPECT_TRUE(
            all_zero(reinterpret_cast<const char *>(&cls.param) + used, sizeof cls.param - used))
            << text;
        text += tree(cls.children, indent + "  ");
    }
    return text;
}

// ---- Parameters --------------------------------------------------------------------------------

// Four different speeds: link_tx, link_rx, phy_tx, phy_rx.
constexpr u32 speeds[4] = {20000, 512, 100000, 1024};

constexpr char default_htb[] = "1 - htb 100000 100000 1000000 1000000 0, pfifo 0\n"
                               "  2 - htb 100000 100000 6000 6000 0, sfq 10\n"
                               "  3 - htb 20000 20000 6000 6000 0, pfifo 0\n";
constexpr char default_hfsc[] = "1 - hfsc 0/0/100000 0/0/100000 0/0/0 0/0/0, pfifo 0\n"
                                "  2 - hfsc 0/0/100000 0/0/100000 0/0/0 0/0/0, sfq 10\n"
                                "  3 - hfsc 0/0/20000 0/0/20000 0/0/0 0/0/0, pfifo 0\n";

inline automark_value automark(u8 enable, u16 first)
{
    automark_value value{};
    value.enable = enable;
    value.reserved = 0xEE;
    for (u16 i = 0; i < 8; ++i) value.mark[i] = u16(first + i);
    return value;
}

inline int add_pfifo_fast(const std::string &ifname, const u32 *rates = speeds)
{
    pfifo_fast_root_param param{};
    param.queue_len = 1000;
    return add_root_qdisc(rates, ifname.c_str(), R_pfifo_fast, &param);
}

inline int add_htb(const std::string &ifname, const u32 *rates = speeds)
{
    class_root_param param{};
    param.default_class = 3;
    return add_root_qdisc(rates, ifname.c_str(), R_HTB, &param);
}

inline int add_hfsc(const std::string &ifname, const u32 *rates = speeds)
{
    class_root_param param{};
    param.default_class = 3;
    return add_root_qdisc(rates, ifname.c_str(), R_HFSC, &param);
}

inline int add_prio(const std::string &ifname, u8 bands, const u32 *rates = speeds)
{
    prio_root_param param{};
    param.bands = bands;
    return add_root_qdisc(rates, ifname.c_str(), R_PRIO, &param);
}

// The bands' lines from 1 on, as tree() writes them.
inline std::string bands_text(int bands)
{
    std::string text;
    for (int i = 1; i <= bands; ++i)
        text += std::to_string(i) + " Class" + std::to_string(i) + " prio, pfifo 0\n";
    return text;
}

inline htb_class_param htb(u32 rate, u32 ceil, u32 burst, u32 cburst, u32 prio)
{
    htb_class_param param{};
    param.rate = rate;
    param.ceil = ceil;
    param.burst = burst;
    param.cburst = cburst;
    param.prio = prio;
    return param;
}

inline leaf_qdisc pfifo(u32 limit)
{
    leaf_qdisc leaf{};
    leaf.type = L_pfifo;
    leaf.param.pfifo.limit = limit;
    return leaf;
}

inline leaf_qdisc red(u32 min, u32 max, u32 burst, u32 limit, u32 avpkt)
{
    leaf_qdisc leaf{};
    leaf.type = L_RED;
    leaf.param.red.min = min;
    leaf.param.red.max = max;
    leaf.param.red.burst = burst;
    leaf.param.red.limit = limit;
    leaf.param.red.avpkt = avpkt;
    return leaf;
}

// ---- Traces ------------------------------------------------------------------------------------

inline traced undefined_root(const std::string &function)
{
    return {"tarnic_qos", function, "Internel error occur at not define root qdisc type"};
}

// ---- Heap --------------------------------------------------------------------------------------

// Bytes; always 0 where the C library cannot say, and the leak checker's own run has to do.
inline size_t heap_in_use()
{
#ifdef MORDEL_HEAP_SIZE
    return ::mallinfo2().uordblks;
#else
    return 0;
#endif
}

// Runs a body again and again; a record left behind by each run fails the test.
template <typename Body>
void expect_nothing_kept(const Body &body)
{
    constexpr size_t runs = 200;
    constexpr size_t slack = 64;  // bytes per run: smaller than any record
    for (int i = 0; i < 20; ++i) body();
    const size_t before = heap_in_use();
    for (size_t i = 0; i < runs; ++i) body();
    EXPECT_LT(heap_in_use(), before + runs * slack);
}

}  // namespace test
