// SPDX-License-Identifier: MIT
// Speed as ratios: each benchmark runs the library and its floor (the same bytes written raw, the
// same system calls made bare) in turn, in one run, and reports library time / floor time.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "mordel.h"

namespace {

using steady = std::chrono::steady_clock;

double seconds(steady::duration d) { return std::chrono::duration<double>(d).count(); }

void need(bool ok, const char *what)
{
    if (ok) return;
    std::fprintf(stderr, "bench: %s failed\n", what);
    std::exit(1);
}

template <typename Library, typename Floor>
void compare(benchmark::State &state, Library library, Floor floor)
{
    steady::duration ours{};
    steady::duration bare{};
    for (auto _ : state) {
        const auto start = steady::now();
        library();
        const auto middle = steady::now();
        floor();
        const auto end = steady::now();
        ours += middle - start;
        bare += end - middle;
        state.SetIterationTime(seconds(middle - start));
    }
    const auto runs = static_cast<double>(state.iterations());
    state.counters["floor_us"] = seconds(bare) / runs * 1e6;
    state.counters["ratio"] = seconds(ours) / seconds(bare);
}

void write_raw(const char *path, int flags, mode_t mode, const std::string &bytes)
{
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC | flags, mode);
    need(::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "write");
    ::close(fd);
}

std::string read_whole(const char *path)
{
    FILE *in = std::fopen(path, "r");
    need(in != nullptr, path);
    std::string all(1U << 20, '\0');
    all.resize(std::fread(all.data(), 1, all.size(), in));
    std::fclose(in);
    return all;
}

// 64 leaf classes below class 1, and 255 rules over them
void declare(const char *ifname)
{
    const u32 speeds[4] = {20000, 20000, 100000, 100000};
    const class_root_param root = {3, {1, 0, {2, 3, 4, 5, 6, 7, 8, 9}}};
    need(add_root_qdisc(speeds, ifname, R_HTB, &root) == 0, "add_root_qdisc");
    const htb_class_param htb = {1000, 20000, 6000, 6000, 1};
    for (u32 handle = 4; handle < 66; ++handle)
        need(add_class(ifname, 1, handle, &htb, nullptr) == 0, "add_class");
    qos_match match{};
    match.flags = 1U << 3 | 1U << 8;
    match.src_ip_start = 0xc0a80001;
    match.src_ip_end = 0xc0a800ff;
    match.protocol = 0;
    match.dport_start = match.dport_end = 443;
    qos_target target{};
    target.flags = 1;
    for (unsigned index = 1; index <= 255; ++index) {
        target.mark = static_cast<u16>(2 + index % 64);
        need(add_qos_rule(ifname, static_cast<u8>(index), &match, &target) == 1, "add_qos_rule");
    }
}

// Against the script's bytes written in one go.
void compare_script(benchmark::State &state)
{
    need(start_qos("bench0") == 1, "start_qos");
    const std::string script = read_whole("/var/tmp/qos_start");
    compare(
        state, [] { need(start_qos("bench0") == 1, "start_qos"); },
        [&] { write_raw("/var/tmp/floor", O_TRUNC, 0700, script); });
    del_root_qdisc("bench0");
}

// The console trace of each rule with a protocol is part of the work.
void start_script(benchmark::State &state)
{
    declare("bench0");
    compare_script(state);
}
BENCHMARK(start_script)->UseManualTime()->Unit(benchmark::kMicrosecond);

// Without rules, and so without traces
void tree_script(benchmark::State &state)
{
    declare("bench0");
    for (unsigned index = 1; index <= 255; ++index) del_qos_rule("bench0", static_cast<u8>(index));
    compare_script(state);
}
BENCHMARK(tree_script)->UseManualTime()->Unit(benchmark::kMicrosecond);

// One trace line, against the same open, write and close.
void trace(benchmark::State &state)
{
    const std::string line =
        "[      tarnic_qos:   64 root_qdisc_find_by_name()]:::none not found!!\n";
    compare(
        state, [] { need(check_Key("none", 1) == 0, "check_Key"); },
        [&] { write_raw("/dev/console", O_APPEND, 0600, line); });
}
BENCHMARK(trace)->UseManualTime()->Unit(benchmark::kMicrosecond);

