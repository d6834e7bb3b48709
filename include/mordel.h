/* SPDX-License-Identifier: MIT */
/* libmordel: what the management daemons of a small Linux router share.
 *
 * Valid C99 and C++11. Every function and object has C linkage.
 *
 * Conventions that hold for the whole header:
 *
 *  1. Texts are NUL-terminated and never null, unless a comment says otherwise. Texts and records
 *     passed in are copied; the caller keeps what it passed.
 *  2. A name given to a function is an interface name, compared exactly. Of a longer one the first
 *     31 characters are stored, and only they find it again.
 *  3. Nothing here takes a lock, the bandwidth monitor apart. Callers serialise all calls of the
 *     QoS tree, the rules and the schedules, whatever the interface and readers included: a thread
 *     per interface would corrupt the lists that all of them walk. They serialise likewise the
 *     calls on one list, and all calls on the log table. All other functions keep no state and may
 *     run on any thread.
 *  4. Status codes differ between the families; each family says its own. No function reports
 *     through errno.
 *  5. Diagnostics are trace lines "[source: line function()]:::message", appended to
 *     /var/tmp/tarnic.log (conversions, IPC, sockets) or /dev/console (tree, rules, schedules,
 *     bandwidth monitor), one write each. "Traces" below names the message. A line whose sink
 *     cannot be opened is lost. The trace file is created where it is missing, mode 0644 less the
 *     umask, so that only its creator's user and root add to it; it must be a plain file with one
 *     name: nothing is written through a link or into anything else that stands in its place. The
 *     console is never created.
 *  6. Texts that reach a script are written as they are, unquoted: whoever fills a record from
 *     outside input checks it first.
 *  7. Descriptors that the library opens are close-on-exec.
 */
#ifndef MORDEL_H
#define MORDEL_H

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/select.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

typedef uint8_t u8;
typedef uint16_t u16;
typedef uint32_t u32;
typedef uint64_t u64;

/* ---- List -----------------------------------------------------------------------------------
 * A circular doubly linked list whose links live inside the records. A list is a head plus the
 * nodes linked to it in a ring; an empty list is a head that points to itself both ways, and its
 * owner makes it so before first use. Nothing here allocates, locks or checks its arguments.
 */

typedef struct list_head {
    struct list_head *next; /* the following node, or the head */
    struct list_head *prev; /* the preceding node, or the head */
} list_head;

/* Whether a list has no nodes.
 * head: an initialised list head; only its next is read.
 * Returns 1 when empty, else 0. */
u32 list_empty(const list_head *head);

/* Links a node between two neighbours.
 * node: not on a list. prev, next: two adjacent nodes of one ring (either may be the head).
 * To insert at the front: list_add(node, head, head->next); before n: list_add(node, n->prev, n).
 */
void list_add(list_head *node, list_head *prev, list_head *next);

/* Links a node as the last of a list.
 * node: not on a list. head: an initialised list head. */
void list_add_tail(list_head *node, list_head *head);

/* Takes a node out of its list.
 * entry: on a list. Its own links are left as they were, pointing to its former neighbours. */
void list_del(list_head *entry);

/* Puts a node in another's place.
 * old_node: on a list; its own links are left as they were. new_node: not on a list. */
void list_replace(list_head *old_node, list_head *new_node);

/* ---- Id/text maps ---------------------------------------------------------------------------
 * Constant tables of rows, searched in array order; the first row that matches wins. The table
 * ends with a row of id -1 whose other field is the answer for "not found", so -1 itself is never
 * found. Lookups never fail, trace nothing and keep no state.
 */

typedef struct txt_map {
    int32_t id;       /* -1 in the closing row */
    const char *text; /* in the closing row: the fallback, e.g. "Unknown" */
} txt_map;

typedef struct id_map {
    int32_t id;    /* -1 in the closing row */
    int32_t value; /* -1 closes the table for MapByEvt */
} id_map;

/* The value of an id.
 * map: closed by id -1. Returns the row's value, or the closing row's when there is none. */
int MapById(const id_map *map, int key);

/* The id of a value.
 * map: closed, for this lookup, by its first row of value -1.
 * Returns the row's id, or that closing row's id when there is none. */
int MapByEvt(const id_map *map, int key);

/* The text of an id.
 * Returns a pointer into the table, which the caller neither frees nor changes; the closing row's
 * text when there is none. */
const char *TxtMapById(const txt_map *map, int id);

/* The id of the first row whose text the key begins with (case counts).
 * Returns -1 when there is none. A row with an empty text matches any key. */
int TxtMapByTxt(const txt_map *map, const char *text);

/* The id of the first row whose text equals the key, A to Z ignoring case.
 * Returns -1 when there is none. */
int TxtMapByTxtNoCase(const txt_map *map, const char *text);

/* The id of the first row whose text occurs anywhere in the key (case counts).
 * Returns -1 when there is none. */
int TxtMapByTxtStr(const txt_map *map, const char *text);

/* Compares two texts, ignoring the case of A to Z alone, whatever the locale.
 * a, b: either may be null; null sorts before any text and equals null.
 * Returns negative, 0 or positive: the difference of the first bytes that differ, as unsigned
 * folded bytes; -1 or 1 when one is null. */
int strCmpNoCase(const char *a, const char *b);

/* ---- Conversions and shell helpers ----------------------------------------------------------
 * Traces go to /var/tmp/tarnic.log.
 */

/* Writes an IPv4 address as dotted text.
 * ip: numeric, the first octet in the most significant byte, on every host.
 * buf, size: at least 17 bytes; all size bytes are written, zero-filled behind the text.
 * Returns 0; 1 when size is below 17 (buf untouched). Traces "buffer size too small!!". */
int ip2string(u32 ip, char *buf, int size);

/* Reads an IPv4 address from text.
 * text: any form that inet_addr takes, such as "192.168.1.1" or "10.1".
 * ip: receives the address in network byte order in memory, on every host. On a big-endian host
 *     that is the value that ip2string prints; elsewhere convert with ntohl first.
 * Returns 0; 1 when the text is no address (0xFFFFFFFF is stored). */
