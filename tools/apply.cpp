// Applying goes through the tools' batch forms, which take one process and, for iptables, one step.
// What is in the kernel already decides how much there is to do: nothing, a few parameters that are
// changed in place, or the whole tree.

#include "apply.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <sstream>

#include "kernel.h"
#include "leaf.h"
#include "state.h"
#include "text.h"
#include "tree.h"

namespace tool {
namespace {

using std::string;
using lines = std::vector<string>;
using scope = difference::scope;

constexpr char start_script[] = "/var/tmp/qos_start";
constexpr unsigned script_seconds = 600;  // what a script of thousands of lines takes, and more

// A command of the start script, and where it stands there
struct command {
    string text;  // without the program's name
    unsigned line = 0;
};

// The hexadecimal number behind a word of a command
std::optional<u32> number_behind(const string &line, const char *word)
{
    const std::size_t at = line.find(word);
    if (at == string::npos) return std::nullopt;
    return static_cast<u32>(std::strtoul(line.c_str() + at + std::strlen(word), nullptr, 16));
}

// A start script taken apart
struct start_commands {
    std::vector<command> tc;     // all but the removal of the old root
    std::vector<command> rules;  // of iptables, as iptables-restore takes them
    std::map<u32, command> classes;
    std::map<u32, command> leaves;  // by their class

    explicit start_commands(const string &text)
    {
        unsigned number = 0;
        for (const string &line : lines_of(text)) {
            ++number;
            if (const string rule = rule_command(line); !rule.empty())
                rules.push_back({rule, number});
            if (!begins(line, "tc ") || begins(line, "tc qdisc del ")) continue;
            const command c{line.substr(3), number};
            tc.push_back(c);
            if (begins(c.text, "class add ")) {
                if (const auto handle = number_behind(c.text, "classid 1:0x")) classes[*handle] = c;
            } else if (begins(c.text, "qdisc add ")) {
                if (const auto handle = number_behind(c.text, "parent 1:0x")) leaves[*handle] = c;
            }
        }
    }

    lines rule_texts() const
    {
        lines all;
        for (const command &c : rules) all.push_back(c.text);
        return all;
    }
};

// What is to be done to the tree
struct tree_plan {
    bool whole = false;             // a new tree
    std::vector<command> commands;  // in order
};

string with_verb(const string &text, const char *verb)
{
    const std::size_t at = text.find(" add ");
    return text.substr(0, at + 1) + verb + text.substr(at + 4);
}

bool is_on_path(const char *program)
{
    const char *path = std::getenv("PATH");
    std::istringstream folders(path == nullptr ? "/bin:/usr/bin" : path);
    for (string folder; std::getline(folders, folder, ':');)
        if (::access((folder + "/" + program).c_str(), X_OK) == 0) return true;
    return false;
}

// What a program said, on one line of bearable length
string brief(const string &said)
{
    constexpr std::size_t most = 300;
    string line = one_line(said);
    line.resize(line.find_last_not_of(' ') + 1);
    return line.size() <= most ? line : line.substr(0, most) + "...";
}

class applier {
public:
    applier(const policy &p, const policy_interface &iface, const string &policy_text,
            const string &script, const apply_options &o)
        : policy_(p),
          iface_(iface),
          policy_text_(policy_text),
          options_(o),
          name_(iface.name),
          script_(script),
          wanted_(script_),
          chains_(name_, o.wait)
    {
        out_.name = name_;
    }

    outcome apply()
    {
        if (options_.script)
            apply_script();
        else
            apply_commands();
        return out_;
    }

