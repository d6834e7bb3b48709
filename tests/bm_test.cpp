// SPDX-License-Identifier: MIT
// The bandwidth monitor: its registry, scans of exact counters, and the sampling thread.
//
// Exact counters come from a file that stands in for /proc/net/dev, the kernel's own from frames
// sent through a veth pair.
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "faults.h"
#include "support.h"
#include "tarnic_network.h"

namespace fs = std::filesystem;

namespace {

using test::eventually;
using test::traced;
using test::traces;

constexpr int key = 0x6d6f7262;
constexpr size_t history_limit = 257;
const traced ended = {"tarnic_network", "bmThread", "bmThread Exit"};

union semun {
    int val;
    struct semid_ds *buf;
};

int waiters_of(int semid) { return ::semctl(semid, 0, GETNCNT, semun{0}); }
int value_of(int semid) { return ::semctl(semid, 0, GETVAL, semun{0}); }

// The registry's lock, held by the test.
class holding {
public:
    explicit holding(int semid) : semid_(semid)
    {
        EXPECT_EQ(0, downdown(semid_, "test", 1, "test"));
    }
    ~holding() { EXPECT_EQ(0, upup(semid_, "test", 1, "test")); }
    holding(const holding &) = delete;
    holding &operator=(const holding &) = delete;

private:
    int semid_;
};

// The owner's side, which takes no lock.
void set(u8 &field, int value)
{
    __atomic_store_n(&field, static_cast<u8>(value), __ATOMIC_RELAXED);
}

// The threads that this process has.
size_t threads()
{
    return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/task"), {}));
}

// The same, once there have been some: a sanitizer may add one of its own with the first.
size_t threads_at_rest()
{
    pid_t id = 0;
    std::thread([&] { id = ::gettid(); }).join();
    EXPECT_TRUE(eventually([&] { return !fs::exists("/proc/self/task/" + std::to_string(id)); }));
    return threads();
}

// ---- Records, as tests expect them -------------------------------------------------------------

struct rates {
    u64 rx = 0;
    u64 tx = 0;
    bool operator==(const rates &) const = default;
};
std::ostream &operator<<(std::ostream &out, const rates &r)
{
    return out << "{" << r.rx << ", " << r.tx << "}";
}

struct state {
    std::string name;
    rates last;
    rates rate;
    int flags = 0;
    std::vector<rates> history;
    bool operator==(const state &) const = default;
};
std::ostream &operator<<(std::ostream &out, const state &s)
{
    out << s.name << " last " << s.last << " rate " << s.rate << " flags " << s.flags << " history";
    for (const rates &r : s.history) out << " " << r;
    return out;
}
using states = std::vector<state>;

// The nodes of a ring that is linked both ways.
std::vector<list_head *> nodes(const list_head &head)
{
    std::vector<list_head *> all;
    EXPECT_EQ(&head, head.prev->next);
    for (list_head *node = head.next; node != &head; node = node->next) {
        EXPECT_EQ(node, node->next->prev);
        all.push_back(node);
    }
    return all;
}

std::vector<bm_sample *> samples(const bm_iface &record)
{
    std::vector<bm_sample *> all;
    for (list_head *node : nodes(record.history))
        all.push_back(reinterpret_cast<bm_sample *>(node));
    EXPECT_EQ(record.history_cnt, all.size());
    return all;
}

std::vector<bm_iface *> records(const bm_list &registry)
{
    std::vector<bm_iface *> all;
    for (list_head *node : nodes(registry.list)) all.push_back(reinterpret_cast<bm_iface *>(node));
    return all;
}

state state_of(const bm_iface &record)
{
    state s{record.ifname,
            {record.last_rx, record.last_tx},
            {record.rx_rate, record.tx_rate},
            record.flags,
            {}};
    for (const bm_sample *sample : samples(record))
        s.history.push_back({sample->rx_rate, sample->tx_rate});
    return s;
}

states states_of(const bm_list &registry)
{
    states all;
    for (const bm_iface *record : records(registry)) all.push_back(state_of(*record));
    return all;
}

std::vector<std::string> names(const bm_list &registry)
{
    std::vector<std::string> all;
    for (const bm_iface *record : records(registry)) all.emplace_back(record->ifname);
    return all;
}

using name_list = std::vector<std::string>;

// ---- Counters that the test sets ---------------------------------------------------------------

struct counters {
    std::string name;
    u64 rx = 0;
    u64 tx = 0;
};

// While it lives, /proc/net/dev says what it is told.
class fake_counters {
public:
    fake_counters()
    {
        fs::create_directory(directory);
        set({});
        EXPECT_EQ(0, ::mount(directory, net, nullptr, MS_BIND, nullptr)) << std::strerror(errno);
    }
    ~fake_counters() { EXPECT_EQ(0, ::umount2(net, MNT_DETACH)) << std::strerror(errno); }
    fake_counters(const fake_counters &) = delete;
    fake_counters &operator=(const fake_counters &) = delete;

    // Replaced as a whole, so that a reader sees the old or the new.
    static void set(const std::vector<counters> &all)
    {
        std::string text =
            "Inter-|   Receive                            |  Transmit\n"
            " face |bytes    packets errs drop fifo frame compressed multicast|bytes "
            "   packets errs drop fifo colls carrier compressed\n";
        for (const counters &c : all)
            text += "  " + c.name + ": " + std::to_string(c.rx) + " 11 12 13 14 15 16 17 " +
                    std::to_string(c.tx) + " 21 22 23 24 25 26 27\n";
        const std::string file = directory;
        test::write_file(file + "/new", text);
        fs::rename(file + "/new", file + "/dev");
    }

private:
    static constexpr char directory[] = "/var/tmp/net";
    static constexpr char net[] = "/proc/self/net";
};

// ---- The registry ------------------------------------------------------------------------------

class Bandwidth : public test::silent_test {
protected:
    void SetUp() override
    {
        test::silent_test::SetUp();
        threads_ = threads_at_rest();
        ASSERT_EQ(1, init_bm(&registry_, key, 1, 0));
    }
    void TearDown() override
    {
        for (const state &s : look()) EXPECT_EQ(1, del(s.name));
        sem_delete(registry_.semid);
        EXPECT_TRUE(eventually([&] { return threads() == threads_; }));
        test::silent_test::TearDown();
    }

    int add(const std::string &name) { return add_bm_by_iface(name.c_str(), &registry_); }
    int del(const std::string &name) { return del_bm_by_iface(name.c_str(), &registry_); }

    // The rates of an interface; none when it has none yet.
    std::vector<rates> query(const std::string &name)
    {
        bm_sample out{};
        const int result = query_bm_by_iface(name.c_str(), &registry_, &out);
        if (result == 1) return {{out.rx_rate, out.tx_rate}};
        EXPECT_EQ(0, result);
        return {};
    }

    void scan(u32 seconds = 1)
    {
        const holding lock(registry_.semid);
        mordel::bm_scan(&registry_, seconds);
    }

    states look()
    {
        const holding lock(registry_.semid);
        return states_of(registry_);
    }

    // Sets eth0's counters, and the interval, between two scans. Returns the place in the history
    // that the next rate will have.
    size_t grow_to(u64 bytes, int interval)
    {
        const holding lock(registry_.semid);
        fake_counters::set({{"eth0", bytes, bytes}});
        set(registry_.interval, interval);
        return samples(*records(registry_).at(0)).size();
    }