// The last of 64 classes, against a scan of 64 handles in an array.
void lookup(benchmark::State &state)
{
    declare("bench0");
    std::vector<u16> handles(64);
    for (u16 i = 0; i < 64; ++i) handles[i] = static_cast<u16>(i + 2);
    constexpr int times = 1000;
    compare(
        state,
        [] {
            for (int i = 0; i < times; ++i) need(check_Key("bench0", 65) == 1, "check_Key");
        },
        [&] {
            for (int i = 0; i < times; ++i) {
                size_t at = 0;
                while (at < handles.size() && handles[at] != 65) ++at;
                benchmark::DoNotOptimize(at);
            }
        });
    del_root_qdisc("bench0");
}
BENCHMARK(lookup)->UseManualTime()->Unit(benchmark::kMicrosecond);

// A report of 64 classes, against its lines written one by one.
void report(benchmark::State &state)
{
    declare("bench0");
    const std::string line(110, 'x');
    compare(
        state, [] { show_ifqos("bench0"); },
        [&] {
            for (int i = 0; i < 4 + 1 + 2 * 64; ++i)
                write_raw("/dev/console", O_APPEND, 0600, line);
        });
    del_root_qdisc("bench0");
}
BENCHMARK(report)->UseManualTime()->Unit(benchmark::kMicrosecond);

// An interface's counters, against the file read and nothing looked at.
void counters(benchmark::State &state)
{
    compare(
        state,
        [] {
            if_rxtx now;
            need(get_rxtx_by_ifname("lo", &now) == 0, "get_rxtx_by_ifname");
        },
        [] {
            FILE *in = std::fopen("/proc/net/dev", "re");
            need(in != nullptr, "/proc/net/dev");
            char line[256];
            while (std::fgets(line, sizeof line, in) != nullptr) benchmark::DoNotOptimize(line);
            std::fclose(in);
        });
}
BENCHMARK(counters)->UseManualTime()->Unit(benchmark::kMicrosecond);

// 4 KiB there and back over a connected pair, against bare send and recv.
void transfer(benchmark::State &state)
{
    int pair[2];
    need(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0, "socketpair");
    std::vector<u8> bytes(4096);
    compare(
        state,
        [&] {
            u32 sent = 4096;
            int received = 4096;
            need(socket_send(pair[0], 0, bytes.data(), &sent, nullptr) == 0, "socket_send");
            need(socket_recv(pair[1], 0, bytes.data(), &received, nullptr) == 0, "socket_recv");
        },
        [&] {
            need(::send(pair[0], bytes.data(), bytes.size(), 0) == 4096, "send");
            need(::recv(pair[1], bytes.data(), bytes.size(), 0) == 4096, "recv");
        });
    ::close(pair[0]);
    ::close(pair[1]);
}
BENCHMARK(transfer)->UseManualTime()->Unit(benchmark::kMicrosecond);

// A query of the monitor, against its two semaphore operations.
void query(benchmark::State &state)
{
    bm_list registry;
    need(init_bm(&registry, IPC_PRIVATE, 1, 0) == 1, "init_bm");
    need(add_bm_by_iface("lo", &registry) == 1, "add_bm_by_iface");
    compare(
        state,
        [&] {
            bm_sample rates;
            need(query_bm_by_iface("lo", &registry, &rates) == 0, "query_bm_by_iface");
        },
        [&] {
            struct sembuf step = {0, -1, SEM_UNDO};
            need(::semop(registry.semid, &step, 1) == 0, "semop");
            step.sem_op = 1;
            need(::semop(registry.semid, &step, 1) == 0, "semop");
        });
    del_bm_by_iface("lo", &registry);
    sem_delete(registry.semid);
}
BENCHMARK(query)->UseManualTime()->Unit(benchmark::kMicrosecond);

// A log line, against the same open, write and close; every 128th is renamed besides.
void log_line(benchmark::State &state)
{
    initLogSys();
    const int log = createLog("bench", "bench.log", "/var/tmp");
    need(log == 0, "createLog");
    const std::string line = "bench|something happened|1700000000\n";
    compare(
        state, [&] { putlog(log, "bench", "something happened"); },
        [&] { write_raw("/var/tmp/floor", O_APPEND, 0644, line); });
}
BENCHMARK(log_line)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