    outcome stop()
    {
        string why;
        const auto kernel = read_kernel(name_, why);
        const bool gone = !kernel && ::if_nametoindex(name_.c_str()) == 0;
        if (!kernel && !gone) return fail(why);
        const string no_interface = why;
        if (kernel && kernel->root() != nullptr)
            plan_.commands.push_back({"qdisc del dev " + name_ + " root"});
        // Rules outlive their interface.
        const auto present = list_rules(why);
        if (!present) return fail(why);
        list_commands(present->empty() ? lines{} : lines_of(rule_chains::removal_input(*present)));
        if (out_.commands.empty()) {
            if (gone && !read_state(name_, "start")) return fail(no_interface);
            if (!options_.dry_run) remove_state(name_);
            return out_;
        }
        out_.result = outcome::kind::stopped;
        if (options_.dry_run) return out_;
        // One half that fails is no reason to leave the other.
        const bool no_tree = run_tc();
        const bool no_rules = chains_.remove(why);
        if (!no_rules) out_.error += (out_.error.empty() ? "" : "; ") + why;
        if (!no_tree || !no_rules)
            out_.result = outcome::kind::failed;
        else
            remove_state(name_);
        return out_;
    }

private:
    // ---- By commands ----------------------------------------------------------------------------

    void apply_commands()
    {
        string why;
        const auto kernel = read_kernel(name_, why);
        if (!kernel) {
            fail(why);
            return;
        }
        plan_tree(*kernel);
        if (!plan_rules(*kernel, why)) {
            fail(why);
            return;
        }
        list_commands(lines_of(rule_input_));
        if (out_.commands.empty() && !set_queue_) {
            if (!options_.dry_run) keep_state();
            return;
        }
        out_.result = plan_.whole || set_queue_ ? outcome::kind::built : outcome::kind::changed;
        if (options_.dry_run) return;
        if (!plan_.commands.empty() && !is_on_path("tc")) {
            fail("tc is missing");
            return;
        }
        if (!run_tc() || !load_rules() || !queue_is_set() || !verify()) {
            // The script takes no batch form, but the same tools.
            if (restore_missing_ && is_on_path("iptables"))
                fall_back();
            else
                roll_back();
            return;
        }
        keep_state();
    }

    void plan_tree(const live_tree &kernel)
    {
        std::vector<difference> found = compare(iface_, kernel);
        add_remembered(found);
        if (found.empty()) return;
        const bool mendable = !is_misplaced(kernel) &&
                              std::all_of(found.begin(), found.end(), [](const difference &d) {
                                  return d.what != scope::tree;
                              });
        if (mendable && iface_.root_type != R_pfifo_fast)
            plan_changes(found, kernel);
        else
            plan_whole(kernel);
    }

    // Whether a leaf that is wanted here hangs on another class: no change moves it.
    bool is_misplaced(const live_tree &kernel) const
    {
        return std::any_of(kernel.qdiscs.begin(), kernel.qdiscs.end(), [&](const live_qdisc &q) {
            const u32 handle = q.handle >> 20;
            return q.handle != 0 && q.handle == handle << 20 && wanted_.leaves.contains(handle) &&
                   q.parent != (0x10000 | handle);
        });
    }

    // The kernel does not tell all that it was given. Where the script that was applied last says
    // something else, that is a difference too.
    void add_remembered(std::vector<difference> &found)
    {
        const auto text = read_state(name_, "start");
        if (!text || *text == script_) return;
        const start_commands before(*text);
        const auto differs = [&](const std::map<u32, command> &now,
                                 const std::map<u32, command> &then, scope what) {
            for (const auto &[handle, c] : now) {
                const auto old = then.find(handle);
                if (old != then.end() && old->second.text != c.text)
                    found.push_back({what, handle, "was applied otherwise"});
            }
        };
        differs(wanted_.classes, before.classes, scope::class_parameters);
        differs(wanted_.leaves, before.leaves, scope::leaf);
    }

    void plan_whole(const live_tree &kernel)
    {
        plan_.whole = true;
        plan_.commands.clear();
        if (kernel.root() != nullptr)
            plan_.commands.push_back({"qdisc del dev " + name_ + " root"});
        plan_.commands.insert(plan_.commands.end(), wanted_.tc.begin(), wanted_.tc.end());
        set_queue_ = iface_.root_type == R_pfifo_fast &&
                     kernel.queue_len != iface_.param.pfifo_fast.queue_len;
    }

    // One command for each class, and one or two for each leaf
    void plan_changes(const std::vector<difference> &found, const live_tree &kernel)
    {
        std::set<u32> classes;
        std::set<u32> leaves;
        for (const difference &d : found)
            (d.what == scope::leaf ? leaves : classes).insert(d.handle);
        for (const u32 handle : classes) {
            const command &c = wanted_.classes.at(handle);
            plan_.commands.push_back({with_verb(c.text, "change"), c.line});
        }
        for (const u32 handle : leaves) plan_leaf(handle, kernel.leaf_of(0x10000 | handle));
    }

