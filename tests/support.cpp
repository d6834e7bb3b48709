// SPDX-License-Identifier: MIT
#include "support.h"

#include <fcntl.h>
#include <net/if.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <thread>

namespace fs = std::filesystem;

namespace {

constexpr char console_path[] = "/dev/console";
constexpr char log_path[] = "/var/tmp/tarnic.log";
constexpr char private_console[] = "/var/tmp/.console";

std::string failure;  // why the namespaces could not be made, or ""

bool write_text(const char *path, const std::string &text)
{
    int fd = ::open(path, O_WRONLY);
    if (fd < 0) return false;
    const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return ok;
}

// Without root: root in a user namespace of its own.
bool become_root()
{
    if (::geteuid() == 0) return true;
    const std::string uid = std::to_string(::geteuid());
    const std::string gid = std::to_string(::getegid());
    return ::unshare(CLONE_NEWUSER) == 0 && write_text("/proc/self/uid_map", "0 " + uid + " 1") &&
           write_text("/proc/self/setgroups", "deny") &&
           write_text("/proc/self/gid_map", "0 " + gid + " 1");
}

bool loopback_up()
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq request {};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    const bool ok = ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    ::close(fd);
    return ok;
}

bool enter_namespaces()
{
    const auto fail = [](const char *what) {
        failure = std::string(what) + ": " + std::strerror(errno);
        return false;
    };
    if (!become_root()) return fail("user namespace");
    if (::unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC) != 0) return fail("unshare");
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return fail("private /");
    if (::mount("tmpfs", "/var/tmp", "tmpfs", 0, "mode=1777") != 0) return fail("/var/tmp");
    {
        std::ofstream make(private_console);
    }
    if (::mount(private_console, console_path, nullptr, MS_BIND, nullptr) != 0)
        return fail(console_path);
    if (!loopback_up()) return fail("loopback");
    return true;
}

// The sink's text behind the first `seen` bytes, which then counts as seen.
std::string unseen(const char *path, size_t &seen)
{
    const std::string all = test::exists(path) ? test::read_file(path) : std::string();
    std::string text = all.size() >= seen ? all.substr(seen) : all;
    seen = all.size();
    return text;
}

size_t console_seen;
size_t log_seen;

std::vector<test::trace_line> parse(const std::string &text)
{
    std::vector<test::trace_line> lines;
    std::istringstream in(text);
    if (!text.empty() && text.back() != '\n') ADD_FAILURE() << "unfinished trace line: " << text;
    for (std::string row; std::getline(in, row);) {
        char source[64];
        char function[64];
        test::trace_line line;
        int prefix = 0;
        (void)std::sscanf(row.c_str(), "[ %63[^:]:%d %63[^(]()]:::%n", source, &line.line, function,
                          &prefix);
        if (prefix == 0) {
            ADD_FAILURE() << "not a trace line: " << row;
            continue;
        }
        line.source = source;
        line.function = function;
        line.message = row.substr(static_cast<size_t>(prefix));
        char exact[256];
        std::snprintf(exact, sizeof exact, "[%16s:%5d %16s()]:::", source, line.line, function);
        EXPECT_EQ(exact + line.message, row) << "padding of the trace prefix";
        EXPECT_GT(line.line, 0);
        lines.push_back(line);
    }
    return lines;
}

test::traces less_numbers(const std::vector<test::trace_line> &lines)
{
    test::traces out;
    for (const auto &l : lines) out.push_back({l.source, l.function, l.message});
    return out;
}

void delete_all()
{
    while (!list_empty(&qos_root)) {
        const auto *rec = reinterpret_cast<const qos_if *>(
            reinterpret_cast<const char *>(qos_root.next) - offsetof(qos_if, node));
        const std::string name = rec->ifname;
        ASSERT_EQ(0, del_root_qdisc(name.c_str()));
    }
    del_all_sched();
}

}  // namespace

namespace test {

std::ostream &operator<<(std::ostream &out, const traced &t)
{
    return out << t.source << ' ' << t.function << "(): " << t.message;
}

traced not_found(const std::string &ifname)
{
    return {"tarnic_qos", "root_qdisc_find_by_name", ifname + " not found!!"};
}

std::string console_raw() { return unseen(console_path, console_seen); }
std::string log_raw() { return unseen(log_path, log_seen); }
std::vector<trace_line> console_lines() { return parse(console_raw()); }
std::vector<trace_line> log_lines() { return parse(log_raw()); }
traces console() { return less_numbers(console_lines()); }
traces trace_log() { return less_numbers(log_lines()); }

std::string written(const std::function<void(FILE *)> &write)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *out = ::open_memstream(&text, &size);
    write(out);
    std::fclose(out);
    std::string all(text, size);
    std::free(text);
    return all;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in) << "cannot read " << path;
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary);
    out << text;
    EXPECT_TRUE(out.flush()) << "cannot write " << path;
}