    // Ends the library's thread. The entries of the histories, which it leaves alive, are returned.
    std::vector<rates> stop()
    {
        std::vector<bm_sample *> entries;
        {
            const holding lock(registry_.semid);
            for (const bm_iface *record : records(registry_))
                for (bm_sample *sample : samples(*record)) entries.push_back(sample);
            set(registry_.stop, 1);
        }
        EXPECT_TRUE(eventually([&] { return look().empty(); }));
        EXPECT_TRUE(eventually([&] { return threads() == threads_; }));
        EXPECT_EQ(traces{ended}, test::console());
        std::vector<rates> all;
        for (bm_sample *sample : entries) {
            all.push_back({sample->rx_rate, sample->tx_rate});
            std::free(sample);
        }
        return all;
    }

    bm_list registry_{};
    size_t threads_ = 0;
};

TEST_F(Bandwidth, InitSetsTheWholeRecord)
{
    const struct {
        int interval;
        int keep_history;
    } cases[] = {{1, 0}, {5, 1}, {255, 255}, {0, 7}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.interval);
        ASSERT_EQ(0, ::semctl(registry_.semid, 0, SETVAL, semun{0}));
        bm_list registry;
        std::memset(&registry, 0xa5, sizeof registry);
        EXPECT_EQ(1, init_bm(&registry, key, static_cast<u8>(c.interval),
                             static_cast<u8>(c.keep_history)));
        EXPECT_EQ(&registry.list, registry.list.next);
        EXPECT_EQ(&registry.list, registry.list.prev);
        EXPECT_EQ(0, registry.count);
        EXPECT_EQ(c.keep_history, registry.keep_history);
        EXPECT_EQ(c.interval, registry.interval);
        EXPECT_EQ(0, registry.stop);
        EXPECT_EQ(registry_.semid, registry.semid);
        EXPECT_EQ(1, value_of(registry.semid));
    }
}

TEST_F(Bandwidth, InitWithoutALockSetsTheRestAllTheSame)
{
    const std::string id = std::to_string(registry_.semid);
    const struct {
        const char *function;
        int semid;
        std::string message;
    } cases[] = {{"semget", -1, "key=" + std::to_string(key) + " semget fail"},
                 {"semctl", registry_.semid, "semid=" + id + " semctl fail"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.function);
        bm_list registry;
        std::memset(&registry, 0xa5, sizeof registry);
        {
            const test::watch watch(c.function, 1, ENOSPC);
            EXPECT_EQ(0, init_bm(&registry, key, 9, 3));
        }
        EXPECT_EQ(&registry.list, registry.list.next);
        EXPECT_EQ(&registry.list, registry.list.prev);
        EXPECT_EQ(0, registry.count);
        EXPECT_EQ(3, registry.keep_history);
        EXPECT_EQ(9, registry.interval);
        EXPECT_EQ(0, registry.stop);
        EXPECT_EQ(c.semid, registry.semid);
        EXPECT_EQ((traces{{"tarnic_ipc", "sem_create", c.message}}), test::trace_log());
    }
}

TEST_F(Bandwidth, InterfacesStandInOrderOfRegistration)
{
    EXPECT_EQ(1, add("eth1"));
    EXPECT_EQ(1, add("eth0"));
    EXPECT_EQ(1, add("wlan0"));
    EXPECT_EQ((name_list{"eth1", "eth0", "wlan0"}), names(registry_));
    EXPECT_EQ(1, del("eth0"));
    EXPECT_EQ((name_list{"eth1", "wlan0"}), names(registry_));
    EXPECT_EQ(1, add("eth0"));
    EXPECT_EQ(1, add("eth1"));  // once more: it moves to the end
    EXPECT_EQ((name_list{"wlan0", "eth0", "eth1"}), names(registry_));
    EXPECT_EQ(1, del("wlan0"));
    EXPECT_EQ(1, del("eth1"));
    EXPECT_EQ(1, del("eth0"));
    EXPECT_EQ(1U, list_empty(&registry_.list));
}

TEST_F(Bandwidth, NewRecordIsZeroButForItsName)
{
    ASSERT_EQ(1, add("eth0"));
    const bm_iface *record = records(registry_).at(0);
    bm_iface expected;
    std::memset(&expected, 0, sizeof expected);
    std::memcpy(expected.ifname, "eth0", 4);
    expected.node = {&registry_.list, &registry_.list};
    list_head *const history = &records(registry_).at(0)->history;
    expected.history = {history, history};
    EXPECT_EQ(0, std::memcmp(&expected, record, sizeof expected));
}

TEST_F(Bandwidth, NamesAreComparedExactly)
{
    ASSERT_EQ(1, add("eth0"));
    scan();
    const fake_counters fake;
    fake_counters::set({{"eth0", 1, 2}});
    scan();
    for (const char *name : {"eth", "eth00", "ETH0", "Eth0", " eth0", "eth0 ", "th0", ""}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(0, del(name));
        EXPECT_EQ(std::vector<rates>{}, query(name));
    }
    EXPECT_EQ((std::vector<rates>{{0, 0}}), query("eth0"));
    EXPECT_EQ(1, add("eth"));
    EXPECT_EQ((name_list{"eth0", "eth"}), names(registry_));
    EXPECT_EQ(1, del("eth0"));
    EXPECT_EQ(0, del("eth0"));
    EXPECT_EQ((name_list{"eth"}), names(registry_));
}

TEST_F(Bandwidth, LongNamesAreStoredTo31Characters)
{
    const std::string stored = "abcdefghijklmnopqrstuvwxyz01234";
    ASSERT_EQ(31U, stored.size());
    const fake_counters fake;
    fake_counters::set({{stored, 1, 2}});
    for (const std::string &name : {stored + "5", stored + std::string(300, 'x'), stored}) {
        SCOPED_TRACE(name);
        for (int time = 0; time < 2; ++time) {
            EXPECT_EQ(1, add(name));
            EXPECT_EQ(name_list{stored}, names(registry_));
            scan();
            EXPECT_EQ((std::vector<rates>{{0, 0}}), query(stored));
            if (name == stored) continue;
            EXPECT_EQ(std::vector<rates>{}, query(name));
            EXPECT_EQ(0, del(name));
        }
    }
    EXPECT_EQ(6, registry_.count);
    EXPECT_EQ(1, del(stored));
    EXPECT_EQ(0, del(stored));
}

TEST_F(Bandwidth, CountWrapsAndNeverFalls)
{
    for (int i = 1; i <= 255; ++i) {
        ASSERT_EQ(1, add("eth" + std::to_string(i % 3)));
        ASSERT_EQ(i, registry_.count);
    }
    EXPECT_EQ(1, del("eth0"));
    EXPECT_EQ(255, registry_.count);
    EXPECT_EQ(1, add("eth0"));
    EXPECT_EQ(0, registry_.count);
    EXPECT_EQ(1, add("eth0"));
    EXPECT_EQ(1, registry_.count);
    EXPECT_EQ((name_list{"eth1", "eth2", "eth0"}), names(registry_));
}

TEST_F(Bandwidth, AddWithoutMemoryHasRemovedTheOldRecord)
{
    int reached = 0;
    for (const char *function : {"calloc", "malloc"}) {
        SCOPED_TRACE(function);
        for (const char *name : {"eth0", "new0", "a_name_of_more_than_31_characters"}) {
            SCOPED_TRACE(name);
            ASSERT_EQ(1, add(name));
            ASSERT_EQ(1, add("eth1"));
            const int count = registry_.count;
            int result = 0;
            bool failed = false;
            {
                const test::watch watch(function, -1);
                result = add_bm_by_iface(name, &registry_);
                failed = watch.failed();
            }
            reached += failed ? 1 : 0;
            EXPECT_EQ(failed ? 0 : 1, result);
            if (failed) {
                EXPECT_EQ(name_list{"eth1"}, names(registry_));
                EXPECT_EQ(count, registry_.count);
            } else {
                EXPECT_EQ(1, del(names(registry_).back()));
            }
        }
    }
    EXPECT_LE(3, reached);
}