    void plan_leaf(u32 handle, const live_qdisc *seen)
    {
        const command &c = wanted_.leaves.at(handle);
        const tree_class *wanted = find_class(tree_, handle);
        const bool same_kind = wanted != nullptr && seen != nullptr &&
                               seen->kind == kind_of(wanted->leaf).name &&
                               seen->handle == handle << 20;
        // An SFQ cannot be changed, and without options a change changes nothing: what was set
        // would stay.
        if (same_kind && kind_of(wanted->leaf).changeable && c.text.back() != ' ') {
            plan_.commands.push_back({with_verb(c.text, "change"), c.line});
            return;
        }
        if (seen != nullptr && seen->handle != 0)
            plan_.commands.push_back(
                {format("qdisc del dev %s parent 1:%x", name_.c_str(), handle), c.line});
        plan_.commands.push_back(c);
    }

    // False, with why, when iptables cannot be asked: then nothing is touched.
    bool plan_rules(const live_tree &kernel, string &why)
    {
        // A fresh interface: most likely there is nothing, and the load itself finds out.
        if (kernel.root() != nullptr || read_state(name_, "start")) return plan_careful_rules(why);
        rule_input_ = chains_.load_input(wanted_.rule_texts(), nullptr);
        optimistic_ = true;
        return true;
    }

    // What the mangle table holds; nothing, with a note, for a dry run by somebody who may not ask.
    std::optional<lines> list_rules(string &why)
    {
        if (!options_.dry_run || ::geteuid() == 0) return chains_.list(why);
        out_.notes.emplace_back("rules not looked at: that takes root");
        return lines{};
    }

    bool plan_careful_rules(string &why)
    {
        optimistic_ = false;
        const auto present = list_rules(why);
        if (!present) return false;
        const lines texts = wanted_.rule_texts();
        rule_input_ = chains_.load_input(texts, &*present);
        if (present->empty()) return true;
        const auto expected = chains_.expected(texts);
        // Without a namespace to try them in: what was there when the same was applied last
        remember_rules_ = !expected;
        const auto remembered = read_state(name_, "rules");
        const bool same_script = read_state(name_, "start") == script_;
        if (expected ? *expected == *present
                     : same_script && remembered && lines_of(*remembered) == *present)
            rule_input_.clear();
        return true;
    }

    void list_commands(const lines &rule_lines)
    {
        out_.commands.clear();
        for (const command &c : plan_.commands) out_.commands.push_back("tc " + c.text);
        out_.tc_commands = out_.commands.size();
        for (const string &line : rule_lines)
            if (begins(line, "-") || begins(line, ":"))
                out_.commands.push_back("iptables-restore: " + line);
        if (set_queue_)
            out_.commands.push_back(format("ifconfig %s txqueuelen %u", name_.c_str(),
                                           iface_.param.pfifo_fast.queue_len));
    }

    bool run_tc()
    {
        if (plan_.commands.empty()) return true;
        string input;
        for (const command &c : plan_.commands) input += c.text + "\n";
        const run_result tc = run({"tc", "-batch", "-"}, input);
        if (tc.ok()) return true;
        // "Command failed -:12"
        const std::size_t at = tc.err.rfind("Command failed -:");
        const std::size_t number =
            at == string::npos ? 0 : std::strtoul(tc.err.c_str() + at + 17, nullptr, 10);
        out_.error = tc.missing ? "tc is missing" : "tc: " + brief(tc.err.substr(0, at));
        if (number >= 1 && number <= plan_.commands.size())
            blame("tc ", plan_.commands[number - 1]);
        return false;
    }

