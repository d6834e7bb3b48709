/* SPDX-License-Identifier: MIT */
/* Declares the traffic shaping of a home router and writes its scripts.
 *
 *     home_router DIR
 *
 * Three interfaces, one of each kind that shapes: lan0 (HTB), wan0 (HFSC) and wifi0 (PRIO). For
 * each, DIR (which exists) gets NAME.start, which brings the shaping up on the router, and
 * NAME.stop, which takes it away. Mainline tc and iptables take everything that is declared here.
 */
#include <mordel.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* At most 15 characters, as the kernel has it */
static const char lan[] = "lan0";
static const char wan[] = "wan0";
static const char wifi[] = "wifi0";

/* The classes of lan0 and wan0. 1 to 3 come with the interface; a class's handle is also the mark
 * that sends a packet there. */
enum {
    CLASS_ROOT = 1,   /* everything, at PHY rate */
    CLASS_DIRECT = 2, /* not limited further */
    CLASS_USER = 3,   /* held to LINK rate; what no rule picks */
    CLASS_VOICE = 0x10,
    CLASS_GAMES = 0x11,
    CLASS_WEB = 0x12,
    CLASS_BULK = 0x13
};

/* Bits of qos_match.flags and qos_target.flags */
enum { MATCH_IP = 1 << 3, MATCH_DSCP = 1 << 4, MATCH_LENGTH = 1 << 7, MATCH_PROTOCOL = 1 << 8 };
enum { TARGET_MARK = 1 << 0 };

enum { PROTOCOL_TCP_AND_UDP = 3, DSCP_RAW = 0, DSCP_CLASS = 1, DSCP_AF41 = 18 };

/* ---- Checks: each family of functions has its own idea of success ----------------------- */

static void fail(const char *what, const char *name, int status)
{
    fprintf(stderr, "home_router: %s %s failed (%d)\n", what, name, status);
    exit(1);
}

/* For the tree: 0 is success, other values say why not. */
static void tree(const char *what, const char *name, int status)
{
    if (status != 0) fail(what, name, status);
}

/* For rules and scripts: 1 is success, 0 is failure. */
static void done(const char *what, const char *name, int status)
{
    if (status != 1) fail(what, name, status);
}

/* ---- lan0: HTB, four classes, six rules ------------------------------------------------- */

static void add_lan_class(u32 handle, u32 rate, u32 ceil, u32 prio, const leaf_qdisc *leaf)
{
    htb_class_param htb = {0};

    htb.rate = rate; /* kbit/s it is sure of */
    htb.ceil = ceil; /* kbit/s it may borrow up to */
    htb.prio = prio;
    htb.burst = 6000; /* bytes */
    htb.cburst = 6000;
    tree("a class of", lan, add_class(lan, CLASS_ROOT, handle, &htb, NULL));
    tree("a leaf of", lan, add_leaf_qdisc(lan, handle, leaf));
}

static void add_lan_classes(void)
{
    leaf_qdisc leaf = {0};

    /* Voice: a short queue, late packets are of no use */
    leaf.type = L_pfifo;
    leaf.param.pfifo.limit = 50; /* packets */
    add_lan_class(CLASS_VOICE, 2000, 20000, 0, &leaf);

    /* Games: players take turns */
    leaf.type = L_SFQ;
    leaf.param.sfq.perturb = 10; /* seconds */
    add_lan_class(CLASS_GAMES, 4000, 20000, 1, &leaf);

    /* Web: drops begin early, so that connections slow down before the queue is long */
    leaf.type = L_RED;
    leaf.param.red.min = 15000; /* bytes */
    leaf.param.red.max = 45000;
    leaf.param.red.burst = 25; /* packets: (2 * min + max) / (3 * avpkt) */
    leaf.param.red.limit = 120000;
    leaf.param.red.avpkt = 1000;
    add_lan_class(CLASS_WEB, 10000, 20000, 2, &leaf);

    /* Bulk: never above its own rate */
    leaf.type = L_TBF;
    leaf.param.tbf.latency = 400; /* ms */
    leaf.param.tbf.rate = 8000;   /* kbit/s */
    leaf.param.tbf.burst = 10000; /* bytes */
    add_lan_class(CLASS_BULK, 1000, 8000, 3, &leaf);
}

/* Addresses in rules are plain numbers, the first octet in the most significant byte. */
static u32 ipv4(u32 a, u32 b, u32 c, u32 d) { return a << 24 | b << 16 | c << 8 | d; }

/* Every rule is tried, in the order of the indexes, and the last one that picks a packet decides
 * its mark: so the general ones come first. Indexes leave gaps for later rules. */
static void add_rule(const char *name, u8 index, const qos_match *match, u16 handle)
{
    qos_target target = {0};

    target.flags = TARGET_MARK;
    target.mark = handle;
    done("a rule of", name, add_qos_rule(name, index, match, &target));
}

static void add_lan_packet_rules(void)
{
    qos_match match = {0};

    /* 10: full packets */
    match.flags = MATCH_LENGTH;
    match.pkt_len = 1400U << 16 | 1500U; /* from, to: bytes */
    add_rule(lan, 10, &match, CLASS_BULK);

    /* 20 and 30: what says itself that it is in a hurry (DSCP 46 is EF) */
    memset(&match, 0, sizeof match);
    match.flags = MATCH_DSCP;
    match.dscp_mode = DSCP_CLASS;
    match.dscp_value.class_id = DSCP_AF41;
    add_rule(lan, 20, &match, CLASS_WEB);
    match.dscp_mode = DSCP_RAW;
    match.dscp_value.raw = 46;
    add_rule(lan, 30, &match, CLASS_VOICE);

    /* 40: a game's ports, TCP and UDP alike */
    memset(&match, 0, sizeof match);
    match.flags = MATCH_PROTOCOL;
    match.protocol = PROTOCOL_TCP_AND_UDP;
    match.dport_start = 27015;
    match.dport_end = 27050;
    add_rule(lan, 40, &match, CLASS_GAMES);
}