TEST_F(Bandwidth, QueryWritesNothingButTheRates)
{
    const fake_counters fake;
    fake_counters::set({{"eth0", 100, 200}});
    ASSERT_EQ(1, add("eth0"));
    bm_sample sentinel;
    std::memset(&sentinel, 0xa5, sizeof sentinel);
    bm_sample out = sentinel;
    EXPECT_EQ(0, query_bm_by_iface("eth0", &registry_, &out));
    EXPECT_EQ(0, query_bm_by_iface("eth1", &registry_, &out));
    EXPECT_EQ(0, std::memcmp(&sentinel, &out, sizeof out));
    scan();
    EXPECT_EQ(1, query_bm_by_iface("eth0", &registry_, &out));
    EXPECT_EQ((rates{0, 0}), (rates{out.rx_rate, out.tx_rate}));
    fake_counters::set({{"eth0", 170, 250}});
    scan();
    EXPECT_EQ(1, query_bm_by_iface("eth0", &registry_, &out));
    EXPECT_EQ((rates{70, 50}), (rates{out.rx_rate, out.tx_rate}));
    EXPECT_EQ(sentinel.node.next, out.node.next);
    EXPECT_EQ(sentinel.node.prev, out.node.prev);
}

TEST_F(Bandwidth, AnswersFromTheFirstSampleOn)
{
    const fake_counters fake;
    fake_counters::set({{"eth0", 1000, 0}});
    ASSERT_EQ(1, add("eth0"));
    EXPECT_EQ(std::vector<rates>{}, query("eth0"));
    scan();
    EXPECT_EQ((std::vector<rates>{{0, 0}}), query("eth0"));
    fake_counters::set({{"eth0", 1500, 30}});
    scan();
    EXPECT_EQ((std::vector<rates>{{500, 30}}), query("eth0"));
    scan();
    EXPECT_EQ((std::vector<rates>{{0, 0}}), query("eth0"));
}

TEST_F(Bandwidth, EachOperationWaitsForTheLock)
{
    ASSERT_EQ(1, add("eth0"));
    bm_sample out{};
    const struct {
        const char *name;
        std::function<int()> call;
        int result;
        name_list after;
    } cases[] = {
        {"query", [&] { return query_bm_by_iface("eth0", &registry_, &out); }, 0, {"eth0"}},
        {"add", [&] { return add("eth1"); }, 1, {"eth0", "eth1"}},
        {"add again", [&] { return add("eth0"); }, 1, {"eth1", "eth0"}},
        {"del", [&] { return del("eth0"); }, 1, {"eth1"}},
        {"del of none", [&] { return del("eth0"); }, 0, {"eth1"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const name_list before = names(registry_);
        std::atomic<int> result = -1;
        std::thread other;
        {
            const holding lock(registry_.semid);
            other = std::thread([&] { result = c.call(); });
            EXPECT_TRUE(eventually([&] { return waiters_of(registry_.semid) == 1; }));
            EXPECT_EQ(-1, result);
            EXPECT_EQ(before, names(registry_));
        }
        other.join();
        EXPECT_EQ(c.result, result);
        EXPECT_EQ(c.after, names(registry_));
        EXPECT_EQ(1, value_of(registry_.semid));
    }
}

TEST_F(Bandwidth, CountRisesUnderTheLock)
{
    std::vector<int> counts;
    {
        const test::behind_semop look([&](int) { counts.push_back(registry_.count); });
        EXPECT_EQ(1, add("eth0"));
    }
    // The lock is taken and given back twice: to remove an old record, then to add the new one.
    EXPECT_EQ((std::vector<int>{0, 0, 0, 1}), counts);
}

// ---- Scans -------------------------------------------------------------------------------------

TEST_F(Bandwidth, RatesAreDifferencesBySeconds)
{
    constexpr u64 k = 1000;
    const u64 top = ~u64{0};
    const struct {
        u32 seconds;
        counters before;
        counters after;
        rates rate;
    } cases[] = {
        {1, {"", 0, 0}, {"", 700, 30}, {700, 30}},
        {3, {"", k, k}, {"", 4 * k, 7 * k}, {1000, 2000}},
        {3, {"", 5, 5}, {"", 5 + 2999, 5 + 3001}, {999, 1000}},
        {3, {"", 5, 5}, {"", 7, 5}, {0, 0}},
        {255, {"", 1, 1}, {"", 1 + 255 * k, 1 + 254}, {1000, 0}},
        {1, {"", 0xffffffff, 0xffffffff}, {"", 0x100000001, 0x300000000}, {2, 0x200000001}},
        {2, {"", 0, 0}, {"", top, top - 1}, {0x7fffffffffffffff, 0x7fffffffffffffff}},
        {255, {"", 0, 0}, {"", top, 255}, {0x0101010101010101, 1}},
        {7, {"", 0, 0}, {"", 1311768467463790320, 48}, {187395495351970045, 6}},
        // Counters that went backwards: 2^64 - 600 by 1 and by 3, and 2^64 - 1
        {1, {"", k, 2}, {"", 400, 1}, {18446744073709551016U, 18446744073709551615U}},
        {3, {"", k, k}, {"", 400, 1300}, {6148914691236517005U, 100}},
        {3, {"", k, k}, {"", 1300, 400}, {100, 6148914691236517005U}},
    };
    const fake_counters fake;
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.seconds << " " << c.after.rx << " " << c.after.tx);
        ASSERT_EQ(1, add("eth0"));
        fake_counters::set({{"eth0", c.before.rx, c.before.tx}});
        scan(c.seconds);
        EXPECT_EQ((states{{"eth0", {c.before.rx, c.before.tx}, {0, 0}, 1, {}}}), look());
        fake_counters::set({{"eth0", c.after.rx, c.after.tx}});
        scan(c.seconds);
        EXPECT_EQ((states{{"eth0", {c.after.rx, c.after.tx}, c.rate, 1, {}}}), look());
        EXPECT_EQ(std::vector<rates>{c.rate}, query("eth0"));
    }
}

TEST_F(Bandwidth, ScanTakesEveryRecordByItself)
{
    const fake_counters fake;
    fake_counters::set({{"eth0", 10, 20}, {"eth1", 100, 200}});
    ASSERT_EQ(1, add("eth0"));
    ASSERT_EQ(1, add("gone0"));
    ASSERT_EQ(1, add("eth1"));
    scan(2);
    EXPECT_EQ((states{{"eth0", {10, 20}, {0, 0}, 1, {}},
                      {"gone0", {0, 0}, {0, 0}, 0, {}},
                      {"eth1", {100, 200}, {0, 0}, 1, {}}}),
              look());
    EXPECT_EQ(std::vector<rates>{}, query("gone0"));
    // It appears: the others have rates, it is at its first sample.
    fake_counters::set({{"eth0", 12, 24}, {"gone0", 7, 8}, {"eth1", 106, 208}});
    scan(2);
    EXPECT_EQ((states{{"eth0", {12, 24}, {1, 2}, 1, {}},
                      {"gone0", {7, 8}, {0, 0}, 1, {}},
                      {"eth1", {106, 208}, {3, 4}, 1, {}}}),
              look());
    // It vanishes, keeps what it had, and goes on from there.
    fake_counters::set({{"eth0", 12, 24}, {"eth1", 106, 208}});
    scan(2);
    EXPECT_EQ((states{{"eth0", {12, 24}, {0, 0}, 1, {}},
                      {"gone0", {7, 8}, {0, 0}, 1, {}},
                      {"eth1", {106, 208}, {0, 0}, 1, {}}}),
              look());
    fake_counters::set({{"gone0", 107, 208}});
    scan(2);
    EXPECT_EQ((states{{"eth0", {12, 24}, {0, 0}, 1, {}},
                      {"gone0", {107, 208}, {50, 100}, 1, {}},
                      {"eth1", {106, 208}, {0, 0}, 1, {}}}),
              look());
}