    bool load_rules()
    {
        if (rule_input_.empty()) return true;
        run_result loaded = chains_.restore(rule_input_);
        string why;
        constexpr int busy = 4;  // its exit status when somebody else kept the lock
        if (!loaded.ok() && !loaded.missing && loaded.status != busy && optimistic_ &&
            plan_careful_rules(why)) {
            list_commands(lines_of(rule_input_));
            if (!rule_input_.empty()) loaded = chains_.restore(rule_input_);
            if (rule_input_.empty()) return true;
        }
        if (loaded.ok()) return true;
        restore_missing_ = loaded.missing;
        if (loaded.missing) {
            const char *what = is_on_path("iptables") ? "iptables-restore" : "iptables";
            out_.error = string(what) + " is missing";
            return false;
        }
        blame_rule(loaded.err);
        out_.error = "iptables-restore: " + without_opening(loaded.err);
        return false;
    }

    // Who said it, and a line of an input that nobody sees, help nobody.
    string without_opening(const string &said) const
    {
        const bool refused =
            said.find("line ") != string::npos && said.find(" failed") != string::npos;
        if (refused && !out_.failed_command.empty()) return "refused";
        const std::size_t at = said.find(": ");
        return brief(at == string::npos ? said : said.substr(at + 2));
    }

    void blame(const char *program, const command &c)
    {
        out_.failed_command = program + c.text.substr(0, c.text.find_last_not_of(' ') + 1);
        out_.failed_line = c.line;
    }

    // iptables-restore names a line of its input, or that of COMMIT when it was the kernel.
    void blame_rule(const string &said)
    {
        const std::size_t at = said.find("line");
        const std::size_t digits = said.find_first_of("0123456789", at);
        const lines input = lines_of(rule_input_);
        if (at != string::npos && digits != string::npos) {
            const std::size_t number = std::strtoul(said.c_str() + digits, nullptr, 10);
            if (number >= 1 && number <= input.size())
                for (const command &c : wanted_.rules)
                    if (begins(c.text, "-A ") && c.text == input[number - 1])
                        return blame("iptables -t mangle ", c);
        }
        if (const auto index = chains_.first_refused(wanted_.rule_texts()))
            blame("iptables -t mangle ", wanted_.rules[*index]);
    }

    bool queue_is_set()
    {
        if (!set_queue_ || set_queue_len(name_, iface_.param.pfifo_fast.queue_len)) return true;
        out_.error = format("cannot set the queue length: %s", std::strerror(errno));
        return false;
    }

    // What the kernel now holds is what was meant: a missing part is a failure, a number that the
    // kernel has cut to its own limits is worth a word.
    bool verify()
    {
        string why;
        const auto kernel = read_kernel(name_, why);
        if (!kernel) {
            out_.error = why;
            return false;
        }
        for (const difference &d : compare(iface_, *kernel)) {
            const string text =
                d.handle == 0 ? d.text : format("class 1:%x: %s", d.handle, d.text.c_str());
            if (d.what == scope::tree) {
                out_.error = "the kernel does not hold what it was given: " + text;
                return false;
            }
            out_.notes.push_back("the kernel has its own mind: " + text);
        }
        return true;
    }

    // ---- By the script --------------------------------------------------------------------------

    void fall_back()
    {
        out_.notes.push_back(out_.error + ": ran the script instead");
        out_.error.clear();
        apply_script(true);
    }

    // begun: there is something to take back.
    void apply_script(bool begun = false)
    {
        const auto give_up = [&](const string &error) {
            fail(error);
            if (begun) roll_back();
        };
        out_.by_script = true;
        out_.result = outcome::kind::built;
        out_.commands = {start_script};
        out_.tc_commands = 0;
        if (options_.dry_run) return;
        string why;
        if (!is_on_path("tc")) return give_up("tc is missing");
        // The script's own iptables calls wait without an end: not before the lock was free.
        if (!read_kernel(name_, why) || !chains_.list(why)) return give_up(why);
        if (!write_start_script(policy_, name_))
            return give_up(format("cannot write %s", start_script));
        const run_result result = run({start_script}, "", script_seconds);
        if (result.missing) return give_up(format("cannot run %s", start_script));
        if (!verify() || !rules_are_there(why)) {
            if (out_.error.empty()) out_.error = why;
            if (!result.err.empty()) out_.error += "; it said: " + brief(result.err);
            roll_back();
            return;
        }
        keep_state();
    }

