/* SPDX-License-Identifier: MIT */
/* The public interface as its users compile it: every function by its exact type, every record by
 * its size and offsets on 32- and 64-bit hosts. Built against the shared library twice: as C99 and
 * as C++11. */
#include "mordel.h"

#include <stddef.h>
#include <stdio.h>

static int failures;

static void check(const char *what, size_t is, size_t on_32, size_t on_64)
{
    const size_t wanted = sizeof(void *) == 4 ? on_32 : on_64;
    if (is == wanted) return;
    fprintf(stderr, "%s is %lu, not %lu\n", what, (unsigned long)is, (unsigned long)wanted);
    ++failures;
}

#define SIZE(record, on_32, on_64) check("size of " #record, sizeof(record), on_32, on_64)
#define AT(record, field, on_32, on_64) \
    check(#record "." #field, offsetof(record, field), on_32, on_64)
#define VALUE(name, value) check(#name, (size_t)(name), value, value)

static void lists_and_maps(void)
{
    u32 (*const empty)(const list_head *) = list_empty;
    void (*const add)(list_head *, list_head *, list_head *) = list_add;
    void (*const add_tail)(list_head *, list_head *) = list_add_tail;
    void (*const del)(list_head *) = list_del;
    void (*const replace)(list_head *, list_head *) = list_replace;
    int (*const by_id)(const id_map *, int) = MapById;
    int (*const by_value)(const id_map *, int) = MapByEvt;
    const char *(*const text)(const txt_map *, int) = TxtMapById;
    int (*const by_text)(const txt_map *, const char *) = TxtMapByTxt;
    int (*const no_case)(const txt_map *, const char *) = TxtMapByTxtNoCase;
    int (*const by_part)(const txt_map *, const char *) = TxtMapByTxtStr;
    int (*const compare)(const char *, const char *) = strCmpNoCase;

    const id_map ids[] = {{1, 10}, {-1, -1}};
    const txt_map texts[] = {{1, "one"}, {-1, "none"}};
    list_head head, node, other;
    head.next = head.prev = &head;
    add(&node, &head, head.next);
    replace(&node, &other);
    del(&other);
    add_tail(&node, &head);
    if (empty(&head) != 0 || head.next != &node) ++failures;
    if (by_id(ids, 1) != 10 || by_value(ids, 10) != 1 || text(texts, 1) != texts[0].text)
        ++failures;
    if (by_text(texts, "one") != 1 || no_case(texts, "ONE") != 1 || by_part(texts, "bone") != 1)
        ++failures;
    if (compare("a", "A") != 0) ++failures;

    SIZE(u8, 1, 1);
    SIZE(u16, 2, 2);
    SIZE(u32, 4, 4);
    SIZE(u64, 8, 8);
    SIZE(list_head, 8, 16);
    AT(list_head, next, 0, 0);
    AT(list_head, prev, 4, 8);
    SIZE(txt_map, 8, 16);
    AT(txt_map, id, 0, 0);
    AT(txt_map, text, 4, 8);
    SIZE(id_map, 8, 8);
    AT(id_map, id, 0, 0);
    AT(id_map, value, 4, 4);
}

static void conversions(void)
{
    int (*const to_text)(u32, char *, int) = ip2string;
    int (*const from_text)(const char *, u32 *) = string2ip;
    int (*const quality)(int) = dbm2Rssi;
    int (*const run)(const char *, ...) = _system;
    FILE *(*const read)(const char *, ...) = _system_read;
    int (*const close)(FILE *) = _system_close;
    char buf[17];
    u32 ip = 1;

    if (to_text(0x7f000001, buf, 17) != 0 || from_text("0.0.0.0", &ip) != 0 || ip != 0) ++failures;
    if (quality(-91) != 1) ++failures;
    if (run("%s", "true") != 4) ++failures;
    if (close(read("true")) != 0) ++failures;
}

static void tree(void)
{
    int (*const add_root)(const u32 *, const char *, u32, const void *) = add_root_qdisc;
    int (*const del_root)(const char *) = del_root_qdisc;
    int (*const add)(const char *, u32, u32, const void *, const char *) = add_class;
    int (*const del)(const char *, u32) = del_class;
    int (*const add_leaf)(const char *, u32, const leaf_qdisc *) = add_leaf_qdisc;
    int (*const del_leaf)(const char *, u32) = del_leaf_qdisc;
    int (*const key)(const char *, u32) = check_Key;
    int (*const start)(const char *) = start_qos;
    int (*const stop)(const char *) = stop_qos;
    int (*const restart)(const char *) = restart_qos;
    int (*const restart_all)(void) = restart_qos_all;
    void (*const show)(const char *) = show_ifqos;
    list_head *const root = &qos_root;

    (void)add_root, (void)del_root, (void)add, (void)del, (void)add_leaf, (void)del_leaf;
    (void)key, (void)start, (void)stop, (void)restart, (void)restart_all;
    (void)show;
    /* Ready before any call: an empty list, made by nobody at run time */
    if (root->next != root || root->prev != root) ++failures;

    VALUE(R_pfifo_fast, 0);
    VALUE(R_HTB, 1);
    VALUE(R_HFSC, 2);
    VALUE(R_PRIO, 3);
    VALUE(C_HTB, 0);
    VALUE(C_HFSC, 1);
    VALUE(C_PRIO, 2);
    VALUE(L_pfifo, 0);
    VALUE(L_SFQ, 1);
    VALUE(L_RED, 2);
    VALUE(L_TBF, 3);
}

static void root_records(void)
{
    SIZE(automark_value, 18, 18);
    AT(automark_value, enable, 0, 0);
    AT(automark_value, reserved, 1, 1);
    AT(automark_value, mark, 2, 2);
    SIZE(pfifo_fast_root_param, 4, 4);
    AT(pfifo_fast_root_param, queue_len, 0, 0);
    SIZE(class_root_param, 20, 20);
    AT(class_root_param, default_class, 0, 0);
    AT(class_root_param, automark, 2, 2);
    SIZE(prio_root_param, 36, 36);
    AT(prio_root_param, bands, 0, 0);
    AT(prio_root_param, priomap, 1, 1);
    AT(prio_root_param, automark, 18, 18);
    SIZE(qos_root_param, 36, 36);
    AT(qos_root_param, pfifo_fast, 0, 0);
    AT(qos_root_param, classful, 0, 0);
    AT(qos_root_param, prio, 0, 0);
    SIZE(qos_if, 112, 144);
    AT(qos_if, link_tx, 0, 0);
    AT(qos_if, link_rx, 4, 4);
    AT(qos_if, phy_tx, 8, 8);
    AT(qos_if, phy_rx, 12, 12);
    AT(qos_if, ifname, 16, 16);
    AT(qos_if, root_type, 48, 48);
    AT(qos_if, node, 52, 56);
    AT(qos_if, classes, 60, 72);
    AT(qos_if, rules, 68, 88);
    AT(qos_if, param, 76, 104);
}

static void class_records(void)
{
    SIZE(htb_class_param, 20, 20);
    AT(htb_class_param, rate, 0, 0);
    AT(htb_class_param, ceil, 4, 4);
    AT(htb_class_param, burst, 8, 8);
    AT(htb_class_param, cburst, 12, 12);
    AT(htb_class_param, prio, 16, 16);
    SIZE(hfsc_curve, 12, 12);
    AT(hfsc_curve, umax, 0, 0);
    AT(hfsc_curve, dmax, 4, 4);
    AT(hfsc_curve, rate, 8, 8);
    SIZE(hfsc_class_param, 48, 48);
    AT(hfsc_class_param, ul, 0, 0);
    AT(hfsc_class_param, sc, 12, 12);
    AT(hfsc_class_param, ls, 24, 24);
    AT(hfsc_class_param, rt, 36, 36);
    SIZE(qos_class_param, 48, 48);
    AT(qos_class_param, htb, 0, 0);
    AT(qos_class_param, hfsc, 0, 0);
    SIZE(qos_class, 128, 144);
    AT(qos_class, type, 0, 0);
    AT(qos_class, name, 4, 4);
    AT(qos_class, handle, 36, 36);
    AT(qos_class, node, 40, 40);
    AT(qos_class, children, 48, 56);
    AT(qos_class, param, 56, 72);
    AT(qos_class, leaf, 104, 120);
}

static void leaf_records(void)
{
    SIZE(pfifo_leaf_param, 4, 4);
    AT(pfifo_leaf_param, limit, 0, 0);
    SIZE(sfq_leaf_param, 1, 1);
    AT(sfq_leaf_param, perturb, 0, 0);
    SIZE(red_leaf_param, 20, 20);
    AT(red_leaf_param, min, 0, 0);
    AT(red_leaf_param, max, 4, 4);
    AT(red_leaf_param, burst, 8, 8);
    AT(red_leaf_param, limit, 12, 12);
    AT(red_leaf_param, avpkt, 16, 16);
    SIZE(tbf_leaf_param, 12, 12);
    AT(tbf_leaf_param, latency, 0, 0);
    AT(tbf_leaf_param, rate, 4, 4);
    AT(tbf_leaf_param, burst, 8, 8);
    SIZE(leaf_qdisc, 24, 24);
    AT(leaf_qdisc, type, 0, 0);
    AT(leaf_qdisc, param.pfifo, 4, 4);
    AT(leaf_qdisc, param.sfq, 4, 4);
    AT(leaf_qdisc, param.red, 4, 4);
    AT(leaf_qdisc, param.tbf, 4, 4);
}

static void rules(void)
{
    list_head *(*const find)(const char *) = find_rule_list_by_name;
    int (*const add)(const char *, u8, const qos_match *, const qos_target *) = add_qos_rule;
    int (*const modify)(const char *, u8, const qos_match *, const qos_target *) = modify_qos_rule;
    int (*const del)(const char *, u8) = del_qos_rule;
    int (*const automark)(const char *, automark_value *) = get_automark_value;
    int (*const sched)(const qos_sched *) = add_sched;
    int (*const unsched)(u8) = del_sched;
    int (*const unsched_all)(void) = del_all_sched;
    qos_sched_node *(*const search)(u8) = search_sched;
    int (*const sched_text)(u8, char *, u32) = get_sched_str;
    int (*const renew)(FILE *, const char *, list_head *) = renew_qos_rule;
    int (*const remove)(FILE *, const char *) = remove_qos_rule;
    int (*const restart)(const char *) = restart_rule;
    void (*const show)(const char *) = show_rule;
    list_head *const root = &sched_root;

    (void)find, (void)add, (void)modify, (void)del, (void)automark, (void)sched, (void)unsched;
    (void)unsched_all, (void)search, (void)sched_text, (void)renew, (void)remove, (void)restart;
    (void)show;
    if (root->next != root || root->prev != root) ++failures;

    SIZE(qos_target, 24, 24);
    AT(qos_target, flags, 0, 0);
    AT(qos_target, mark, 4, 4);
    AT(qos_target, kind, 8, 8);
    AT(qos_target, value.raw, 12, 12);
    AT(qos_target, value.class_id, 12, 12);
    AT(qos_target, vlan_prio, 16, 16);
    AT(qos_target, vlan_id, 18, 18);
    AT(qos_target, vlan_double, 20, 20);
    AT(qos_target, reserved, 21, 21);
    AT(qos_target, log, 22, 22);
    SIZE(qos_rule, 636, 648);
    AT(qos_rule, node, 0, 0);
    AT(qos_rule, index, 8, 16);
    AT(qos_rule, match, 12, 20);
    AT(qos_rule, target, 612, 620);
    SIZE(qos_sched, 7, 7);
    AT(qos_sched, index, 0, 0);
    AT(qos_sched, days, 1, 1);
    AT(qos_sched, all_day, 2, 2);
    AT(qos_sched, start_hour, 3, 3);
    AT(qos_sched, stop_hour, 4, 4);
    AT(qos_sched, start_min, 5, 5);
    AT(qos_sched, stop_min, 6, 6);
    SIZE(qos_sched_node, 16, 24);
    AT(qos_sched_node, node, 0, 0);
    AT(qos_sched_node, sched, 8, 16);
}

static void match_record(void)
{
    SIZE(qos_match, 600, 600);
    AT(qos_match, flags, 0, 0);
    AT(qos_match, dot1p_prio, 4, 4);
    AT(qos_match, vlan_id, 6, 6);
    AT(qos_match, src_mac, 8, 8);
    AT(qos_match, src_ip_start, 28, 28);
    AT(qos_match, src_ip_end, 32, 32);
    AT(qos_match, dst_ip_start, 36, 36);
    AT(qos_match, dst_ip_end, 40, 40);
    AT(qos_match, dscp_mode, 44, 44);
    AT(qos_match, dscp_value.raw, 48, 48);
    AT(qos_match, dscp_value.class_id, 48, 48);
    AT(qos_match, tos, 52, 52);
    AT(qos_match, precedence, 56, 56);
    AT(qos_match, protocol, 60, 60);
    AT(qos_match, sport_start, 64, 64);
    AT(qos_match, sport_end, 66, 66);
    AT(qos_match, dport_start, 68, 68);
    AT(qos_match, dport_end, 70, 70);
    AT(qos_match, tcp_flag_mask, 72, 72);
    AT(qos_match, tcp_flag_comp, 73, 73);
    AT(qos_match, pkt_len, 76, 76);
    AT(qos_match, alg, 80, 80);
    AT(qos_match, url, 84, 84);
    AT(qos_match, domain, 340, 340);
    AT(qos_match, sched_index, 596, 596);
}

static void ipc(void)
{
    int (*const create)(int, int *) = sem_create;
    int (*const del)(int) = sem_delete;
    int (*const down)(int, const char *, int, const char *) = downdown;
    int (*const up)(int, const char *, int, const char *) = upup;
    int (*const shared)(int, u32, int *) = shm_create;

    (void)create, (void)del, (void)down, (void)up, (void)shared;
}

static void interface_queries(void)
{
    int (*const counters)(const char *, if_rxtx *) = get_rxtx_by_ifname;
    int (*const get_ip)(const char *, u32 *) = get_ip_by_ifname;
    int (*const get_mask)(const char *, u32 *) = get_mask_by_ifname;
    int (*const get_bcast)(const char *, u32 *) = get_bcast_by_ifname;
    int (*const get_mac)(const char *, u8 *, u32) = get_mac_by_ifname;
    int (*const set_mac)(const char *, const u8 *) = set_mac_by_ifname;
    int (*const get_name)(u32, char *, u32) = get_ifname_by_ip;
    int (*const set_ip)(const char *, u32) = set_ip_by_ifname;
    int (*const set_mask)(const char *, u32) = set_mask_by_ifname;
    int (*const set_bcast)(const char *, u32) = set_bcast_by_ifname;
    int (*const get_mtu)(const char *, u32 *) = get_mtu_by_ifname;
    int (*const set_mtu)(const char *, u32) = set_mtu_by_ifname;
    u32 mtu = 7;

    (void)counters, (void)get_ip, (void)get_mask, (void)get_bcast, (void)get_mac, (void)set_mac;
    (void)get_name;
    if (set_ip("lo", 1) != 1 || set_mask("lo", 1) != 1 || set_bcast("lo", 1) != 1) ++failures;
    if (get_mtu("lo", &mtu) != 1 || mtu != 7 || set_mtu("lo", 1500) != 1) ++failures;

    SIZE(if_rxtx, 80, 80);
    AT(if_rxtx, rx_bytes, 0, 0);
    AT(if_rxtx, rx_packets, 8, 8);
    AT(if_rxtx, rx_errs, 16, 16);
    AT(if_rxtx, rx_drop, 20, 20);
    AT(if_rxtx, rx_fifo, 24, 24);
    AT(if_rxtx, rx_frame, 28, 28);
    AT(if_rxtx, rx_compressed, 32, 32);
    AT(if_rxtx, rx_multicast, 36, 36);
    AT(if_rxtx, tx_bytes, 40, 40);
    AT(if_rxtx, tx_packets, 48, 48);
    AT(if_rxtx, tx_errs, 56, 56);
    AT(if_rxtx, tx_drop, 60, 60);
    AT(if_rxtx, tx_fifo, 64, 64);
    AT(if_rxtx, tx_colls, 68, 68);
    AT(if_rxtx, tx_carrier, 72, 72);
    AT(if_rxtx, tx_compressed, 76, 76);
}

static void sockets(void)
{
    int (*const open)(const char *, const ipport *, u32, int *) = socket_open;
    int (*const connect)(const ipport *, const ipport *, u32, int *) = socket_connect;
    int (*const listen)(const ipport *, u32, int, int *) = socket_listen;
    int (*const close)(int) = socket_close;
    int (*const state)(int) = get_socket_state;
    int (*const peer)(int, ipport *) = get_socket_peer;
    int (*const local)(int, ipport *) = get_socket_local;
    int (*const send)(int, u32, const void *, u32 *, const ipport *) = socket_send;
    int (*const recv)(int, u32, u8 *, int *, const ipport *) = socket_recv;
    int (*const n2n)(u32, u16, ipport *) = ipport_convert_n2n;
    int (*const h2n)(u32, u16, ipport *) = ipport_convert_h2n;
    int (*const text_n2n)(const char *, u16, ipport *) = ipport_string_convert_n2n;
    int (*const text_h2n)(const char *, u16, ipport *) = ipport_string_convert_h2n;
    const txt_map *const texts = LogStrMap;
    ipport at = {0, 0};

    (void)open, (void)connect, (void)listen, (void)close, (void)state, (void)peer, (void)local;
    (void)send, (void)recv, (void)h2n, (void)text_h2n;
    if (texts[0].id != 0 || texts[13].id != -1) ++failures;
    if (n2n(1, 2, &at) != 0 || at.ip != 1 || at.port != 2) ++failures;
    if (text_n2n("0.0.0.0", 3, &at) != 0 || at.ip != 0 || at.port != 3) ++failures;

    SIZE(ipport, 8, 8);
    AT(ipport, ip, 0, 0);
    AT(ipport, port, 4, 4);
    VALUE(SOCKET_OPT_TCP, 0x1);
    VALUE(SOCKET_OPT_REUSE, 0x2);
    VALUE(SOCKET_OPT_BIND, 0x4);
    VALUE(SOCKET_OPT_SENDTO, 0x100);
    VALUE(SOCKET_OPT_SEND_NONBLOCK, 0x200);
    VALUE(SOCKET_OPT_SEND_NOSIGNAL, 0x400);
    VALUE(SOCKET_OPT_RECVFROM, 0x10000);
    VALUE(SOCKET_OPT_RECV_PEEK, 0x20000);
    VALUE(SOCKET_OPT_RECV_WAITALL, 0x40000);
}

static int on_accept(pthread_t self, int new_fd, ipport *peer)
{
    (void)self, (void)peer;
    return new_fd;
}

static int on_fd(pthread_t self, int fd)
{
    (void)self;
    return fd;
}

static int on_loop(pthread_t self, fd_set *watch, int *exit_flag)
{
    (void)self, (void)watch;
    return *exit_flag;
}

static int on_timeout(pthread_t self, fd_set *watch)
{
    (void)self, (void)watch;
    return 0;
}

static void dispatcher(void)
{
    int (*const start)(int, u32, u32, u32, const socket_select_handlers *, pthread_t *) =
        socket_select;
    const socket_select_handlers handlers = {on_accept,  on_fd, on_fd, on_loop,
                                             on_timeout, on_fd, on_fd};

    (void)start, (void)handlers;
    SIZE(socket_select_handlers, 28, 56);
    AT(socket_select_handlers, accept_hdlr, 0, 0);
    AT(socket_select_handlers, recv_hdlr, 4, 8);
    AT(socket_select_handlers, close_hdlr, 8, 16);
    AT(socket_select_handlers, loop_hdlr, 12, 24);
    AT(socket_select_handlers, timeout_hdlr, 16, 32);
    AT(socket_select_handlers, error_hdlr, 20, 40);
    AT(socket_select_handlers, exit_hdlr, 24, 48);
}

static void bandwidth(void)
{
    int (*const init)(bm_list *, int, u8, u8) = init_bm;
    int (*const add)(const char *, bm_list *) = add_bm_by_iface;
    int (*const del)(const char *, bm_list *) = del_bm_by_iface;
    int (*const query)(const char *, bm_list *, bm_sample *) = query_bm_by_iface;
    int (*const start)(bm_list *) = bm_start;

    (void)init, (void)add, (void)del, (void)query, (void)start;
    SIZE(bm_list, 16, 24);
    AT(bm_list, list, 0, 0);
    AT(bm_list, count, 8, 16);
    AT(bm_list, keep_history, 9, 17);
    AT(bm_list, interval, 10, 18);
    AT(bm_list, stop, 11, 19);
    AT(bm_list, semid, 12, 20);
    SIZE(bm_iface, 88, 112);
    AT(bm_iface, node, 0, 0);
    AT(bm_iface, ifname, 8, 16);
    AT(bm_iface, last_rx, 40, 48);
    AT(bm_iface, last_tx, 48, 56);
    AT(bm_iface, rx_rate, 56, 64);
    AT(bm_iface, tx_rate, 64, 72);
    AT(bm_iface, flags, 72, 80);
    AT(bm_iface, history, 76, 88);
    AT(bm_iface, history_cnt, 84, 104);
    SIZE(bm_sample, 24, 32);
    AT(bm_sample, node, 0, 0);
    AT(bm_sample, rx_rate, 8, 16);
    AT(bm_sample, tx_rate, 16, 24);
}

static void log_files(void)
{
    u8 (*const is_init)(void) = isLogSysInit;
    int (*const init)(void) = initLogSys;
    int (*const create)(const char *, const char *, const char *) = createLog;
    void (*const put)(int, const char *, const char *) = putlog;
    log_entry *const logs = logList;
    u8 *const flag = &isInit;

    (void)create, (void)put;
    /* Nothing is set up before the first call */
    if (*flag != 0 || is_init() != 0 || logs[7].state != 0) ++failures;
    if (init() != 1 || *flag != 1 || is_init() != 1 || logs[7].state != -1) ++failures;

    SIZE(logList, 2112, 2112);
    SIZE(log_entry, 264, 264);
    AT(log_entry, name, 0, 0);
    AT(log_entry, file, 64, 64);
    AT(log_entry, dir, 128, 128);
    AT(log_entry, lines, 256, 256);
    AT(log_entry, state, 260, 260);
}

int main(void)
{
    lists_and_maps();
    conversions();
    tree();
    root_records();
    class_records();
    leaf_records();
    rules();
    match_record();
    ipc();
    interface_queries();
    sockets();
    dispatcher();
    bandwidth();
    log_files();
    return failures == 0 ? 0 : 1;
}