TEST_F(Bandwidth, ScanOfAnEmptyRegistryReadsNothing)
{
    const test::watch watch;
    scan();
    EXPECT_EQ(0U, watch.calls("fopen").size());
    EXPECT_EQ(1U, list_empty(&registry_.list));
}

// An interface is found by a part of its line.
TEST_F(Bandwidth, FirstLineWithTheNameIsTaken)
{
    const fake_counters fake;
    fake_counters::set({{"veth0", 1, 2}, {"eth0", 10, 20}, {"eth0.1", 100, 200}});
    ASSERT_EQ(1, add("eth0"));
    ASSERT_EQ(1, add("eth0.1"));
    scan();
    EXPECT_EQ((states{{"eth0", {1, 2}, {0, 0}, 1, {}}, {"eth0.1", {100, 200}, {0, 0}, 1, {}}}),
              look());
}

TEST_F(Bandwidth, OtherFlagsMeanNothingAndStay)
{
    const fake_counters fake;
    fake_counters::set({{"eth0", 30, 40}});
    ASSERT_EQ(1, add("eth0"));
    records(registry_).at(0)->flags = 0xfffe;
    EXPECT_EQ(std::vector<rates>{}, query("eth0"));
    scan();
    EXPECT_EQ((states{{"eth0", {30, 40}, {0, 0}, 0xffff, {}}}), look());
    EXPECT_EQ((std::vector<rates>{{0, 0}}), query("eth0"));
}

TEST_F(Bandwidth, UnreadableCountersLeaveARecordAsItWas)
{
    registry_.keep_history = 1;
    const fake_counters fake;
    fake_counters::set({{"eth0", 10, 20}, {"eth1", 10, 20}, {"eth2", 10, 20}});
    for (const char *name : {"eth0", "eth1", "eth2"}) ASSERT_EQ(1, add(name));
    scan();
    fake_counters::set({{"eth0", 30, 50}, {"eth1", 30, 50}, {"eth2", 30, 50}});
    scan();
    fake_counters::set({{"eth0", 70, 80}, {"eth1", 70, 80}, {"eth2", 70, 80}});
    for (int nth = 1; nth <= 3; ++nth) {
        SCOPED_TRACE(nth);
        const auto at = static_cast<size_t>(nth - 1);
        const bm_iface before = *records(registry_).at(at);
        const auto entries = samples(*records(registry_).at(at));
        states expected = look();
        for (size_t i = 0; i < 3; ++i) {
            if (i == at) continue;
            state &s = expected[i];
            s.rate = {70 - s.last.rx, 80 - s.last.tx};
            s.last = {70, 80};
            s.history.push_back(s.rate);
        }
        {
            const test::watch watch("fopen", nth, EMFILE);
            scan();
            EXPECT_TRUE(watch.failed());
            EXPECT_EQ(3U, watch.calls("fopen").size());
        }
        EXPECT_EQ(expected, look());
        const bm_iface after = *records(registry_).at(at);
        EXPECT_EQ(0, std::memcmp(&before, &after, sizeof after));
        EXPECT_EQ(entries, samples(*records(registry_).at(at)));
    }
    const states expected = look();
    const test::watch watch("fopen", -1, ENOENT);
    scan();
    EXPECT_EQ(expected, look());
}

TEST_F(Bandwidth, UnreadableCountersDoNotPrimeARecord)
{
    ASSERT_EQ(1, add("lo"));
    {
        const test::watch watch("fopen", 1, EACCES);
        scan();
        EXPECT_TRUE(watch.failed());
    }
    EXPECT_EQ((states{{"lo", {0, 0}, {0, 0}, 0, {}}}), look());
    EXPECT_EQ(std::vector<rates>{}, query("lo"));
}

TEST_F(Bandwidth, ReaddedInterfaceStartsAnew)
{
    registry_.keep_history = 1;
    const fake_counters fake;
    ASSERT_EQ(1, add("eth0"));
    for (const u64 bytes : {100U, 200U, 300U}) {
        fake_counters::set({{"eth0", bytes, 2 * bytes}});
        scan();
    }
    EXPECT_EQ((states{{"eth0", {300, 600}, {100, 200}, 1, {{100, 200}, {100, 200}}}}), look());
    EXPECT_EQ(1, add("eth0"));
    EXPECT_EQ((states{{"eth0", {0, 0}, {0, 0}, 0, {}}}), look());
    EXPECT_EQ(std::vector<rates>{}, query("eth0"));
    scan();
    EXPECT_EQ((states{{"eth0", {300, 600}, {0, 0}, 1, {}}}), look());
}

// ---- History -----------------------------------------------------------------------------------

TEST_F(Bandwidth, HistoryKeepsTheNewest257OldestFirst)
{
    registry_.keep_history = 1;
    const fake_counters fake;
    ASSERT_EQ(1, add("eth0"));
    const bm_iface *record = records(registry_).at(0);
    fake_counters::set({{"eth0", 0, 0}});
    scan();
    u64 sum = 0;
    std::vector<rates> expected;
    for (u64 n = 1; n <= 300; ++n) {  // the nth rate is n and 3 n
        const auto before = samples(*record);
        sum += n;
        fake_counters::set({{"eth0", sum, 3 * sum}});
        const test::watch watch;
        scan();
        expected.push_back({n, 3 * n});
        const size_t allocated = watch.calls("calloc").size() + watch.calls("malloc").size();
        const auto after = samples(*record);
        if (n <= history_limit) {
            ASSERT_EQ(1U, allocated);
        } else {  // the oldest entry is used again
            expected.erase(expected.begin());
            ASSERT_EQ(0U, allocated);
            ASSERT_EQ(before.front(), after.back());
        }
        ASSERT_EQ((states{{"eth0", {sum, 3 * sum}, {n, 3 * n}, 1, expected}}), look());
    }
    EXPECT_EQ(257, record->history_cnt);
    EXPECT_EQ((rates{44, 132}), expected.front());
    EXPECT_EQ((rates{300, 900}), expected.back());
}

TEST_F(Bandwidth, HistoryGrowsOnlyWhileItIsKept)
{
    const fake_counters fake;
    ASSERT_EQ(1, add("eth0"));
    ASSERT_EQ(1, add("eth1"));
    const int keep[] = {1, 0, 1, 0x80, 0, 0xff};
    u64 sum = 0;
    for (size_t n = 0; n < std::size(keep); ++n) {
        set(registry_.keep_history, keep[n]);
        sum += n;
        fake_counters::set({{"eth0", sum, 0}, {"eth1", 0, sum}});
        scan();
    }
    // The first only primed the counters.
    EXPECT_EQ((states{{"eth0", {15, 0}, {5, 0}, 1, {{2, 0}, {3, 0}, {5, 0}}},
                      {"eth1", {0, 15}, {0, 5}, 1, {{0, 2}, {0, 3}, {0, 5}}}}),
              look());
}