    // The script tells of no failure, so its rules are counted.
    bool rules_are_there(string &why)
    {
        const auto present = chains_.list(why);
        if (!present) return false;
        std::size_t wanted = 2;  // the two chains
        for (const command &c : wanted_.rules)
            if (begins(c.text, "-A ")) ++wanted;
        if (present->size() == wanted) return true;
        why = format("%zu of %zu rules, jumps and chains are in the mangle table", present->size(),
                     wanted);
        return false;
    }

    // ---- Ends -----------------------------------------------------------------------------------

    outcome fail(const string &why)
    {
        out_.result = outcome::kind::failed;
        out_.error = why;
        return out_;
    }

    void roll_back()
    {
        out_.result = outcome::kind::failed;
        string why;
        const auto kernel = read_kernel(name_, why);
        bool clean = kernel.has_value();
        if (kernel && kernel->root() != nullptr) {
            const run_result tc = run({"tc", "qdisc", "del", "dev", name_, "root"});
            why = "tc: " + brief(tc.err);
            const auto after = read_kernel(name_, why);
            clean = after && after->root() == nullptr;
        }
        // Where there is no iptables there is no chain of ours either.
        if (is_on_path("iptables")) clean = chains_.remove(why) && clean;
        remove_state(name_);
        out_.restored = clean;
        if (!clean) out_.notes.push_back("could not be taken back whole: " + why);
    }

    void keep_state()
    {
        string rules;
        string why;
        if (remember_rules_)
            for (const string &line : chains_.list(why).value_or(lines{})) rules += line + "\n";
        if (write_state(name_, "start", script_) && write_state(name_, "toml", policy_text_) &&
            (rules.empty() || write_state(name_, "rules", rules)))
            return;
        remove_state(name_);  // an old one would be believed
        out_.notes.push_back(
            format("cannot write to %s: status will not know the policy", state_folder));
    }

    const policy &policy_;
    const policy_interface &iface_;
    const string &policy_text_;
    const apply_options &options_;
    string name_;
    string script_;
    start_commands wanted_;
    rule_chains chains_;
    std::vector<tree_class> tree_ = tree_of(iface_);
    tree_plan plan_;
    string rule_input_;        // "": the rules are there
    bool optimistic_ = false;  // it takes it that no chain is there
    bool remember_rules_ = false;
    bool set_queue_ = false;
    bool restore_missing_ = false;
    outcome out_;
};

}  // namespace

std::vector<outcome> apply_policy(const policy &p, const string &text, const rendering &texts,
                                  const apply_options &o)
{
    std::vector<outcome> all;
    const uninterrupted section;
    for (std::size_t i = 0; i < p.interfaces.size(); ++i) {
        all.push_back(applier(p, p.interfaces[i], text, texts.interfaces[i].start, o).apply());
        if (all.back().result == outcome::kind::failed) break;
    }
    return all;
}

std::vector<outcome> stop_policy(const policy &p, const rendering &texts, const apply_options &o)
{
    std::vector<outcome> all;
    const uninterrupted section;
    const string none;
    for (std::size_t i = 0; i < p.interfaces.size(); ++i)
        all.push_back(applier(p, p.interfaces[i], none, texts.interfaces[i].start, o).stop());
    return all;
}

apply_lock::apply_lock(unsigned wait)
{
    error_ = make_state_folder();
    if (!error_.empty()) return;
    const string path = string(state_folder) + "/lock";
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd_ < 0) {
        error_ = format("cannot open %s: %s", path.c_str(), std::strerror(errno));
        return;
    }
    const timespec pause{0, 50000000};
    for (unsigned tries = wait * 20;; --tries) {
        if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) return;
        if (tries == 0) break;
        (void)::nanosleep(&pause, nullptr);
    }
    error_ = format("another mordel is at work and holds %s; waited %u s", path.c_str(), wait);
}

apply_lock::~apply_lock()
{
    if (fd_ >= 0) (void)::close(fd_);
}

std::optional<string> applied_policy(const string &ifname) { return read_state(ifname, "toml"); }

std::vector<string> applied_interfaces() { return state_names(); }

}  // namespace tool
