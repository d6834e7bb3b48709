// SPDX-License-Identifier: MIT
// For the tests that run as root in a guest of uml-run: programs that are run and read, interfaces
// that are made, and what the kernel holds of them.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace guest {

using nlohmann::json;
using std::string;
using lines = std::vector<string>;

inline string mordel_path;
inline string plain_path;  // PATH without the spies

// ---- Texts --------------------------------------------------------------------------------------

inline lines lines_of(const string &text)
{
    lines out;
    std::istringstream in(text);
    for (string line; std::getline(in, line);) out.push_back(line);
    return out;
}

inline string file_text(const string &path)
{
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void write_file(const string &path, const string &text) { std::ofstream(path) << text; }

inline string replaced(string text, const string &from, const string &to)
{
    for (std::size_t at = 0; (at = text.find(from, at)) != string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

inline bool has(const string &text, const string &part) { return text.find(part) != string::npos; }

inline string joined(const lines &all, const char *between)
{
    string out;
    for (const string &one : all) out += (out.empty() ? "" : between) + one;
    return out;
}

// One space between words, none at the ends
inline string squeezed(const string &text)
{
    lines words;
    std::istringstream in(text);
    for (string word; in >> word;) words.push_back(word);
    return joined(words, " ");
}

// ---- Programs -----------------------------------------------------------------------------------

struct closer {
    void operator()(FILE *stream) const { (void)std::fclose(stream); }
};
using stream = std::unique_ptr<FILE, closer>;

inline string contents(FILE *from)
{
    string text;
    std::array<char, 4096> piece{};
    std::rewind(from);
    while (const std::size_t n = std::fread(piece.data(), 1, piece.size(), from))
        text.append(piece.data(), n);
    return text;
}

struct result {
    int status = 0;  // 128 and the signal's number when it was killed
    string out, err;
    json parsed() const { return json::parse(out, nullptr, false); }
};

struct environment {
    string path;                     // "": without the spies
    std::map<string, string> more;   // variables
    std::function<void()> prepared;  // run in the new process before the program
};

class program {
public:
    explicit program(const lines &command, const string &input = "", const environment &e = {})
        : in_(std::tmpfile()), out_(std::tmpfile()), err_(std::tmpfile())
    {
        (void)std::fwrite(input.data(), 1, input.size(), in_.get());
        std::rewind(in_.get());
        pid_ = ::fork();
        if (pid_ != 0) return;
        (void)::setpgid(0, 0);
        (void)::dup2(::fileno(in_.get()), 0);
        (void)::dup2(::fileno(out_.get()), 1);
        (void)::dup2(::fileno(err_.get()), 2);
        (void)::setenv("PATH", e.path.empty() ? plain_path.c_str() : e.path.c_str(), 1);
        for (const auto &[name, value] : e.more) (void)::setenv(name.c_str(), value.c_str(), 1);
        std::vector<char *> argv;
        for (const string &word : command) argv.push_back(const_cast<char *>(word.c_str()));
        argv.push_back(nullptr);
        if (e.prepared) e.prepared();
        (void)::execvp(argv[0], argv.data());
        ::_exit(127);
    }

    pid_t pid() const { return pid_; }
    bool running() { return !ended_ && !(ended_ = ::waitpid(pid_, &status_, WNOHANG) == pid_); }
    // The caller has waited for the program itself.
    void ended_with(int status)
    {
        ended_ = true;
        status_ = status;
    }

    // One that hangs ends too, so that the tests behind it are run.
    result end(int seconds = 300)
    {
        const auto last = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (running() && std::chrono::steady_clock::now() < last) (void)::usleep(1000);
        if (!ended_) (void)::kill(-pid_, SIGKILL);
        if (!ended_) (void)::waitpid(pid_, &status_, 0);
        return {WIFSIGNALED(status_) ? 128 + WTERMSIG(status_) : WEXITSTATUS(status_),
                contents(out_.get()), contents(err_.get())};
    }

private:
    stream in_, out_, err_;
    pid_t pid_ = 0;
    int status_ = 0;
    bool ended_ = false;
};

inline result run(const lines &command, const string &input = "")
{
    return program(command, input).end();
}

// A command of a person; it works.
inline void by_hand(const string &command)
{
    const result r = run({"/bin/sh", "-ec", command});
    EXPECT_EQ(0, r.status) << command << "\n" << r.err;
}

inline lines command_line(const lines &words)
{
    lines all = {mordel_path};
    all.insert(all.end(), words.begin(), words.end());
    return all;
}

// ---- Interfaces and what they hold --------------------------------------------------------------

// IPv6 sends packets of its own accord.
inline void without_ipv6()
{
    for (const char *which : {"all", "default"})
        write_file(string("/proc/sys/net/ipv6/conf/") + which + "/disable_ipv6", "1");
}

// An ifb queues its packets, as real hardware does.
inline string fresh_interface()
{
    static int count = 0;
    std::array<char, 16> name{};
    (void)std::snprintf(name.data(), name.size(), "q%03d", ++count);
    const string n = name.data();
    const result r =
        run({"ip", "-batch", "-"}, "link add " + n + " txqueuelen 100 type ifb\nlink set " + n +
                                       " up\naddr add 10.9." + std::to_string(count) +
                                       ".1/24 dev " + n + "\n");
    EXPECT_EQ(0, r.status) << r.err;
    return n;
}

inline lines sorted_lines(const string &text)
{
    lines all;
    for (const string &line : lines_of(text)) {
        // A counter among the options
        const std::size_t count = line.find(" direct_packets_stat");
        all.push_back(count == string::npos ? line : line.substr(0, count));
    }
    std::sort(all.begin(), all.end());
    return all;
}

inline string tree_of(const string &name)
{
    string show;
    for (const char *what : {"class", "qdisc", "filter"})
        show += string(what) + " show dev " + name + "\n";
    const result r = run({"tc", "-details", "-batch", "-"}, show);
    EXPECT_EQ(0, r.status) << r.err;
    return joined(sorted_lines(r.out), "\n") + "\n";
}

// The lines of the mangle table that name an interface, or all
inline string rules_of(const string &name = "")
{
    const result r = run({"iptables", "-w", "-t", "mangle", "-S"});
    EXPECT_EQ(0, r.status) << r.err;
    string all;
    for (const string &line : lines_of(r.out))
        if (has(line, name)) all += line + "\n";
    return all;
}

// All of an interface, its own name as "@" so that two can be compared
inline string state_of(const string &name)
{
    return replaced(tree_of(name) + rules_of(name), name, "@");
}

// Nothing but the kernel's own qdisc
inline void expect_default(const string &name)
{
    const string untouched =
        "qdisc pfifo_fast 0: root refcnt 2 bands 3 priomap 1 2 2 2 1 2 0 0 1 1 "
        "1 1 1 1 1 1\n";
    EXPECT_EQ(untouched, replaced(tree_of(name), "  ", " "));
    EXPECT_EQ("", rules_of(name));
}

struct counters {
    unsigned packets = 0, dropped = 0, waiting = 0;
    unsigned total() const { return packets + dropped + waiting; }
};

// By class: "1:10"
inline std::map<string, counters> counters_of(const string &name)
{
    std::map<string, counters> all;
    counters *now = nullptr;
    for (const string &line : lines_of(run({"tc", "-s", "class", "show", "dev", name}).out)) {
        std::array<char, 16> id{};
        if (std::sscanf(line.c_str(), "class %*s %15s", id.data()) == 1) now = &all[id.data()];
        if (now == nullptr) continue;
        (void)std::sscanf(line.c_str(), " Sent %*u bytes %u pkt (dropped %u", &now->packets,
                          &now->dropped);
        (void)std::sscanf(line.c_str(), " backlog %*[0-9A-Za-z] %up", &now->waiting);
    }
    return all;
}

// Packets of 1,000 bytes and their headers, each already marked
inline void send(const string &name, unsigned mark, int count)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, ::setsockopt(fd, SOL_SOCKET, SO_MARK, &mark, sizeof mark));
    ASSERT_EQ(0, ::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name.c_str(), 4));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    to.sin_addr.s_addr =
        htonl(0x0a090002U | (static_cast<std::uint32_t>(std::stoul(name.substr(1))) << 8));
    const string body(1000, 'x');
    for (int i = 0; i < count; ++i)
        (void)::sendto(fd, body.data(), body.size(), MSG_DONTWAIT,
                       reinterpret_cast<const sockaddr *>(&to), sizeof to);  // it may be dropped
    (void)::close(fd);
}

// ---- Policies -----------------------------------------------------------------------------------

// A policy's text with the interface's name where an @ stands
inline string for_interface(const string &text, const string &name)
{
    return replaced(text, "@", name);
}

inline string policy_file(const string &text)
{
    static int count = 0;
    string path = "/run/policy" + std::to_string(++count) + ".toml";
    write_file(path, text);
    return path;
}

}  // namespace guest