TEST_F(Bandwidth, HistoryWithoutMemoryMissesThatEntryAlone)
{
    registry_.keep_history = 1;
    const fake_counters fake;
    const name_list three = {"eth0", "eth1", "eth2"};
    for (const std::string &name : three) ASSERT_EQ(1, add(name));
    u64 sum = 0;
    const auto scan_next = [&](u64 bytes) {
        sum += bytes;
        fake_counters::set({{"eth0", sum, 0}, {"eth1", sum, 0}, {"eth2", sum, 0}});
        scan();
    };
    scan_next(0);
    scan_next(1);
    std::vector<std::vector<rates>> histories(3, {{1, 0}});
    int reached = 0;
    u64 bytes = 1;
    for (const char *function : {"calloc", "malloc"})
        for (const int nth : {1, 2, 3, -1}) {
            SCOPED_TRACE(testing::Message() << function << " " << nth);
            ++bytes;
            bool failed = false;
            {
                const test::watch watch(function, nth);
                scan_next(bytes);
                failed = watch.failed();
            }
            reached += failed ? 1 : 0;
            states expected;
            for (int i = 0; i < 3; ++i) {
                auto &history = histories[static_cast<size_t>(i)];
                if (!failed || (nth != -1 && nth != i + 1)) history.push_back({bytes, 0});
                expected.push_back(
                    {three[static_cast<size_t>(i)], {sum, 0}, {bytes, 0}, 1, history});
            }
            EXPECT_EQ(expected, look());
        }
    EXPECT_LE(4, reached);
    scan_next(100);
    for (const state &s : look()) EXPECT_EQ((rates{100, 0}), s.history.back());
}

// A full history needs no memory.
TEST_F(Bandwidth, FullHistoryGoesOnWithoutMemory)
{
    registry_.keep_history = 1;
    const fake_counters fake;
    ASSERT_EQ(1, add("eth0"));
    fake_counters::set({{"eth0", 0, 0}});
    for (size_t i = 0; i <= history_limit; ++i) scan();
    fake_counters::set({{"eth0", 5, 6}});
    {
        const test::watch watch("malloc", -1);
        scan();
    }
    fake_counters::set({{"eth0", 12, 14}});
    {
        const test::watch watch("calloc", -1);
        scan();
    }
    std::vector<rates> expected(history_limit - 2, {0, 0});
    expected.push_back({5, 6});
    expected.push_back({7, 8});
    EXPECT_EQ((states{{"eth0", {12, 14}, {7, 8}, 1, expected}}), look());
}

// ---- The thread --------------------------------------------------------------------------------

TEST_F(Bandwidth, ThreadThatCannotBeMadeIsReported)
{
    ASSERT_EQ(1, add("lo"));
    {
        const test::watch watch("pthread_create", 1, EAGAIN);
        EXPECT_EQ(1, bm_start(&registry_));
        EXPECT_EQ(1U, watch.calls("pthread_create").size());
    }
    EXPECT_EQ(threads_, threads());
    EXPECT_EQ((states{{"lo", {0, 0}, {0, 0}, 0, {}}}), look());
}

TEST_F(Bandwidth, StopBeforeTheFirstScanEmptiesTheRegistry)
{
    for (const char *name : {"lo", "eth0", "eth1"}) ASSERT_EQ(1, add(name));
    registry_.stop = 1;
    const test::watch watch;
    ASSERT_EQ(0, bm_start(&registry_));
    EXPECT_TRUE(eventually([&] { return look().empty(); }));
    EXPECT_TRUE(eventually([&] { return threads() == threads_; }));
    EXPECT_EQ(0U, watch.calls("fopen").size());
    EXPECT_EQ(traces{ended}, test::console());
    EXPECT_EQ(3, registry_.count);
    EXPECT_EQ(1, registry_.stop);
    EXPECT_EQ(1, value_of(registry_.semid));
}

