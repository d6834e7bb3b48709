// SPDX-License-Identifier: MIT
// The test's own program under the names tc, iptables and iptables-restore, in a folder that comes
// first in the PATH: a spy. It notes the call and runs the real program; an order makes it refuse a
// command, wait, or send a signal to mordel. A position is a command that changes something,
// counted from 1 over all calls: a line of a tc batch, or one whole iptables-restore. What is only
// tried in another network namespace, and what is run to take back (tc -force), has no position.
#pragma once

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <filesystem>
#include <regex>

#include "guest.h"

namespace guest {

inline const string spies = "/run/spies";
inline const string calls_file = "/run/calls";
inline const string orders_file = "/run/orders";
inline const string count_file = "/run/positions";  // how many have been passed
inline const string fired_file = "/run/fired";      // there once the order is done
inline const string hold_file = "/run/hold";        // the order waits until it is gone
inline const string at_work_file = "/run/at_work";  // locked while a tool changes something
inline const string overlap_file = "/run/overlap";  // there once two have been at work

struct order {
    unsigned at = 0;       // a position; 0: no order
    bool refuse = false;   // the command fails as the real tool's would
    int signal = 0;        // sent to mordel before the command
    unsigned seconds = 0;  // slept before the command
    // Regular expressions for "tc -force class add ...", -force where it is run to take back: once
    // fired, such commands fail too.
    lines refused_after{};
};

inline void remove_notes()
{
    for (const string &file :
         {calls_file, orders_file, count_file, fired_file, hold_file, overlap_file})
        (void)::unlink(file.c_str());
}

// For the next mordel. What the spies have noted before is forgotten.
inline void give(const order &o)
{
    remove_notes();
    write_file(orders_file, json{{"at", o.at},
                                 {"refuse", o.refuse},
                                 {"signal", o.signal},
                                 {"seconds", o.seconds},
                                 {"refused_after", o.refused_after}}
                                .dump());
}

inline bool fired() { return ::access(fired_file.c_str(), F_OK) == 0; }

// ---- Within the spy -----------------------------------------------------------------------------

inline string network_of(const char *process)
{
    std::array<char, 64> link{};
    (void)::readlink((string("/proc/") + process + "/ns/net").c_str(), link.data(),
                     link.size() - 1);
    return link.data();
}

struct call {
    string name;
    lines words;       // behind the name
    string input;      // of a batch and of iptables-restore
    bool elsewhere;    // in another network namespace, where it is only tried
    bool batch;        // of tc: each line of the input is a command
    bool forced;       // goes on after a refused line
    lines commands{};  // those that change something
};

inline bool holds(const lines &words, const char *word)
{
    return std::find(words.begin(), words.end(), word) != words.end();
}

inline call this_call(const string &name, char **argv)
{
    call c{name, {}, "", network_of("self") != network_of("1"), false, false};
    for (char **word = argv + 1; *word != nullptr; ++word) c.words.emplace_back(*word);
    c.batch = name == "tc" && (holds(c.words, "-batch") || holds(c.words, "-b"));
    c.forced = holds(c.words, "-force");
    if (c.batch || name == "iptables-restore") c.input = contents(stdin);
    if (holds(c.words, "--test") || holds(c.words, "-S") || holds(c.words, "show")) return c;
    if (c.batch)
        for (const string &line : lines_of(c.input)) c.commands.push_back(line);
    else
        c.commands.push_back(name == "iptables-restore" ? c.input : joined(c.words, " "));
    return c;
}

inline bool note(const call &c)
{
    const string line =
        json{{"name", c.name}, {"words", c.words}, {"input", c.input}, {"elsewhere", c.elsewhere}}
            .dump() +
        "\n";
    const int log = ::open(calls_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const bool written = ::write(log, line.data(), line.size()) == ssize_t(line.size());
    (void)::close(log);
    return written;
}

// Becomes the real program, which reads the input.
[[noreturn]] inline void become(const call &c, const string &input, char **argv)
{
    static const stream copy(std::tmpfile());
    (void)std::fwrite(input.data(), 1, input.size(), copy.get());
    std::rewind(copy.get());
    if (c.batch || c.name == "iptables-restore") (void)::dup2(::fileno(copy.get()), 0);
    const string path = std::getenv("PATH");
    (void)::setenv("PATH", path.substr(path.find(':') + 1).c_str(), 1);
    argv[0] = const_cast<char *>(c.name.c_str());
    (void)::execvp(c.name.c_str(), argv);
    ::_exit(127);
}

inline int run_real(const call &c, const string &input, char **argv)
{
    const pid_t child = ::fork();
    if (child == 0) become(c, input, argv);
    int status = 0;
    (void)::waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// As the real tool refuses it. number: the line of the batch
inline int refuse(const call &c, std::size_t number)
{
    if (c.name == "iptables-restore") {
        const auto all = lines_of(c.input);
        std::fprintf(stderr, "iptables-restore: line %zu failed\n", all.size());
        return 1;
    }
    if (c.name == "iptables") {
        std::fprintf(stderr, "iptables: Invalid argument. Run `dmesg' for more information.\n");
        return 1;
    }
    std::fprintf(stderr, "RTNETLINK answers: Invalid argument\n");
    if (!c.batch) return 2;
    std::fprintf(stderr, "Command failed -:%zu\n", number);
    return 1;
}

// Two tools at work at once leave a sign. The descriptor stays open in the real program.
inline void note_work()
{
    const int fd = ::open(at_work_file.c_str(), O_RDWR | O_CREAT, 0600);
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) write_file(overlap_file, "");
}

// Whether this is the command that the order is for
inline bool is_at(const json &order, const call &c)
{
    if (fired() || c.forced) return false;
    const unsigned position = static_cast<unsigned>(std::atoi(file_text(count_file).c_str())) + 1;
    write_file(count_file, std::to_string(position));
    return position == order["at"].get<unsigned>();
}

inline void send_to_mordel(int signal)
{
    const char *mordel = std::getenv("SPY_MORDEL");
    if (signal != 0 && mordel != nullptr) (void)::kill(std::atoi(mordel), signal);
}

// Waits and signals as ordered; true when the command is to be refused too.
inline bool carry_out(const json &order)
{
    write_file(fired_file, "");
    while (::access(hold_file.c_str(), F_OK) == 0) (void)::usleep(10000);
    (void)::sleep(order["seconds"].get<unsigned>());
    send_to_mordel(order["signal"].get<int>());
    // A killed mordel takes its children along. One that lives on shows itself by its work.
    if (order["signal"] == SIGKILL) (void)::usleep(300000);
    return order["refuse"].get<bool>();
}

inline bool is_refused_after(const json &order, const call &c, const string &command)
{
    const string whole = c.name + (c.forced ? " -force " : " ") + command;
    const auto &all = order["refused_after"];
    return fired() && std::any_of(all.begin(), all.end(), [&](const json &text) {
               return std::regex_search(whole, std::regex(text.get<string>()));
           });
}

// Runs the commands of a call up to each that is refused.
inline int obeyed(const call &c, const json &order, char **argv)
{
    string input;  // kept back until it is clear that no later command stops the call
    int status = 0;
    const auto run_input = [&] {
        const int ended = input.empty() ? 0 : run_real(c, input, argv);
        if (ended != 0) status = ended;
        input.clear();
        return status == 0 || c.forced;
    };
    for (std::size_t i = 0; i < c.commands.size(); ++i) {
        const bool here = is_at(order, c);
        if (here && !run_input()) return status;
        if (here ? carry_out(order) : is_refused_after(order, c, c.commands[i])) {
            if (!run_input()) return status;
            status = refuse(c, i + 1);
            if (!c.forced) return status;
        } else {
            input += c.commands[i] + (c.batch ? "\n" : "");
        }
    }
    (void)run_input();
    return status;
}

inline int spy(const string &name, char **argv)
{
    const call c = this_call(name, argv);
    if (!note(c)) return 126;
    if (c.elsewhere || c.commands.empty()) become(c, c.input, argv);
    note_work();
    if (const char *always = std::getenv("SPY_SIGNAL")) send_to_mordel(std::atoi(always));
    const json order = json::parse(file_text(orders_file), nullptr, false);
    const bool idle =
        order.is_discarded() || order["at"] == 0 || (fired() && order["refused_after"].empty());
    if (idle) become(c, c.input, argv);
    return obeyed(c, order, argv);
}

// ---- For the test -------------------------------------------------------------------------------

// Makes the folder of spies; true when this process is called as one of them.
inline bool is_spy(const string &name)
{
    return name == "tc" || name == "iptables" || name == "iptables-restore";
}

inline void place_spies()
{
    std::filesystem::create_directory(spies);
    for (const char *tool : {"tc", "iptables", "iptables-restore"})
        std::filesystem::create_symlink(std::filesystem::canonical("/proc/self/exe"),
                                        spies + "/" + tool);
}

// The program's own process is the one that the spies' signals go to.
inline environment spied(const std::map<string, string> &more = {})
{
    return {spies + ":" + plain_path, more,
            [] { (void)::setenv("SPY_MORDEL", std::to_string(::getpid()).c_str(), 1); }};
}

inline std::vector<json> calls()
{
    std::vector<json> all;
    for (const string &line : lines_of(file_text(calls_file))) all.push_back(json::parse(line));
    return all;
}

// The commands of the spied calls that change something, as mordel itself lists them
inline lines changes()
{
    lines all;
    for (const json &call : calls()) {
        if (call["elsewhere"].get<bool>()) continue;
        const string name = call["name"];
        const auto words = call["words"].get<lines>();
        if (holds(words, "show") || holds(words, "-S") || holds(words, "--test")) continue;
        if (name == "iptables-restore") {
            for (const string &line : lines_of(call["input"]))
                if (line[0] == '-' || line[0] == ':') all.push_back(name + ": " + line);
        } else if (holds(words, "-batch")) {
            for (const string &line : lines_of(call["input"])) all.push_back("tc " + line);
        } else {
            all.push_back(name + " " + joined(words, " "));
        }
    }
    return all;
}

}  // namespace guest
