#include "rules.h"

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <sstream>

#include "text.h"

namespace tool {
namespace {

using std::string;
using lines = std::vector<string>;

// The words of a command, without the quotes around a domain
lines words_of(const string &command)
{
    lines out;
    std::istringstream in(command);
    for (string word; in >> word;) {
        if (word.size() >= 2 && word.front() == '"' && word.back() == '"')
            word = word.substr(1, word.size() - 2);
        out.push_back(word);
    }
    return out;
}

// Runs a body in a process and a network namespace of its own, and gives back the text that it
// returns; none when there can be no such namespace, or the body gives none.
std::optional<string> in_own_namespace(const std::function<std::optional<string>()> &body)
{
    const auto answer = make_temporary();
    if (!answer) return std::nullopt;
    const pid_t child = ::fork();
    if (child < 0) return std::nullopt;
    if (child == 0) {
        if (::unshare(CLONE_NEWNET) != 0) ::_exit(1);
        const std::optional<string> text = body();
        if (!text || std::fwrite(text->data(), 1, text->size(), answer.get()) != text->size() ||
            std::fflush(answer.get()) != 0)
            ::_exit(1);
        ::_exit(0);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0)
        if (errno != EINTR) return std::nullopt;
    if (status != 0) return std::nullopt;
    string text;
    std::rewind(answer.get());
    for (int c = 0; (c = std::fgetc(answer.get())) != EOF;) text += static_cast<char>(c);
    return text;
}

}  // namespace

string rule_command(const string &script_line)
{
    const string opening = "iptables -t mangle ";
    const string silence = " 2>/dev/null";
    if (!begins(script_line, opening)) return "";
    string command = script_line.substr(opening.size());
    if (command.size() >= silence.size() &&
        command.compare(command.size() - silence.size(), silence.size(), silence) == 0)
        command.resize(command.size() - silence.size());
    return command;
}

// To iptables a wait of 0, or none, is one without an end.
rule_chains::rule_chains(string ifname, unsigned wait)
    : ifname_(std::move(ifname)),
      chain_("QOS_" + ifname_),
      wait_(std::to_string(std::max(wait, 1U)))
{}

lines rule_chains::iptables(const lines &words) const
{
    lines all = {"iptables", "-w", wait_, "-t", "mangle"};
    all.insert(all.end(), words.begin(), words.end());
    return all;
}

bool rule_chains::is_own(const string &line) const
{
    for (const string &chain : {chain_, chain_ + "_AUTO"})
        if (line == "-N " + chain || begins(line, "-A " + chain + " ")) return true;
    for (const char *from : {"FORWARD", "OUTPUT"})
        if (line == format("-A %s -o %s -g %s", from, ifname_.c_str(), chain_.c_str())) return true;
    return false;
}

std::optional<lines> rule_chains::list(string &why) const
{
    const run_result listing = run(iptables({"-S"}));
    if (!listing.ok()) {
        why = listing.missing ? "iptables is missing" : "iptables: " + one_line(listing.err);
        return std::nullopt;
    }
    lines own;
    for (const string &line : lines_of(listing.out))
        if (is_own(line)) own.push_back(line);
    return own;
}

string rule_chains::load_input(const lines &commands, const lines *present) const
{
    string input = "*mangle\n";
    if (present == nullptr) {
        // Refused where the chain is there: then nothing is changed.
        input += "-N " + chain_ + "\n-N " + chain_ + "_AUTO\n";
    } else {
        // Made, or emptied
        input += ":" + chain_ + " - [0:0]\n:" + chain_ + "_AUTO - [0:0]\n";
        for (const string &line : *present)
            if (!begins(line, "-N ") && !begins(line, "-A " + chain_))
                input += "-D" + line.substr(2) + "\n";
    }
    for (const string &command : commands)
        if (begins(command, "-A ")) input += command + "\n";
    return input + "COMMIT\n";
}

string rule_chains::removal_input(const lines &present)
{
    string jumps;
    string flush;
    string removal;
    for (const string &line : present) {
        if (begins(line, "-N ")) {
            flush += "-F " + line.substr(3) + "\n";
            removal += "-X " + line.substr(3) + "\n";
        } else if (!begins(line, "-A QOS_")) {
            jumps += "-D" + line.substr(2) + "\n";
        }
    }
    return "*mangle\n" + jumps + flush + removal + "COMMIT\n";
}

run_result rule_chains::restore(const string &input) const
{
    return run({"iptables-restore", "--noflush", "-w", wait_}, input);
}

std::optional<lines> rule_chains::expected(const lines &commands) const
{
    const auto text = in_own_namespace([&]() -> std::optional<string> {
        if (!restore(load_input(commands, nullptr)).ok()) return std::nullopt;
        string why;
        const auto own = list(why);
        if (!own) return std::nullopt;
        string all;
        for (const string &line : *own) all += line + "\n";
        return all;
    });
    return text ? std::optional(lines_of(*text)) : std::nullopt;
}

std::optional<std::size_t> rule_chains::first_refused(const lines &commands) const
{
    const auto text = in_own_namespace([&]() -> std::optional<string> {
        for (const char *suffix : {"", "_AUTO"})
            if (!run(iptables({"-N", chain_ + suffix})).ok()) return std::nullopt;
        for (std::size_t i = 0; i < commands.size(); ++i)
            if (begins(commands[i], "-A ") && !run(iptables(words_of(commands[i]))).ok())
                return std::to_string(i);
        return std::nullopt;
    });
    return text ? std::optional<std::size_t>(std::stoul(*text)) : std::nullopt;
}

bool rule_chains::remove(string &why) const
{
    auto present = list(why);
    if (!present) return false;
    if (present->empty()) return true;
    if (!restore(removal_input(*present)).ok()) {
        // One by one then: what one of them cannot do does not stop the others.
        for (const string &command : lines_of(removal_input(*present)))
            if (begins(command, "-")) (void)run(iptables(words_of(command)));
    }
    present = list(why);
    if (!present) return false;
    if (!present->empty()) why = "still in the mangle table: " + present->front();
    return present->empty();
}

}  // namespace tool