bool exists(const std::string &path) { return fs::exists(fs::symlink_status(path)); }

unsigned mode_of(const std::string &path)
{
    struct stat st {};
    EXPECT_EQ(0, ::lstat(path.c_str(), &st)) << path;
    return st.st_mode & 07777U;
}

void expect_golden(const std::string &name, const std::string &text)
{
    const std::string path = std::string(MORDEL_GOLDEN_DIR) + "/" + name;
    if (std::getenv("MORDEL_BLESS") != nullptr) return write_file(path, text);
    if (const char *out = std::getenv("MORDEL_GOLDEN_OUT"); out != nullptr)
        write_file(std::string(out) + "/" + name, text);
    EXPECT_EQ(read_file(path), text) << "differs from " << path << " (MORDEL_BLESS=1 rewrites it)";
}

qos_match full_match()
{
    qos_match m{};
    m.dot1p_prio = 5;
    m.vlan_id = 100;
    put(m.src_mac, "00:11:22:33:44:55");
    m.src_ip_start = 0x0a000001;
    m.src_ip_end = 0x0a000063;
    m.dst_ip_start = 0xc0a80102;
    m.dst_ip_end = 0xc0a8fffe;
    m.dscp_value.raw = 46;
    m.tos = 16;
    m.precedence = 7;
    m.sport_start = 1024;
    m.sport_end = 65535;
    m.dport_start = 80;
    m.dport_end = 443;
    m.tcp_flag_mask = 0x3f;
    m.tcp_flag_comp = 0x02;
    m.pkt_len = 0x00400578;
    m.alg = 2;
    put(m.url, "example.org/a");
    put(m.domain, "example.org");
    return m;
}

std::string shell_syntax(const std::string &path)
{
    const std::string said = "/var/tmp/.syntax";
    const std::string run = "sh -n '" + path + "' > " + said + " 2>&1";
    const int status = std::system(run.c_str());
    const std::string text = read_file(said);
    return status == 0 ? text : "exit status " + std::to_string(status) + ": " + text;
}

void shell(const std::string &command)
{
    const std::string said = "/var/tmp/.shell";
    const int status = std::system(("{ " + command + "; } > " + said + " 2>&1").c_str());
    EXPECT_EQ(0, status) << command << "\n" << read_file(said);
}

bool eventually(const std::function<bool()> &holds)
{
    for (int i = 0; i < 12000; ++i) {
        if (holds()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return holds();
}

size_t open_descriptors()
{
    // Less the one that reads the directory
    return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), {})) - 1;
}

void on_a_small_stack(std::function<void()> body)
{
    constexpr long wanted = std::string_view(MORDEL_SANITIZE).empty() ? 64L << 10 : 8L << 20;
    const long size = std::max(wanted, ::sysconf(_SC_THREAD_STACK_MIN));
    pthread_attr_t attr;
    ASSERT_EQ(0, pthread_attr_init(&attr));
    ASSERT_EQ(0, pthread_attr_setstacksize(&attr, static_cast<size_t>(size)));
    pthread_t thread;
    const auto run = [](void *arg) -> void * {
        (*static_cast<std::function<void()> *>(arg))();
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, &attr, run, &body));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    pthread_attr_destroy(&attr);
}

void mordel_test::SetUp()
{
    for (const auto &entry : fs::directory_iterator("/var/tmp"))
        if (entry.path() != private_console) fs::remove_all(entry.path());
    ASSERT_EQ(0, ::truncate(console_path, 0));
    console_seen = log_seen = 0;
    ASSERT_EQ(1U, list_empty(&qos_root));
    ASSERT_EQ(1U, list_empty(&sched_root));
}

void mordel_test::TearDown() { delete_all(); }

void silent_test::TearDown()
{
    EXPECT_EQ("", console_raw());
    EXPECT_EQ("", log_raw());
    mordel_test::TearDown();
}

}  // namespace test

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    // Never on the machine's own files: without namespaces no test runs, and none has passed.
    if (!GTEST_FLAG_GET(list_tests) && !enter_namespaces()) {
        std::printf("[  SKIPPED ] no private namespaces (%s)\n", failure.c_str());
        return 1;
    }
    return RUN_ALL_TESTS();
}