// A thread that nobody joins would keep its stack.
TEST_F(Bandwidth, ThreadIsDetached)
{
    constexpr size_t runs = 20;
    const auto pages = [] {
        size_t all = 0;
        std::ifstream("/proc/self/statm") >> all;
        return all;
    };
    const auto run = [&] {
        ASSERT_EQ(0, bm_start(&registry_));
        ASSERT_TRUE(eventually([&] { return threads() == threads_; }));
    };
    pthread_attr_t attributes;
    size_t stack = 0;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    ASSERT_EQ(0, pthread_attr_getstacksize(&attributes, &stack));
    pthread_attr_destroy(&attributes);
    registry_.stop = 1;
    for (int i = 0; i < 3; ++i) run();
    const size_t before = pages();
    for (size_t i = 0; i < runs; ++i) run();
    EXPECT_LT(pages(), before + runs / 2 * stack / static_cast<size_t>(::sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(traces(runs + 3, ended), test::console());
}

TEST_F(Bandwidth, ThreadScansUnderTheLock)
{
    ASSERT_EQ(1, add("lo"));
    {
        const holding lock(registry_.semid);
        ASSERT_EQ(0, bm_start(&registry_));
        EXPECT_TRUE(eventually([&] { return waiters_of(registry_.semid) == 1; }));
        EXPECT_EQ(0, states_of(registry_).at(0).flags);
    }
    EXPECT_TRUE(eventually([&] { return look().at(0).flags == 1; }));
    EXPECT_EQ(std::vector<rates>{}, stop());
}

TEST_F(Bandwidth, OtherBitsOfStopDoNotEndTheThread)
{
    ASSERT_EQ(1, add("lo"));
    registry_.stop = 0xfe;
    ASSERT_EQ(0, bm_start(&registry_));
    EXPECT_TRUE(eventually([&] { return look().at(0).flags == 1; }));
    EXPECT_EQ(traces{}, test::console());
    set(registry_.stop, 0xff);
    EXPECT_TRUE(eventually([&] { return look().empty(); }));
    EXPECT_TRUE(eventually([&] { return threads() == threads_; }));
    EXPECT_EQ(traces{ended}, test::console());
    EXPECT_EQ(0xff, registry_.stop);
}

// A thread may find records that another has sampled: there is no period yet to divide by.
TEST_F(Bandwidth, ThreadStartsOnSampledRecords)
{
    const fake_counters fake;
    fake_counters::set({{"eth0", 0, 0}});
    ASSERT_EQ(1, add("eth0"));
    scan();
    fake_counters::set({{"eth0", 10, 20}});
    ASSERT_EQ(0, bm_start(&registry_));
    EXPECT_TRUE(eventually([&] { return look().at(0).last == rates{10, 20}; }));
    stop();
}

// The owner waits for nothing but an empty list.
TEST_F(Bandwidth, RegistryMayBeFreedOnceItIsSeenEmpty)
{
    constexpr size_t rounds = 100;
    for (size_t round = 0; round < rounds; ++round) {
        auto *registry = static_cast<bm_list *>(std::malloc(sizeof(bm_list)));
        ASSERT_NE(nullptr, registry);
        ASSERT_EQ(1, init_bm(registry, key, 1, 0));
        const int semid = registry->semid;
        ASSERT_EQ(1, add_bm_by_iface("lo", registry));
        ASSERT_EQ(1, add_bm_by_iface("eth0", registry));
        set(registry->stop, 1);
        ASSERT_EQ(0, bm_start(registry));
        const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(2);
        while (registry != nullptr) {
            const holding lock(semid);
            if (list_empty(&registry->list) == 1) {
                std::free(registry);
                registry = nullptr;
            } else if (std::chrono::steady_clock::now() > limit) {
                FAIL() << "the registry is not emptied";
            }
        }
    }
    EXPECT_TRUE(eventually([&] { return threads() == threads_; }));
    EXPECT_EQ(traces(rounds, ended), test::console());
}

// A thread that the test started itself, to have its handle.
class own_thread {
public:
    explicit own_thread(bm_list *registry)
    {
        EXPECT_EQ(0, pthread_create(&thread_, nullptr, mordel::bmThread, registry));
    }
    void join() const { EXPECT_EQ(0, pthread_join(thread_, nullptr)); }
    void signal_often(int number) const
    {
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(0, pthread_kill(thread_, number));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

private:
    pthread_t thread_{};
};

// A handler would cut a sleep short, and end the wait for the lock without the lock.
TEST_F(Bandwidth, ThreadTakesNoSignals)
{
    static std::atomic<int> signals;
    signals = 0;
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = [](int) { ++signals; };
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, &old));
    ASSERT_EQ(1, add("lo"));
    set(registry_.keep_history, 1);
    const auto start = std::chrono::steady_clock::now();
    const own_thread thread = [&] {
        const holding lock(registry_.semid);
        own_thread waiting(&registry_);
        EXPECT_TRUE(eventually([&] { return waiters_of(registry_.semid) == 1; }));
        waiting.signal_often(SIGUSR1);
        EXPECT_EQ(1, waiters_of(registry_.semid));
        return waiting;
    }();
    EXPECT_TRUE(eventually([&] { return look().at(0).flags == 1; }));
    thread.signal_often(SIGUSR1);
    EXPECT_TRUE(eventually([&] { return !look().at(0).history.empty(); }));
    EXPECT_LE(std::chrono::seconds(1), std::chrono::steady_clock::now() - start);
    stop();
    thread.join();
    EXPECT_EQ(0, signals);
    EXPECT_EQ(0, ::sigaction(SIGUSR1, &old, nullptr));
}

TEST_F(Bandwidth, ThreadSleepsTheIntervalAndNoMore)
{
    set(registry_.interval, 2);
    ASSERT_EQ(1, add("lo"));
    const test::watch watch;
    ASSERT_EQ(0, bm_start(&registry_));
    EXPECT_TRUE(eventually([&] { return !watch.calls("sleep").empty(); }));
    EXPECT_EQ(2, watch.calls("sleep").at(0).flags);
    stop();
}

TEST_F(Bandwidth, IntervalIsReadUnderTheLock)
{
    set(registry_.interval, 9);
    const test::behind_semop change([&](int step) {
        set(registry_.interval, step < 0 ? 1 : 9);
        if (step > 0) set(registry_.stop, 1);
    });
    const test::watch watch;
    own_thread(&registry_).join();
    ASSERT_EQ(1U, watch.calls("sleep").size());
    EXPECT_EQ(1, watch.calls("sleep").at(0).flags);
    EXPECT_EQ(traces{ended}, test::console());
}

// The owner may give the registry another lock; what was taken is given back all the same.
TEST_F(Bandwidth, ThreadTakesTheLockThatTheRegistryNames)
{
    const int first = registry_.semid;
    int second = -1;
    int third = -1;
    ASSERT_EQ(0, sem_create(key + 1, &second));
    ASSERT_EQ(0, sem_create(key + 2, &third));
    const auto name = [&](int semid) {
        __atomic_store_n(&registry_.semid, semid, __ATOMIC_RELAXED);
    };
    ASSERT_EQ(1, add("lo"));
    {
        const holding of_second(second);
        {
            const holding of_first(first);
            ASSERT_EQ(0, bm_start(&registry_));
            EXPECT_TRUE(eventually([&] { return waiters_of(first) == 1; }));
            name(second);
        }
        // It scans, gives the first back, sleeps, and comes to the second.
        EXPECT_TRUE(eventually([&] { return waiters_of(second) == 1; }));
        EXPECT_EQ(1, value_of(first));
        {
            const holding again(first);
            EXPECT_EQ(1, states_of(registry_).at(0).flags);
        }
        set(registry_.stop, 1);
        const holding of_third(third);
        name(third);
        EXPECT_EQ(0, upup(second, "test", 1, "test"));
        // It has seen the stop bit, and empties the registry under the third.
        EXPECT_TRUE(eventually([&] { return waiters_of(third) == 1; }));
        EXPECT_EQ(0, downdown(second, "test", 1, "test"));
        EXPECT_EQ(name_list{"lo"}, names(registry_));
    }
    EXPECT_TRUE(eventually([&] { return threads() == threads_; }));
    for (const int semid : {first, second, third}) EXPECT_EQ(1, value_of(semid));
    EXPECT_EQ(states{}, look());
    EXPECT_EQ(traces{ended}, test::console());
    for (const int semid : {first, second}) sem_delete(semid);
}

TEST_F(Bandwidth, IntervalOf0WorksAs1)
{
    const fake_counters fake;
    fake_counters::set({{"eth0", 10, 10}});
    set(registry_.interval, 0);
    set(registry_.keep_history, 1);
    ASSERT_EQ(1, add("eth0"));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(0, bm_start(&registry_));
    EXPECT_TRUE(eventually([&] { return look().at(0).flags == 1; }));
    const size_t next = grow_to(510, 0);
    EXPECT_TRUE(eventually([&] { return look().at(0).history.size() > next; }));
    EXPECT_LE(std::chrono::seconds(1), std::chrono::steady_clock::now() - start);
    EXPECT_EQ(0, registry_.interval);
    EXPECT_EQ((rates{500, 500}), stop().at(next));
}

// What a rate is divided by is the period that has just passed, not the one set meanwhile.
TEST_F(Bandwidth, NewIntervalHoldsFromTheNextSleepOn)
{
    const fake_counters fake;
    fake_counters::set({{"eth0", 1000, 1000}});
    set(registry_.keep_history, 1);
    ASSERT_EQ(1, add("eth0"));
    ASSERT_EQ(0, bm_start(&registry_));
    EXPECT_TRUE(eventually([&] { return look().at(0).flags == 1; }));
    const auto start = std::chrono::steady_clock::now();
    const size_t first = grow_to(1600, 2);
    EXPECT_TRUE(eventually([&] { return look().at(0).history.size() > first; }));
    const size_t second = grow_to(2200, 1);
    // It sleeps without the lock.
    EXPECT_TRUE(eventually([&] { return value_of(registry_.semid) == 1; }));
    EXPECT_TRUE(eventually([&] { return look().at(0).history.size() > second; }));
    EXPECT_LE(std::chrono::seconds(2), std::chrono::steady_clock::now() - start);
    const auto history = stop();
    EXPECT_EQ((rates{600, 600}), history.at(first));
    EXPECT_EQ((rates{300, 300}), history.at(second));
}

TEST_F(Bandwidth, InterfaceThatTheKernelDoesNotListIsTriedEveryPeriod)
{
    const fake_counters fake;
    ASSERT_EQ(1, add("eth0"));
    const test::watch watch;
    ASSERT_EQ(0, bm_start(&registry_));
    EXPECT_TRUE(eventually([&] { return watch.calls("fopen").size() >= 2; }));
    EXPECT_EQ((states{{"eth0", {0, 0}, {0, 0}, 0, {}}}), look());
    EXPECT_EQ(std::vector<rates>{}, query("eth0"));
    stop();
}

// ---- A lock that fails -------------------------------------------------------------------------

// A trace of the lock with LINE in place of the caller's line, when that is positive.
traced masked(traced line)
{
    const std::string head = "tarnic_network:";
    if (line.message.compare(0, head.size(), head) != 0) return line;
    const size_t end = line.message.find_first_not_of("0123456789", head.size());
    if (end == std::string::npos || end == head.size() || line.message[head.size()] == '0')
        return line;
    line.message.replace(head.size(), end - head.size(), "LINE");
    return line;
}

traces lock_log()
{
    traces all;
    for (const traced &line : test::trace_log()) all.push_back(masked(line));
    return all;
}

// What a critical section traces, `times` over.
traces unlocked(const std::string &function, int semid, size_t times = 1)
{
    const std::string text =
        "tarnic_network:LINE:::" + function + ":::semid=" + std::to_string(semid) + " ";
    traces all;
    for (size_t i = 0; i < times; ++i) {
        all.push_back({"tarnic_ipc", "downdown", text + "down fail"});
        all.push_back({"tarnic_ipc", "upup", text + "up fail"});
    }
    return all;
}

traces operator+(traces one, const traces &other)
{
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

class BandwidthUnlocked : public test::silent_test {
protected:
    void SetUp() override
    {
        test::silent_test::SetUp();
        ASSERT_EQ(1, init_bm(&registry_, key, 1, 0));
        ASSERT_EQ(0, sem_delete(registry_.semid));
    }

    bm_list registry_{};
};

TEST_F(BandwidthUnlocked, OperationsTraceAndGoOn)
{
    for (const int semid : {registry_.semid, -1}) {
        SCOPED_TRACE(semid);
        registry_.semid = semid;
        const auto add = unlocked("add_bm_by_iface", semid);
        const auto del = unlocked("del_bm_by_iface", semid);
        const auto query = unlocked("query_bm_by_iface", semid);
        bm_sample out{};
        EXPECT_EQ(0, del_bm_by_iface("lo", &registry_));
        EXPECT_EQ(del, lock_log());
        EXPECT_EQ(1, add_bm_by_iface("lo", &registry_));
        EXPECT_EQ(del + add, lock_log());
        EXPECT_EQ(1, add_bm_by_iface("eth0", &registry_));
        EXPECT_EQ(del + add, lock_log());
        EXPECT_EQ(1, add_bm_by_iface("lo", &registry_));
        EXPECT_EQ(del + add, lock_log());
        EXPECT_EQ((name_list{"eth0", "lo"}), names(registry_));
        EXPECT_EQ(0, del_bm_by_iface("eth1", &registry_));
        EXPECT_EQ(del, lock_log());
        EXPECT_EQ(0, query_bm_by_iface("eth1", &registry_, &out));
        EXPECT_EQ(query, lock_log());
        EXPECT_EQ(0, query_bm_by_iface("lo", &registry_, &out));
        EXPECT_EQ(query, lock_log());
        mordel::bm_scan(&registry_, 1);  // whose caller holds the lock
        EXPECT_EQ(traces{}, lock_log());
        EXPECT_EQ(1, query_bm_by_iface("lo", &registry_, &out));
        EXPECT_EQ(query, lock_log());
        EXPECT_EQ(1, del_bm_by_iface("lo", &registry_));
        EXPECT_EQ(del, lock_log());
        EXPECT_EQ(1, del_bm_by_iface("eth0", &registry_));
        EXPECT_EQ(del, lock_log());
        EXPECT_EQ(1U, list_empty(&registry_.list));
    }
}

TEST_F(BandwidthUnlocked, AddWithoutMemoryTakesTheLockOnlyToDelete)
{
    const int semid = registry_.semid;
    for (const char *function : {"calloc", "malloc"}) {
        SCOPED_TRACE(function);
        bool failed = false;
        {
            const test::watch watch(function, -1);
            const int result = add_bm_by_iface("lo", &registry_);
            failed = watch.failed();
            EXPECT_EQ(failed ? 0 : 1, result);
        }
        traces expected = unlocked("del_bm_by_iface", semid);
        if (!failed) expected = expected + unlocked("add_bm_by_iface", semid);
        EXPECT_EQ(expected, lock_log());
    }
    for (const std::string &name : names(registry_))
        EXPECT_EQ(1, del_bm_by_iface(name.c_str(), &registry_));
    (void)lock_log();
}

// No handler is needed: being stopped and continued ends the wait. The call goes on, and gives back
// what it never took; from then on two may hold the lock at once, until its process ends.
TEST_F(Bandwidth, StoppedWaitLeavesTheLockOpen)
{
    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    ASSERT_EQ(0, downdown(registry_.semid, "test", 1, "test"));
    const pid_t other = ::fork();
    ASSERT_LE(0, other);
    if (other == 0) {
        bm_sample out{};
        const char result = static_cast<char>(query_bm_by_iface("eth0", &registry_, &out));
        (void)!::write(ends[1], &result, 1);
        for (;;) ::pause();
    }
    EXPECT_TRUE(eventually([&] { return waiters_of(registry_.semid) == 1; }));
    EXPECT_EQ(0, ::kill(other, SIGSTOP));
    int status = 0;
    EXPECT_EQ(other, ::waitpid(other, &status, WUNTRACED));
    EXPECT_TRUE(WIFSTOPPED(status));
    EXPECT_EQ(0, ::kill(other, SIGCONT));
    char result = -1;
    EXPECT_EQ(1, ::read(ends[0], &result, 1));  // though the lock is held
    EXPECT_EQ(0, result);
    EXPECT_EQ(1, value_of(registry_.semid));
    EXPECT_EQ(0, upup(registry_.semid, "test", 1, "test"));
    EXPECT_EQ(2, value_of(registry_.semid));
    EXPECT_EQ(0, ::kill(other, SIGKILL));
    EXPECT_EQ(other, ::waitpid(other, &status, 0));
    EXPECT_EQ(1, value_of(registry_.semid));
    for (const int fd : ends) ::close(fd);
    EXPECT_EQ((traces{unlocked("query_bm_by_iface", registry_.semid).at(0)}), lock_log());
}

// What the owner writes here is ordered by nothing before the thread reads it.
TEST_F(BandwidthUnlocked, ThreadTracesAndGoesOn)
{
    ASSERT_EQ(1, add_bm_by_iface("eth0", &registry_));
    ASSERT_EQ(1, add_bm_by_iface("eth1", &registry_));
    (void)lock_log();
    const size_t before = test::read_file("/var/tmp/tarnic.log").size();
    const auto traced_times = [&](int times) {
        return eventually([&] {
            const std::string log = test::read_file("/var/tmp/tarnic.log");
            const auto from = log.begin() + static_cast<std::ptrdiff_t>(before);
            return std::count(from, log.end(), '\n') >= times;
        });
    };
    std::vector<std::string> order;
    {
        const test::watch watch;
        const own_thread thread(&registry_);
        EXPECT_TRUE(traced_times(2));
        set(registry_.interval, 1);
        set(registry_.keep_history, 1);
        EXPECT_TRUE(traced_times(4));
        set(registry_.stop, 1);
        thread.join();
        for (const test::call &c : watch.calls("write"))
            for (const char *what : {"down fail", "up fail", "bmThread Exit"})
                if (c.text.find(what) != std::string::npos) order.emplace_back(what);
    }
    // Two scans at least, and the look at the stop bit; then the end
    ASSERT_LE(9U, order.size());
    const size_t looks = (order.size() - 3) / 2;
    std::vector<std::string> expected;
    for (size_t i = 0; i < looks; ++i) expected.insert(expected.end(), {"down fail", "up fail"});
    expected.insert(expected.end(), {"bmThread Exit", "down fail", "up fail"});
    EXPECT_EQ(expected, order);
    EXPECT_EQ(unlocked("bmThread", registry_.semid, looks + 1), lock_log());
    EXPECT_EQ(traces{ended}, test::console());
    EXPECT_EQ(1U, list_empty(&registry_.list));
}

// ---- Everybody at once -------------------------------------------------------------------------

TEST_F(Bandwidth, FourThreadsAddDeleteAndQueryWhileTheThreadSamples)
{
    constexpr int workers = 4;
    set(registry_.keep_history, 1);
    ASSERT_EQ(1, add("lo"));
    std::array<std::atomic<int>, workers> added{};
    std::array<std::atomic<int>, workers> wrong{};
    std::atomic<bool> done = false;
    ASSERT_EQ(0, bm_start(&registry_));
    std::vector<std::thread> all;
    for (size_t w = 0; w < workers; ++w)
        all.emplace_back([&, w] {
            const std::string own = "own" + std::to_string(w);
            for (int turn = 0; turn < 20 || !done; ++turn) {
                bm_sample out{};
                const int results[] = {add_bm_by_iface(own.c_str(), &registry_),
                                       query_bm_by_iface(own.c_str(), &registry_, &out),
                                       add_bm_by_iface(own.c_str(), &registry_),
                                       del_bm_by_iface(own.c_str(), &registry_),
                                       del_bm_by_iface(own.c_str(), &registry_)};
                const int expected[] = {1, 0, 1, 1, 0};
                added[w] += 2;
                if (!std::equal(results, results + 5, expected)) ++wrong[w];
                (void)query_bm_by_iface("lo", &registry_, &out);
                if (w == 0) (void)add_bm_by_iface("both", &registry_), ++added[w];
                if (w == 1) (void)del_bm_by_iface("both", &registry_);
                set(registry_.interval, turn % 2);
                set(registry_.keep_history, 1 + turn % 2);
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    const auto history_of_lo = [&] {
        const holding lock(registry_.semid);
        return samples(*records(registry_).at(0)).size();
    };
    EXPECT_TRUE(eventually([&] { return history_of_lo() >= 2; }));
    done = true;
    for (std::thread &t : all) t.join();
    int count = 1;
    for (size_t w = 0; w < workers; ++w) {
        EXPECT_EQ(0, wrong[w]) << w;
        count += added[w];
    }
    EXPECT_EQ(count % 256, registry_.count);
    name_list left = names(registry_);
    EXPECT_EQ("lo", left.at(0));
    left.erase(left.begin());
    EXPECT_TRUE(left.empty() || left == name_list{"both"});
    set(registry_.interval, 1);
    EXPECT_LE(2U, stop().size());
}

// ---- Real traffic ------------------------------------------------------------------------------

// Frames of an exact length, sent out of one interface.
class sender {
public:
    explicit sender(const char *name) : fd_(::socket(AF_PACKET, SOCK_RAW, 0))
    {
        struct sockaddr_ll address {};
        address.sll_family = AF_PACKET;
        address.sll_ifindex = static_cast<int>(::if_nametoindex(name));
        EXPECT_LT(0, address.sll_ifindex);
        EXPECT_EQ(0, ::bind(fd_, reinterpret_cast<struct sockaddr *>(&address), sizeof address));
    }
    ~sender() { ::close(fd_); }
    sender(const sender &) = delete;
    sender &operator=(const sender &) = delete;

    void send(size_t length, u64 count) const
    {
        std::string frame(length, '\0');
        frame.replace(0, 6, 6, '\xff');  // to all
        frame.replace(6, 6, "\x02tests");
        frame.replace(12, 2, "\x88\xb5");  // a protocol for experiments
        for (u64 i = 0; i < count; ++i)
            EXPECT_EQ(static_cast<ssize_t>(length), ::send(fd_, frame.data(), length, 0));
    }

private:
    int fd_;
};

// The bytes that the kernel itself tells of an interface.
rates kernel_bytes(const std::string &name)
{
    test::shell("ip -s -j link show dev " + name + " > /var/tmp/counters");
    const std::string text = test::read_file("/var/tmp/counters");
    const auto bytes = [&](const std::string &direction) -> u64 {
        const std::string head = "\"" + direction + "\":{\"bytes\":";
        const size_t at = text.find(head);
        EXPECT_NE(std::string::npos, at) << text;
        return at == std::string::npos ? 0 : std::stoull(text.substr(at + head.size()));
    };
    return {bytes("rx"), bytes("tx")};
}

class veth_pair {
public:
    veth_pair()
    {
        // Silent interfaces: what passes is what the test sends
        test::shell("ip link add bm0 type veth peer name bm1");
        for (const std::string name : {"bm0", "bm1"})
            test::shell("ip link set " + name +
                        " addrgenmode none; "
                        "ip link set " +
                        name + " arp off up");
    }
    ~veth_pair() { test::shell("ip link del bm0"); }
    veth_pair(const veth_pair &) = delete;
    veth_pair &operator=(const veth_pair &) = delete;
};

TEST_F(Bandwidth, RatesAreThoseOfRealTraffic)
{
    constexpr size_t rounds = 5;
    const veth_pair pair;
    const sender to_bm0("bm1");
    const sender to_bm1("bm0");
    to_bm0.send(1500, 3);  // before the first sample: in no rate
    set(registry_.keep_history, 1);
    ASSERT_EQ(1, add("bm0"));
    ASSERT_EQ(1, add("bm1"));
    ASSERT_EQ(0, bm_start(&registry_));
    EXPECT_TRUE(eventually([&] { return look().at(1).flags == 1; }));
    // What is sent under the lock, after so many rates, is in the next one and in no other.
    const rates before = kernel_bytes("bm0");
    std::vector<rates> sent;
    for (size_t round = 0; round < rounds; ++round) {
        EXPECT_TRUE(eventually([&] { return look().at(1).history.size() >= sent.size(); }));
        const holding lock(registry_.semid);
        sent.resize(states_of(registry_).at(1).history.size());
        to_bm0.send(1000, 10 + round);
        to_bm1.send(700, 20 - round);
        sent.push_back({1000 * (10 + round), 700 * (20 - round)});
    }
    EXPECT_TRUE(eventually([&] { return look().at(1).history.size() >= sent.size(); }));
    const rates after = kernel_bytes("bm0");
    // 10 + 11 + 12 + 13 + 14 and 20 + 19 + 18 + 17 + 16 frames
    EXPECT_EQ((rates{60000, 63000}), (rates{after.rx - before.rx, after.tx - before.tx}));
    states now = look();
    for (state &s : now) s.history.resize(sent.size());  // less what came since
    EXPECT_EQ(sent, now.at(0).history);
    EXPECT_EQ(after, now.at(0).last);
    for (rates &r : sent) std::swap(r.rx, r.tx);
    EXPECT_EQ(sent, now.at(1).history);
    EXPECT_EQ((rates{after.tx, after.rx}), now.at(1).last);
    stop();
}

}  // namespace