int string2ip(const char *text, u32 *ip);

/* Converts a signal level to a quality figure.
 * dbm: in dBm. Returns 1 (-91 and below) to 100 (-36 and above). */
int dbm2Rssi(int dbm);

/* Runs a shell command and waits for it.
 * format: printf-style; the formatted command must be shorter than 512 characters, else it is not
 *         run. It reaches the shell as it is.
 * Returns the length of the formatted command (never its exit status). */
int _system(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Starts a shell command and opens its standard output for reading.
 * format: as for _system.
 * Returns a stream that the caller closes with _system_close; null when the command is 512
 * characters or longer, or could not be started. */
FILE *_system_read(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Closes a stream of _system_read and waits for its command.
 * stream: may be null. Returns the command's wait status, -1 on failure; 0 for null. */
int _system_close(FILE *stream);

/* ---- QoS tree -------------------------------------------------------------------------------
 * Per interface, a model of its traffic-control tree: a root qdisc, classes below it, one leaf
 * qdisc in every class. Nothing here talks to the kernel; start_qos and stop_qos write shell
 * scripts that do, and running them is the caller's business.
 *
 *  1. A class is named by its 16-bit handle h: tc class 1:h. Handles are taken modulo 65536.
 *     Where two classes have one handle, the first in pre-order (each class before its children,
 *     and these before its next sibling) is meant. tc itself takes leaf classes up to 0xfff.
 *  2. A leaf class (one without children) receives the packets whose firewall mark is its handle.
 *  3. Rates are kbit/s, bursts bytes, unless a field says otherwise.
 *  4. The library owns every record on qos_root until the delete functions free it. Callers may
 *     read them, and may change parameters but neither links nor types. They link in no classes
 *     of their own: behind a qos_class the library keeps more.
 *  5. Traces go to /dev/console. Every lookup of an unknown interface traces "NAME not found!!",
 *     so a successful add_root_qdisc does too.
 */

/* Root qdisc types */
enum {
    R_pfifo_fast = 0, /* no shaping; only the transmit queue length is set */
    R_HTB = 1,
    R_HFSC = 2,
    R_PRIO = 3 /* one class per band, made by add_root_qdisc alone */
};

/* Class types */
enum { C_HTB = 0, C_HFSC = 1, C_PRIO = 2 };

/* Leaf qdisc types */
enum { L_pfifo = 0, L_SFQ = 1, L_RED = 2, L_TBF = 3 };

/* Marks for connections marked 100, 200, ... 800 (see renew_qos_rule) */
typedef struct automark_value {
    u8 enable;   /* non-zero: in use */
    u8 reserved; /* not read */
    u16 mark[8]; /* packet mark for connection mark (i + 1) * 100 */
} automark_value;

typedef struct pfifo_fast_root_param {
    u32 queue_len; /* txqueuelen, packets */
} pfifo_fast_root_param;

/* Of R_HTB and R_HFSC */
typedef struct class_root_param {
    u16 default_class; /* handle for unmarked packets; not checked to exist */
    automark_value automark;
} class_root_param;

typedef struct prio_root_param {
    u8 bands;       /* 0..255; the kernel takes 2..16 */
    u8 priomap[16]; /* band, from 0, of each packet priority 0..15 */
    automark_value automark;
} prio_root_param;

typedef union qos_root_param {
    pfifo_fast_root_param pfifo_fast;
    class_root_param classful;
    prio_root_param prio;
} qos_root_param;

/* One interface */
typedef struct qos_if {
    u32 link_tx;          /* kbit/s; the default user class is held to it */
    u32 link_rx;          /* kbit/s; stored and reported only */
    u32 phy_tx;           /* kbit/s; the rate of the default root class */
    u32 phy_rx;           /* kbit/s; stored and reported only */
    char ifname[32];      /* the key, at most 31 characters */
    u32 root_type;        /* R_...; never changes */
    list_head node;       /* on qos_root */
    list_head classes;    /* top-level qos_class records, by node */
    list_head rules;      /* qos_rule records, by node, in ascending index */
    qos_root_param param; /* the member of root_type */
} qos_if;

typedef struct htb_class_param {
    u32 rate;   /* kbit/s */
    u32 ceil;   /* kbit/s */
    u32 burst;  /* bytes; 0: left to tc */
    u32 cburst; /* bytes; 0: left to tc */
    u32 prio;   /* lower is served first */
} htb_class_param;

typedef struct hfsc_curve {
    u32 umax; /* bytes; 0: left out */
    u32 dmax; /* ms; 0: left out */
    u32 rate; /* kbit/s */
} hfsc_curve;

/* At most two curves are rendered: ul, and the first of sc, ls, rt (leaf classes only) that has a
 * rate. */
typedef struct hfsc_class_param {
    hfsc_curve ul; /* upper limit; always rendered, and tc wants a rate above 0 */
    hfsc_curve sc; /* service curve */
    hfsc_curve ls; /* link sharing */
    hfsc_curve rt; /* real time */
} hfsc_class_param;

typedef union qos_class_param {
    htb_class_param htb;
    hfsc_class_param hfsc;
} qos_class_param;

typedef struct pfifo_leaf_param {
    u32 limit; /* packets; 0: the kernel's own */
} pfifo_leaf_param;

typedef struct sfq_leaf_param {
    u8 perturb; /* seconds; 0: never */
} sfq_leaf_param;

typedef struct red_leaf_param {
    u32 min;   /* bytes */
    u32 max;   /* bytes */
    u32 burst; /* packets */
    u32 limit; /* bytes */
    u32 avpkt; /* bytes */
} red_leaf_param;

typedef struct tbf_leaf_param {
    u32 latency; /* ms */
    u32 rate;    /* kbit/s */
    u32 burst;   /* bytes */
} tbf_leaf_param;

/* All zero: L_pfifo without a limit, which every class starts with */
typedef struct leaf_qdisc {
    u32 type; /* L_... */
    union {
        pfifo_leaf_param pfifo;
        sfq_leaf_param sfq;
        red_leaf_param red;
        tbf_leaf_param tbf;
    } param; /* the member of type */
} leaf_qdisc;

typedef struct qos_class {
    u32 type;              /* C_... */
    char name[32];         /* "Class1"... for PRIO bands, else empty */
    u16 handle;            /* tc class 1:handle, and the mark of its packets */
    list_head node;        /* on its parent's children, or the interface's classes */
    list_head children;    /* qos_class records, by node */
    qos_class_param param; /* the member of type; all zero for C_PRIO */
    leaf_qdisc leaf;       /* kept, but not rendered, while the class has children */
} qos_class;

/* The interfaces (qos_if records, by node). */
extern list_head qos_root;

/* Declares an interface and builds its default tree.
 * speeds: four values, kbit/s: link_tx, link_rx, phy_tx, phy_rx.
 * root_type: R_...
 * root_param: the record of that type (pfifo_fast_root_param, class_root_param, prio_root_param).
 * HTB and HFSC start with class 1 at phy_tx, and below it class 2 at phy_tx with an SFQ leaf of
 * perturb 10, and class 3 at link_tx. HTB: rate and ceil are that speed, burst and cburst 1000000
 * for class 1 and 6000 for the others, prio 0. HFSC: the rates of ul and sc are that speed, all
 * else is 0. PRIO starts with one class per band, 1..bands. Where memory ends in that tree, the
 * interface stays with what was built. Two names that are stored alike are two
 * interfaces; lookups, those that build the second one's tree included, find the older.
 * Returns 0; 2 when the interface exists; 3 when out of memory or root_type is unknown.
 * Traces "Internel error occur at not define root qdisc type" for an unknown type. */
int add_root_qdisc(const u32 *speeds, const char *ifname, u32 root_type, const void *root_param);

/* Forgets an interface: frees it with its classes and the rules still on it.
 * Returns 0; 1 when there is no such interface.
 * Traces "Internel error occur at not define root qdisc type" when the record's type has been
 * written over; its classes are then not freed. */
int del_root_qdisc(const char *ifname);

/* Adds a class as the last child of another.
 * parent: its parent's handle; 0 adds at top level.
 * handle: the new handle; unique unless added at top level, where it is not tested.
 * class_param: htb_class_param or hfsc_class_param, by the interface's root type.
 * class_name: accepted, not stored; may be null.
 * Returns 0; 1 when interface or parent is unknown; 2 when a parent is given and the interface has
 * the handle already; 3 when out of memory; 4 when the root type takes no classes (pfifo_fast,
 * PRIO). */
int add_class(const char *ifname, u32 parent, u32 handle, const void *class_param,
              const char *class_name);

/* Frees a class with all its descendants. Rules that set its mark stay.
 * Returns 0; 1 when interface or class is unknown. */
int del_class(const char *ifname, u32 handle);

/* Sets the leaf qdisc of a class.
 * leaf: copied whole; its type is not tested here.
 * Returns 0; 1 when interface or class is unknown; 4 when the class has children. */
int add_leaf_qdisc(const char *ifname, u32 handle, const leaf_qdisc *leaf);

/* Puts the leaf qdisc of a class back to L_pfifo without a limit.
 * Returns 0; 1 when interface or class is unknown, or the class has children. */
int del_leaf_qdisc(const char *ifname, u32 handle);

/* Whether rules may set this mark.
 * key: a class handle. Returns 1 when that class exists and has no children, else 0. */
int check_Key(const char *ifname, u32 key);

/* Writes /var/tmp/qos_start: the tc commands that build the tree, then the rules' commands.
 * The script is rewritten whole, mode 0700. It is refused, and left as it was, where it is a
 * symbolic link, no regular file, another user's or has another hard link. One that others may
 * write to (its group, or everybody) is replaced by a new file, since they may have it open.
 * Returns 1; 0 when the interface is unknown or the script cannot be opened. Write errors are not
 * reported: on a full file system the script is left with its three opening lines, or empty, so
 * that it does nothing when it is run.
 * Traces "An error occur at not define leaf qdisc type" for an unknown leaf type, whose script line
 * stays open, and what renew_qos_rule traces. */
int start_qos(const char *ifname);

/* Writes /var/tmp/qos_stop: the commands that take tree and rules away. As start_qos. */
int stop_qos(const char *ifname);

/* Writes both scripts: stop_qos, then start_qos.
 * Returns 0 as soon as one of them does, else 1. */
int restart_qos(const char *ifname);

/* restart_qos for every interface in turn. The script paths are fixed, so the scripts of the last
 * interface are those left on disk. The result has no meaning.
 * Traces "Start NAME's Qos!!" for each, or "Qos list empty!!". */
int restart_qos_all(void);

/* Prints an interface's tree to the console: a line per interface property, then for each class in
 * pre-order its line (three for HFSC, none for PRIO) and, for a leaf class, its leaf qdisc's. Every
 * line is a trace. For an unknown interface: "NAME not found!!", "didn't found qos setting in this
 * interface!". */
void show_ifqos(const char *ifname);

/* ---- Classification rules -------------------------------------------------------------------
 * Each interface owns a list of rules, ordered by index; each says which packets to pick (match)
 * and what to do with them (target). They are rendered as commands of iptables' mangle table, in
 * the chains QOS_NAME and QOS_NAME_AUTO. Schedules limit rules to times of the week.
 *
 *  1. Functions of this family return 1 for success and 0 for failure.
 *  2. Addresses in records are numeric, the first octet in the most significant byte; ports, marks
 *     and ids are plain numbers. Nothing here is in network byte order.
 *  3. Value ranges are not tested: callers fill the records correctly.
 *  4. Char arrays are read to their NUL, or to their end where it is missing.
 *  5. Traces go to /dev/console. An unknown interface gives "NAME not found!!" first, then the
 *     function's own message if it has one.
 */

/* Which packets. A kind that is in force but renders nothing narrows no rule: an IP match without a
 * range that has both its ends, or a DSCP match of a dscp_mode above 1, leaves a rule that matches
 * every packet, unless another kind narrows it. */
typedef struct qos_match {
    u32 flags;        /* bit n: kind n is in force: 0 802.1p, 1 802.1Q, 2 MAC, 3 IP, 4 DSCP, 5 TOS,
                         6 ALG, 7 packet length, 8 protocol, 9 domain, 10 URL. In a rendered
                         rule bit 0 selects vlan_id and bit 1 dot1p_prio; in the report bit 0
                         shows dot1p_prio and bit 1 vlan_id */
    u8 dot1p_prio;    /* 802.1p priority */
    u16 vlan_id;      /* 802.1Q VLAN id */
    char src_mac[20]; /* source MAC address, text as iptables takes it */
    u32 src_ip_start; /* source range, first octet most significant; 0: unset */
    u32 src_ip_end;   /* a range counts only with both ends set */
    u32 dst_ip_start; /* destination range, likewise */
    u32 dst_ip_end;
    u32 dscp_mode; /* 0: dscp_value.raw; 1: dscp_value.class_id; else no DSCP match */
    union {
        u8 raw;       /* DSCP number, 0..63 */
        u32 class_id; /* 0..7 CS0..CS7, 8 BE, 9..20 AF11..AF43, 21 EF */
    } dscp_value;
    u32 tos;         /* 16 Minimize-Delay, 8 Maximize-Throughput, 4 Maximize-Reliability,
                        2 Minimize-Cost, 0 Normal-Service */
    u8 precedence;   /* IP precedence, with tos */
    u32 protocol;    /* 0 TCP, 1 UDP, 2 ICMP, 3 TCP and UDP, 4 all; 5 and more: the rule renders
                        nothing */
    u16 sport_start; /* port ranges: used only with both ends non-zero */
    u16 sport_end;
    u16 dport_start;
    u16 dport_end;
    u8 tcp_flag_mask; /* TCP flags to examine: bit 0 SYN, 1 ACK, 2 FIN, 3 RST, 4 URG, 5 PSH */
    u8 tcp_flag_comp; /* of those, the flags that must be set; both non-zero or unused */
    u32 pkt_len;      /* packet length, bytes: minimum << 16 | maximum */
    u32 alg;          /* 0 sip, 1 Q.931, 2 ftp */
    char url[256];
    char domain[256];
    u8 sched_index; /* a schedule's index; 0: always */
} qos_match;

/* What to do with them. TOS and DSCP share kind and value on purpose: a target that sets both
 * uses the same two for both. */
typedef struct qos_target {
    u32 flags; /* bit 0 MARK, 1 TOS, 2 DSCP, 3 MKVLAN, 4 LOG */
    u16 mark;  /* for MARK: the handle of a leaf class */
    u32 kind;  /* TOS: the id as in qos_match.tos; DSCP: 0 raw, 1 class */
    union {
        u8 raw;       /* TOS: the precedence; DSCP kind 0: the number */
        u32 class_id; /* DSCP kind 1: as in qos_match.dscp_value */
    } value;
    u8 vlan_prio;   /* MKVLAN: priority of the tag to add */
    u16 vlan_id;    /* MKVLAN: its VLAN id */
    u8 vlan_double; /* MKVLAN: non-zero adds a second tag */
    u8 reserved;    /* not read */
    u8 log;         /* non-zero: logging wished for; reported, no command */
} qos_target;

typedef struct qos_rule {
    list_head node; /* on its interface's rules */
    u8 index;       /* 0..255, unique within the interface */
    qos_match match;
    qos_target target;
} qos_rule;

/* A schedule, as the caller gives it */
typedef struct qos_sched {
    u8 index;      /* 1..255 */
    u8 days;       /* bit 0 Sunday ... bit 6 Saturday; none: every day */
    u8 all_day;    /* 1: the whole day; else the times below */
    u8 start_hour; /* 0..23 */
    u8 stop_hour;  /* 0..23 */
    u8 start_min;  /* 0..59 */
    u8 stop_min;   /* 0..59 */
} qos_sched;

/* A schedule, as the library keeps it */
typedef struct qos_sched_node {
    list_head node; /* on sched_root */
    qos_sched sched;
} qos_sched_node;

/* The schedules of all interfaces (qos_sched_node records, by node). */
extern list_head sched_root;

/* The head of an interface's rule list, owned by the library; null when the interface is unknown.
 */
list_head *find_rule_list_by_name(const char *ifname);

/* Adds a rule, kept in ascending order of index.
 * index: 0..255. match, target: copied whole. A target with MARK names an existing leaf class.
 * Returns 1; 0 when refused, and then nothing changed. Traces "QoS tree not found!!",
 * "Index already exist!!", "Mark key not found!!" or "Memory allocate fail!!". */
int add_qos_rule(const char *ifname, u8 index, const qos_match *match, const qos_target *target);

/* Replaces a rule: del_qos_rule, then add_qos_rule.
 * Returns 1; 0 when there was no such rule, or the new one was refused; the old one is then gone.
 * Traces what those two trace. */
int modify_qos_rule(const char *ifname, u8 index, const qos_match *match, const qos_target *target);

/* Frees a rule.
 * Returns 1; 0 when interface or rule is unknown. Traces "QoS tree not found!!". */
int del_qos_rule(const char *ifname, u8 index);

/* Copies out an interface's automark value.
 * out: filled unless the interface is unknown or its root is pfifo_fast, which has none.
 * Returns 1 when it was filled and its enable byte is non-zero, else 0. */
int get_automark_value(const char *ifname, automark_value *out);

/* Adds a schedule behind the others.
 * sched: only index, days, all_day and start_hour are taken over; the other three are stored as
 *        0. An index that exists is added again, and found only once the older one is deleted.
 * Returns 1; 0 when the index is 0 or memory is short. */
int add_sched(const qos_sched *sched);

/* Frees the oldest schedule of this index. Rules that name it stay.
 * Returns 1; 0 when there is none. */
int del_sched(u8 index);

/* Frees every schedule. Returns non-zero. */
int del_all_sched(void);

/* The oldest schedule of this index, owned by the library; null when there is none. */
qos_sched_node *search_sched(u8 index);

/* Writes a schedule as the text of an iptables time match.
 * size: a length; the text is copied, terminator included, when its length is at most size, so
 *       buf holds size + 1 bytes. 96 hold any schedule.
 * Returns 1; 0 when there is no such schedule or the text is longer than size.
 * Traces "schedule index not found!!" for both. */
int get_sched_str(u8 index, char *buf, u32 size);

/* Writes the commands that build an interface's chains anew: flush and delete the old ones, create
 * them, unlink and link them, one line or more per rule, and where automark is enabled the eight
 * lines that map connection marks 100..800.
 * out: open for writing; stays the caller's. ifname: written as given. rules: a list of qos_rule.
 * Returns 0 always. Traces, per rule: "get QF_PROTOCOL match type" when it matches a protocol,
 * "LOG target not implement!!" for that target, and for a schedule that is missing
 * "schedule index not found!!" and "match buffer is too small or index not found, ...". For an
 * unknown ifname, "NAME not found!!" at the end: it has no automark value. */
int renew_qos_rule(FILE *out, const char *ifname, list_head *rules);

/* Writes the commands that unlink, flush and delete an interface's chains.
 * out: open for writing; stays the caller's. The result has no meaning. */
int remove_qos_rule(FILE *out, const char *ifname);

/* Writes /var/tmp/qos_rule_NAME with the text of renew_qos_rule, mode 0700, and runs it at once
 * through the shell, waiting for it. The file is refused, replaced and, on a full file system, left
 * without its commands as for start_qos. While somebody has the file open for writing it cannot be
 * run; a child that another thread is starting has, for a moment. That is waited for, a second or
 * so at most.
 * Returns 1, whatever the script's exit status; 0 when the interface is unknown or the file cannot
 * be opened. Traces "QoS struct not fuond!!" or "Can't open tmp file!!", and what
 * renew_qos_rule traces. */
int restart_rule(const char *ifname);

/* Prints an interface's rules, in ascending index, to the console: per rule its index, then what it
 * matches and what it does, field by field. Every line is a trace. For an unknown interface:
 * "NAME not found!!", "QoS tree not found, no rule found!!". */
void show_rule(const char *ifname);

/* ---- Semaphores and shared memory -----------------------------------------------------------
 * System V objects, shared between processes by a key that the callers agree on. A semaphore is a
 * lock: 1 is free, 0 is held. It is not recursive: who holds it and takes it again waits for ever.
 *
 * Creating opens what exists. New objects have the permissions 0666, whatever the umask: any
 * process may use them. One that exists must grant the caller reading and writing.
 *
 * Functions of this family return 0 for success and 1 for failure, keep no state and may run on any
 * thread. Traces go to /var/tmp/tarnic.log.
 */

/* Opens or creates a lock and sets it free, even while another process holds it.
 * semid: receives the id; -1 when it could not be had.
 * Returns 0; 1 on failure. Traces "key=K semget fail" or "semid=S semctl fail". */
int sem_create(int key, int *semid);

/* Removes a lock. Who waits for it, or takes it or gives it back later, fails; so it is safe only
 * when nobody uses the id any more. It takes the user of the lock's creator or owner, or
 * CAP_SYS_ADMIN: for others the lock stays. Returns 0 always. */
int sem_delete(int semid);

/* Takes a lock, and waits until it can. The kernel gives it back when the process ends.
 * file, line, func: the caller's place, for the trace.
 * Returns 0; 1 on failure, and then the lock is not held: leave alone what it guards, and do not
 * call upup, which would raise the value to 2 and let two in at once. A signal while waiting is a
 * failure too: that of any handler, even one installed with SA_RESTART, and being stopped and
 * continued. Traces "FILE:LINE:::FUNC:::semid=S down fail". */
int downdown(int semid, const char *file, int line, const char *func);

/* Gives a lock back, or adds one more to a free one. As downdown; traces "... up fail". */
int upup(int semid, const char *file, int line, const char *func);

/* Opens or creates a shared memory segment; the caller attaches it.
 * size: bytes; at most that of a segment that exists.
 * shmid: receives the id; -1 on failure.
 * Returns 0; 1 on failure. Traces "key=K shmget fail". */
int shm_create(int key, u32 size, int *shmid);

/* ---- Interface queries ----------------------------------------------------------------------
 * By interface name. A name of 16 characters or more is no interface's, and fails; but see
 * get_rxtx_by_ifname.
 *
 * get_rxtx_by_ifname takes no rights. The others open a raw socket, for which they need
 * CAP_NET_RAW; set_mac_by_ifname needs CAP_NET_ADMIN besides. Without them they fail.
 *
 * Functions of this family return 0 for success and 1 for failure, trace nothing, keep no state and
 * may run on any thread. IPv4 addresses are in network byte order in memory.
 */

/* The counters of one interface, in the column order of /proc/net/dev */
typedef struct if_rxtx {
    u64 rx_bytes;
    u64 rx_packets;
    u32 rx_errs; /* this and the other 32-bit counters: modulo 2^32 */
    u32 rx_drop;
    u32 rx_fifo;
    u32 rx_frame;
    u32 rx_compressed;
    u32 rx_multicast;
    u64 tx_bytes;
    u64 tx_packets;
    u32 tx_errs;
    u32 tx_drop;
    u32 tx_fifo;
    u32 tx_colls;
    u32 tx_carrier;
    u32 tx_compressed;
} if_rxtx;

/* Reads an interface's counters from /proc/net/dev.
 * ifname: a text of any length; the first line that contains it anywhere, its counters included, is
 *         taken: "eth0" also finds "veth0", and "" the first interface.
 * out: zeroed once the file is open; fields that the line does not have stay 0.
 * Returns 0; 1 when the file cannot be read (out untouched) or no line has the name. */
int get_rxtx_by_ifname(const char *ifname, if_rxtx *out);

/* An interface's IPv4 address, netmask or broadcast address.
 * ip, mask, bcast: network byte order; untouched on failure.
 * Returns 0; 1 when there is no such interface, it has no address, or rights are missing. */
int get_ip_by_ifname(const char *ifname, u32 *ip);
int get_mask_by_ifname(const char *ifname, u32 *mask);
int get_bcast_by_ifname(const char *ifname, u32 *bcast);

/* An interface's hardware address.
 * mac, size: 6 bytes are written. Returns 0; 1 when size is below 6, or as above. */
int get_mac_by_ifname(const char *ifname, u8 *mac, u32 size);

/* Changes an Ethernet interface's hardware address.
 * mac: 6 bytes. Returns 0; 1 when the interface is no Ethernet, or refuses. */
int set_mac_by_ifname(const char *ifname, const u8 *mac);

/* Looks an address up among the interfaces, and never finds one: returns 1 always.
 * ip: network byte order. name, size: untouched. */
int get_ifname_by_ip(u32 ip, char *name, u32 size);

/* Not provided: return 1 and do nothing else. */
int set_ip_by_ifname(const char *ifname, u32 ip);
int set_mask_by_ifname(const char *ifname, u32 mask);
int set_bcast_by_ifname(const char *ifname, u32 bcast);
int get_mtu_by_ifname(const char *ifname, u32 *mtu);
int set_mtu_by_ifname(const char *ifname, u32 mtu);

/* ---- Sockets --------------------------------------------------------------------------------
 * IPv4 sockets, TCP and UDP. A socket is a plain descriptor, the caller's from the moment it is
 * returned.
 *
 *  1. Functions of this family return 0 for success and 1 for failure; outputs are written on
 *     success alone, unless a comment says otherwise.
 *  2. One option word serves the whole family; each function heeds its own bits.
 *  3. Traces go to /var/tmp/tarnic.log, with the words of LogStrMap.
 *  4. The functions keep no state and may run on any thread.
 *  5. An interface's name needs CAP_NET_RAW (see get_ip_by_ifname), and binding to a port below
 *     1024 CAP_NET_BIND_SERVICE. All else takes no rights.
 */

typedef struct ipport {
    u32 ip;   /* network byte order; 0: any address */
    u16 port; /* network byte order */
} ipport;

/* Options */
enum {
    SOCKET_OPT_TCP = 0x1,             /* stream socket, else datagram */
    SOCKET_OPT_REUSE = 0x2,           /* SO_REUSEADDR */
    SOCKET_OPT_BIND = 0x4,            /* bind to the local address */
    SOCKET_OPT_SENDTO = 0x100,        /* datagram: send to dest, not to the peer */
    SOCKET_OPT_SEND_NONBLOCK = 0x200, /* MSG_DONTWAIT */
    SOCKET_OPT_SEND_NOSIGNAL = 0x400, /* MSG_NOSIGNAL */
    SOCKET_OPT_RECVFROM = 0x10000,    /* datagram: receive without a peer */
    SOCKET_OPT_RECV_PEEK = 0x20000,   /* MSG_PEEK */
    SOCKET_OPT_RECV_WAITALL = 0x40000 /* MSG_WAITALL */
};

/* The words of the traces; the fallback is "*unknown*". */
extern const txt_map LogStrMap[];

/* Opens a socket.
 * ifname: an interface whose address is bound instead of addr's; null: none. It must have one even
 *         where nothing is bound.
 * addr: the local address and port.
 * options: SOCKET_OPT_TCP, _REUSE, _BIND.
 * Returns 0; 1 on failure. Traces "Can't resolve ifname=NAME", "socket open error!!",
 * "socket setsocketopt error SOCKET_OPT_REUSE failed. fd=F" or
 * "socket bind error fd=F,ip=A.B.C.D,port=P", with addr's ip even when an interface was named. */
int socket_open(const char *ifname, const ipport *addr, u32 options, int *fd_out);

/* Opens a socket and connects it, waiting until it is.
 * local: null: any address and port. peer: neither ip nor port 0.
 * options: SOCKET_OPT_TCP, _BIND; _REUSE is not heeded.
 * Returns 0; 1 on failure. Traces "error args!!", or "socket open error" behind socket_open's own;
 * a refused connection traces nothing. */
int socket_connect(const ipport *local, const ipport *peer, u32 options, int *fd_out);

/* Opens a listening socket, its address reused and bound.
 * addr: port not 0. backlog: above 0.
 * options: SOCKET_OPT_TCP, without which it fails.
 * Returns 0; 1 on failure. Traces "error args!!", "socket open error" behind socket_open's own, or
 * "socket listen error". */
int socket_listen(const ipport *addr, u32 options, int backlog, int *fd_out);

/* Closes a descriptor. Returns 0 always. */
int socket_close(int fd);

/* Whether a socket has a peer. Returns 0 when it has; 1 when not, or fd is no socket. */
int get_socket_state(int fd);

/* The address of a socket's peer, and its own. Returns 0; 1 on failure. */
int get_socket_peer(int fd, ipport *out);
int get_socket_local(int fd, ipport *out);

/* ---- Select dispatcher ----------------------------------------------------------------------
 * A detached thread that waits on one socket, and on those accepted from it, and calls the caller's
 * handlers. It reads nothing and closes nothing: the handlers do.
 *
 *  1. All handlers of a dispatcher run on its thread, one at a time. Their results are ignored.
 *  2. It ends when loop_hdlr sets its exit flag to 1, when close_hdlr was called for a socket that
 *     does not listen, on an error, or by pthread_cancel. The thread is detached: once exit_hdlr
 *     was called its id is void.
 *  3. Cancellation is asynchronous: it strikes anywhere, in a handler too, and calls no exit_hdlr.
 *     Lost with the thread are its record's memory; a connection that was accepted and not yet told
 *     to accept_hdlr, and a trace file that was open, which stay open; and every lock that a
 *     handler held, those of malloc and stdio included, which stay taken. The exit flag loses
 *     nothing.
 *  4. A watched descriptor is closed in close_hdlr, or after FD_CLR from loop_hdlr's watch: closed
 *     elsewhere it makes select fail. Shut it down elsewhere, and close_hdlr comes.
 *  5. An empty datagram ends the dispatcher of a datagram socket, as if its peer had closed.
 *     Whoever can send to the socket can do that: connect it to its peer, or be ready to start
 *     another.
 *  6. Descriptors of FD_SETSIZE (1024) and more cannot be watched: such a connection is closed as
 *     soon as it is accepted.
 *  7. Where accept fails for want of descriptors or memory, the connection waits in the backlog.
 *     The next pass leaves the listening socket out, serves the clients, and lasts 10 ms at most;
 *     its end is no time-out. Then accept is tried again.
 *  8. Better is a capacity, which loop_hdlr keeps where its watch is not null:
 *         if (clients < capacity) FD_SET(listener, watch); else FD_CLR(listener, watch);
 *     with clients counted in accept_hdlr and close_hdlr. Newcomers then wait in the backlog. No
 *     other descriptor may be set.
 *  9. Of two acceptors on one listening socket (threads or processes) both wake for a connection,
 *     and the slower waits in accept for the next one: meanwhile it serves no client and sees no
 *     time-out and no exit flag. With O_NONBLOCK set on the socket it goes on at once.
 */

typedef struct socket_select_handlers {
    /* A connection was accepted. peer: network byte order; for the call alone. */
    int (*accept_hdlr)(pthread_t self, int new_fd, ipport *peer);
    /* Bytes are pending. */
    int (*recv_hdlr)(pthread_t self, int fd);
    /* fd has no bytes pending: its peer has closed; an error is pending, such as a reset, or for a
     * connected datagram socket a refusal; an empty datagram came; the count could not be read
     * (FIONREAD failed); or select failed, see error_hdlr. fd is open, and not watched any more
     * when this returns. */
    int (*close_hdlr)(pthread_t self, int fd);
    /* A pass has ended. watch: the watched descriptors, of which some may be cleared; null when the
     * pass timed out. exit_flag: 1 ends the dispatcher. */
    int (*loop_hdlr)(pthread_t self, fd_set *watch, int *exit_flag);
    /* Nothing happened for the time-out. watch: as above, never null. */
    int (*timeout_hdlr)(pthread_t self, fd_set *watch);
    /* code 1: cancellation could not be set up, the dispatcher ends; 2: select failed, and all that
     * is watched counts as ready: a listening socket alone is looked at, without one a descriptor
     * that has no bytes gets close_hdlr. The dispatcher then ends unless this pass's loop_hdlr,
     * which finds the exit flag at 1, sets it to something else. */
    int (*error_hdlr)(pthread_t self, int code);
    /* The dispatcher ends. reason 0: exit flag or error; 3: the socket, which does not listen, got
     * close_hdlr. */
    int (*exit_hdlr)(pthread_t self, int reason);
} socket_select_handlers;

/* Starts a dispatcher.
 * fd: a socket, listening or not; stays the caller's. reserved: not read.
 * seconds, microseconds: how long a pass waits, each below 2^31; both 0: without end.
 * handlers: copied. accept_hdlr may be null unless fd listens, timeout_hdlr unless there is a
 *           time-out, loop_hdlr unless fd listens (but without it there is no exit flag).
 * thread_out: receives the thread's id, which the handlers are given too, maybe sooner.
 * Returns 0; 1 on failure. Traces "malloc fail!!", "pthread handler set error",
 * "fd F isn't a Socket FD", "getsockopt fail", "fd F is too large for select" or
 * "pthread create error"; the thread traces "get ExitFlag pid=P,ppid=Q" when it is told to end
 * after a time-out, "Exit pid=P,ppid=Q" when it ends, and, for connections that it closes because
 * of their descriptors, once a minute at most, "fd F is too large for select, connections refused
 * so far: N". */
int socket_select(int fd, u32 reserved, u32 seconds, u32 microseconds,
                  const socket_select_handlers *handlers, pthread_t *thread_out);

/* ---- Send and receive -----------------------------------------------------------------------
 * Both loop until the whole count is through. Traces: "socket send error" (the receive side too,
 * when fd is no socket), "socket Can't handle SO_TYPE=T" for what is neither stream nor datagram.
 */

/* Sends a buffer.
 * options: SOCKET_OPT_SENDTO, _SEND_NONBLOCK, _SEND_NOSIGNAL.
 * len: bytes to send, then bytes sent, also when a call failed half-way. With 2^31 and more nothing
 *      is sent, 0 is stored, and the call succeeds.
 * dest: with SOCKET_OPT_SENDTO on a datagram socket, where to; else not read. A datagram socket
 *       without it must be connected.
 * Returns 0; 1 on failure. Traces besides "socket send error errno=E". */
int socket_send(int fd, u32 options, const void *buf, u32 *len, const ipport *dest);

/* Receives an exact count of bytes, over as many datagrams as it takes.
 * options: SOCKET_OPT_RECVFROM, _RECV_PEEK, _RECV_WAITALL. Every peek begins at the head of the
 *          queue: where less is queued than is wanted, _RECV_PEEK repeats the same bytes until the
 *          count is full (on a stream _RECV_WAITALL with it waits for more instead).
 * len: bytes wanted, then bytes received, also when a call failed half-way.
 * src: not null with SOCKET_OPT_RECVFROM on a datagram socket; only read. A datagram socket without
 *      that option must be connected. Empty datagrams are passed over, and so a datagram socket
 *      that is shut down for reading is asked for ever.
 * Returns 0; 1 on failure, and, without a trace, when the stream's peer closed too early. Traces
 * besides "getsockopt SO_TYPE Error" (no peer, or no src) and "socket recv error errno=E". */
int socket_recv(int fd, u32 options, u8 *buf, int *len, const ipport *src);

/* ---- Addresses and ports --------------------------------------------------------------------
 * Fill an ipport. n2n: the port (and the numeric ip) is in network byte order already; h2n: it is
 * in host byte order. Traces nothing.
 */

/* Return 0 always. */
int ipport_convert_n2n(u32 ip, u16 port, ipport *out);
int ipport_convert_h2n(u32 ip, u16 port, ipport *out);

/* ip_text: as string2ip takes it. Return 0; 1 when it is no address (out->port untouched). */
int ipport_string_convert_n2n(const char *ip_text, u16 port, ipport *out);
int ipport_string_convert_h2n(const char *ip_text, u16 port, ipport *out);

/* ---- Bandwidth monitor ----------------------------------------------------------------------
 * A thread that samples the byte counters of registered interfaces and keeps their rates, in bytes
 * per second. The registry is its owner's record, guarded by a semaphore of its own.
 *
 *  1. All functions but bm_start return 1 for success and 0 for failure.
 *  2. They lock for themselves and may run on any thread. Who walks the records, to read a history,
 *     holds the lock meanwhile, by downdown and upup on semid, and calls none of these functions
 *     before giving it back: the call would wait for ever.
 *  3. One thread per registry. A second one would spoil the rates, and would go on with a registry
 *     that the first has emptied and its owner has freed.
 *  4. interval, keep_history and stop may be written at any time, without the lock. Setting bit 0
 *     of stop ends the thread within a period; it then empties the registry. A registry that had an
 *     interface until then may be freed as soon as its list is seen empty under the lock; of one
 *     without, nothing tells, and it stays for a period more. Entries of histories are not freed.
 *  5. Then, and when no other call with the registry is under way or will come, sem_delete on semid
 *     is safe. Sooner it leaves those who use the registry without a lock. The same goes for its
 *     key: while a registry is in use, neither init_bm nor sem_create may be called with it.
 *  6. A signal that interrupts a wait for the lock leaves the caller unprotected: the call traces
 *     "down fail", goes on without the lock, and gives back what it never took. The value then
 *     rises to 2, and two may hold the lock at once, until the interrupted process ends. Any
 *     handler does it, and so do SIGSTOP and SIGCONT without one. So block signals in threads that
 *     make these calls, and do not stop the process. When it has happened, see that nobody uses the
 *     registry, and call sem_create with its key, which sets the lock right.
 *  7. The thread blocks all signals. At each turn it takes the lock that semid names then.
 *  8. Traces go to /dev/console; those of a failing lock to /var/tmp/tarnic.log, and work goes on
 *     unlocked. No function takes rights beyond those of sem_create.
 */

typedef struct bm_list {
    list_head list;  /* bm_iface records, by node, in order of registration */
    u8 count;        /* registrations ever made, modulo 256 */
    u8 keep_history; /* non-zero: rates are kept */
    u8 interval;     /* seconds; 0 works as 1 */
    u8 stop;         /* bit 0: end the thread */
    int32_t semid;   /* the lock; -1: none */
} bm_list;

typedef struct bm_iface {
    list_head node;    /* on its registry's list */
    char ifname[32];   /* at most 31 characters */
    u64 last_rx;       /* bytes, at the last sample */
    u64 last_tx;       /* bytes, at the last sample */
    u64 rx_rate;       /* bytes per second */
    u64 tx_rate;       /* bytes per second */
    u16 flags;         /* bit 0: sampled at least once */
    list_head history; /* bm_sample records, by node, oldest first */
    u16 history_cnt;   /* at most 257 */
} bm_iface;

typedef struct bm_sample {
    list_head node; /* on its interface's history */
    u64 rx_rate;    /* bytes per second */
    u64 tx_rate;    /* bytes per second */
} bm_sample;

/* Sets up a registry, and its lock, which is set free (see sem_create).
 * registry: overwritten. key: the lock's. interval: seconds. keep_history: non-zero: keep rates.
 * Returns 1; 0 when the lock could not be made. The caller removes it with sem_delete. */
int init_bm(bm_list *registry, int key, u8 interval, u8 keep_history);

/* Registers an interface, which need not exist yet; one that is registered starts anew, and its
 * history is freed. Returns 1; 0 when out of memory, and then it is not registered. */
int add_bm_by_iface(const char *ifname, bm_list *registry);

/* Frees an interface's record with its history. Returns 1; 0 when it is not registered. */
int del_bm_by_iface(const char *ifname, bm_list *registry);

/* The current rates of an interface.
 * out: receives rx_rate and tx_rate; its node is not written.
 * Returns 1 (rates 0 until the second sample); 0 when the interface is not registered or was never
 * sampled. */
int query_bm_by_iface(const char *ifname, bm_list *registry, bm_sample *out);

/* Starts the sampling thread, detached.
 * registry: set up by init_bm; lives until the thread has emptied it.
 * Returns 0 when it runs, 1 when not. The thread traces "bmThread Exit" when it ends. */
int bm_start(bm_list *registry);

/* ---- Log files ------------------------------------------------------------------------------
 * Up to eight append-only files of lines "FIRST|SECOND|SECONDS", the last the time since the Unix
 * epoch. Every 128 lines written here the file is renamed to FILE_SECONDS and begun anew; two
 * renamed in the same second leave the later one. Nothing is traced.
 *
 * In a directory that others may write to (its group, everybody, or an owner who is neither root
 * nor the caller's user) a log is a plain file of the caller's user with one name. What they may
 * have planted there is not taken: a symbolic link, a hard link, another kind of file or another
 * user's.
 */

typedef struct log_entry {
    char name[64]; /* as registered; not read by the library */
    char file[64]; /* the file's name in dir, at most 63 characters */
    char dir[128]; /* at most 127 characters */
    u16 lines;     /* written since the last renaming; renamed when it gets to 128 */
    int32_t state; /* -1: free; 1: in use */
} log_entry;

/* The logs, by the index that createLog returns. */
extern log_entry logList[8];

/* 1 once initLogSys was called, else 0. */
extern u8 isInit;

/* The value of isInit. */
u8 isLogSysInit(void);

/* Empties the table; files stay. Call it before the first createLog. Returns 1 always. */
int initLogSys(void);

/* Registers a log and empties its file.
 * name, file, dir: stored up to 63, 63 and 127 characters; of a longer file or dir, the file that
 *                  is created has the whole name and those that are written later the stored one.
 * Returns the log's index, 0..7; -1 when the table is full (or initLogSys was not called), and the
 * file was emptied all the same; -2 when the file cannot be created or, see above, is not taken.
 * The descriptor by which it was created, also for -1, stays open for good. */
int createLog(const char *name, const char *file, const char *dir);

/* Appends a line.
 * index: of createLog; any other does nothing. first, second: texts without line feeds.
 * A line whose file cannot be opened, or is not taken, is lost. */
void putlog(int index, const char *first, const char *second);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