static void add_lan_address_rules(void)
{
    qos_match match = {0};

    /* 50: the telephones */
    match.flags = MATCH_IP;
    match.src_ip_start = ipv4(192, 168, 1, 100);
    match.src_ip_end = ipv4(192, 168, 1, 109);
    add_rule(lan, 50, &match, CLASS_VOICE);

    /* 60: the consoles, to the game servers */
    match.src_ip_start = ipv4(192, 168, 1, 110);
    match.src_ip_end = ipv4(192, 168, 1, 119);
    match.dst_ip_start = ipv4(203, 0, 113, 0);
    match.dst_ip_end = ipv4(203, 0, 113, 255);
    add_rule(lan, 60, &match, CLASS_GAMES);
}

static void declare_lan(void)
{
    static const u32 speeds[4] = {20000, 20000, 100000, 100000}; /* LINK, PHY: kbit/s */
    static const u16 marks[8] = {CLASS_VOICE, CLASS_GAMES, CLASS_WEB,    CLASS_BULK,
                                 CLASS_USER,  CLASS_USER,  CLASS_DIRECT, CLASS_DIRECT};
    class_root_param root = {0};

    root.default_class = CLASS_USER;
    root.automark.enable = 1; /* connection mark 100 gets marks[0], 200 marks[1], ... */
    memcpy(root.automark.mark, marks, sizeof marks);
    tree("interface", lan, add_root_qdisc(speeds, lan, R_HTB, &root));
    add_lan_classes();
    add_lan_packet_rules();
    add_lan_address_rules();
}

/* ---- wan0: HFSC, one class with a guaranteed delay -------------------------------------- */

static void declare_wan(void)
{
    static const u32 speeds[4] = {10000, 10000, 50000, 50000};
    class_root_param root = {0};
    hfsc_class_param hfsc = {0};
    leaf_qdisc leaf = {0};

    root.default_class = CLASS_USER;
    tree("interface", wan, add_root_qdisc(speeds, wan, R_HFSC, &root));

    hfsc.ul.rate = 10000; /* kbit/s; tc needs an upper limit above 0 */
    hfsc.sc.umax = 1500;  /* bytes of one packet, sent within */
    hfsc.sc.dmax = 20;    /* ms, */
    hfsc.sc.rate = 500;   /* then at this rate */
    tree("a class of", wan, add_class(wan, CLASS_ROOT, CLASS_VOICE, &hfsc, NULL));
    leaf.type = L_pfifo;
    leaf.param.pfifo.limit = 50;
    tree("a leaf of", wan, add_leaf_qdisc(wan, CLASS_VOICE, &leaf));
}

/* ---- wifi0: PRIO, three bands ----------------------------------------------------------- */

static void declare_wifi(void)
{
    static const u8 priomap[16] = {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1};
    static const u32 speeds[4] = {0, 0, 0, 0}; /* PRIO holds nothing to a rate */
    prio_root_param root = {0};
    leaf_qdisc leaf = {0};
    qos_match match = {0};

    root.bands = 3; /* classes 1 to 3 */
    memcpy(root.priomap, priomap, sizeof priomap);
    tree("interface", wifi, add_root_qdisc(speeds, wifi, R_PRIO, &root));

    leaf.type = L_SFQ;
    leaf.param.sfq.perturb = 10;
    tree("a leaf of", wifi, add_leaf_qdisc(wifi, 3, &leaf));

    match.flags = MATCH_DSCP;
    match.dscp_mode = DSCP_RAW;
    match.dscp_value.raw = 46;
    add_rule(wifi, 10, &match, 1);
}

/* ---- Scripts ---------------------------------------------------------------------------- */

/* Copies a script that was just written to DIR/NAME.KIND. */
static void keep_script(const char *script, const char *dir, const char *name, const char *kind)
{
    char answer[8] = "";
    FILE *copy = _system_read("cp -p -- %s %s/%s.%s && echo ok", script, dir, name, kind);
    const int answered = copy != NULL && fgets(answer, sizeof answer, copy) != NULL;
    const int status = _system_close(copy);

    if (!answered || strcmp(answer, "ok\n") != 0 || status != 0) fail("copying", script, status);
    printf("%s/%s.%s\n", dir, name, kind);
}

/* The library writes every interface's scripts to the same two files, so they are taken away
 * before the next interface's are written. */
static void write_scripts(const char *dir, const char *name)
{
    done("start_qos of", name, start_qos(name));
    keep_script("/var/tmp/qos_start", dir, name, "start");
    done("stop_qos of", name, stop_qos(name));
    keep_script("/var/tmp/qos_stop", dir, name, "stop");
    tree("del_root_qdisc of", name, del_root_qdisc(name));
}

int main(int argc, char **argv)
{
    static const char plain[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._/-";

    if (argc != 2 || argv[1][0] == '\0') {
        fprintf(stderr, "usage: home_router DIR\n");
        return 1;
    }
    /* DIR becomes part of a shell command, as it is. */
    if (argv[1][strspn(argv[1], plain)] != '\0') {
        fprintf(stderr, "home_router: %s: only letters, digits and ._/- please\n", argv[1]);
        return 1;
    }

    declare_lan();
    declare_wan();
    declare_wifi();
    write_scripts(argv[1], lan);
    write_scripts(argv[1], wan);
    write_scripts(argv[1], wifi);
    if (fflush(stdout) != 0) fail("writing to", "stdout", 1);
    return 0;
}
