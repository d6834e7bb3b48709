// SPDX-License-Identifier: MIT
// Owns the command line of mordel: the options, and the way of each command through the stations.
// Only this file and watch.cpp write to standard output and error.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <nlohmann/json.hpp>
#include <optional>

#include "apply.h"
#include "guards.h"
#include "lock.h"
#include "memory_reserve.h"
#include "policy_folder.h"
#include "policy_read.h"
#include "render.h"
#include "report.h"
#include "show.h"
#include "state.h"
#include "status.h"
#include "stop.h"
#include "text.h"
#include "watch.h"

using namespace tool;
using std::string;
using json = nlohmann::ordered_json;

namespace {

enum exit_status {
    done = 0,
    failed = 1,
    refused = 2,     // a bad policy or command line
    unreported = 3,  // done, but the report could not be written
};

// The options of all commands: each command sets its own and leaves the rest at these values.
struct options {
    string file;
    string interface;
    kernel_kind kernel = kernel_kind::mainline;
    bool json = false;
    bool rules_only = false;
    bool stop = false;
    bool dot = false;
    double seconds = 1;
    apply_options apply;
    watch_options watch;
};

// A message may quote a name or a text of the kernel's: no escape sequence gets to the terminal.
void complain(const string &what) { std::fprintf(stderr, "mordel: %s\n", harmless(what).c_str()); }

// ---- Policies -----------------------------------------------------------------------------------

// FILE:LINE:COLUMN: as compilers write it, so that editors jump to the place.
void print(const string &file, const diagnostics &found)
{
    for (const diagnostic &d : found.sorted())
        std::fprintf(stderr, "%s:%u:%u: %s%s\n", harmless(file).c_str(), d.at.line, d.at.column,
                     d.warning ? "warning: " : "", d.text.c_str());
}

struct loaded {
    string text;
    policy rules;
    diagnostics found;
};

// The policy of o.file, its errors in `found`; none, after a message, when reading fails.
std::optional<loaded> load(const options &o)
{
    string why;
    std::optional<string> text = read_policy_file(o.file, why);
    if (!text) {
        complain(why);
        return std::nullopt;
    }
    loaded l;
    l.rules = read_policy(*text, o.kernel, l.found);
    l.text = std::move(*text);
    return l;
}

// The policy of o.file without errors; none, after its errors are shown. With o.interface, the
// policy's other interfaces are left out.
std::optional<loaded> load_good(const options &o)
{
    std::optional<loaded> l = load(o);
    if (!l) return std::nullopt;
    print(o.file, l->found);
    if (l->found.failed()) return std::nullopt;
    if (o.interface.empty()) return l;
    std::erase_if(l->rules.interfaces,
                  [&](const policy_interface &iface) { return iface.name != o.interface; });
    if (!l->rules.interfaces.empty()) return l;
    complain(harmless(o.file) + " has no interface " + tool::quoted(o.interface));
    return std::nullopt;
}

// The library's texts of a policy; none, after a message, when the library refuses the policy.
std::optional<rendering> texts_of(const policy &p)
{
    rendering texts = tool::render(p);
    if (texts.refused.empty()) return texts;
    complain("the library refused " + texts.refused);
    return std::nullopt;
}

// By the locale's name alone: small routers have no locale data for setlocale to find.
// The first variable that is set and not empty decides, as in setlocale.
bool is_utf8_locale()
{
    for (const char *variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char *value = std::getenv(variable);
        if (value == nullptr || *value == '\0') continue;
        return ::strcasestr(value, "UTF-8") != nullptr || ::strcasestr(value, "utf8") != nullptr;
    }
    return false;
}

look look_of_stdout()
{
    // NO_COLOR: the custom is that any text but an empty one forbids colours.
    const char *no_color = std::getenv("NO_COLOR");
    look how;
    how.colour = ::isatty(STDOUT_FILENO) == 1 && (no_color == nullptr || *no_color == '\0');
    how.utf8 = is_utf8_locale();
    return how;
}

// Whether all of a text got to standard output; errno says why not.
bool wrote(const string &text)
{
    // The flush is checked too: on a full disk fwrite succeeds into the buffer and only it fails.
    return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
           std::fflush(stdout) == 0;
}

int write_out(const string &text, int status = done)
{
    if (wrote(text)) return status;
    complain(string("cannot write: ") + std::strerror(errno));
    return failed;
}

// replace: a file name may be no UTF-8, for which dump would throw otherwise.
// The value ends here: its destructor allocates, and must not fail behind a written report.
string dumped(json &&taken)
{
    const json value = std::move(taken);
    return value.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

// ---- check, render, show ------------------------------------------------------------------------

int check(const options &o)
{
    const std::optional<loaded> l = load(o);
    if (!l) return refused;
    const int status = l->found.failed() ? refused : done;
    // As JSON all goes to standard output, and a bad policy still ends with status 2.
    if (!o.json) {
        print(o.file, l->found);
        return status;
    }
    json out = {{"file", o.file}, {"ok", status == done}, {"diagnostics", json::array()}};
    for (const diagnostic &d : l->found.sorted())
        out["diagnostics"].push_back({{"severity", d.warning ? "warning" : "error"},
                                      {"line", d.at.line},
                                      {"column", d.at.column},
                                      {"message", d.text}});
    return write_out(dumped(std::move(out)), status);
}

int render(const options &o)
{
    const auto l = load_good(o);
    if (!l) return refused;
    const auto texts = texts_of(l->rules);
    if (!texts) return failed;
    string all;
    for (const interface_texts &one : texts->interfaces)
        all += o.stop ? one.stop : o.rules_only ? one.rules : one.start;
    return write_out(all);
}

int show(const options &o)
{
    const auto l = load_good(o);
    if (!l) return refused;
    return write_out(o.json  ? show_json(l->rules)
                     : o.dot ? show_dot(l->rules)
                             : show_tree(l->rules, look_of_stdout()));
}

// ---- apply, stop --------------------------------------------------------------------------------

// Complaints go to standard error also beside --json: a person behind a program sees them.
int report(const std::vector<outcome> &all, const options &o)
{
    int status = done;
    string text;
    json out = {{"ok", true}, {"dry_run", o.apply.dry_run}, {"interfaces", json::array()}};
    for (const outcome &r : all) {
        if (r.failed) {
            status = failed;
            out["ok"] = false;
        }
        for (const string &what : complaints(r)) complain(what);
        out["interfaces"].push_back(outcome_json(r));
        // A failed interface has had its word on standard error.
        if (!r.failed) text += outcome_text(r, o.apply.dry_run);
    }
    const string whole = o.json ? dumped(std::move(out)) : text;
    if (status != done || o.apply.dry_run) return write_out(whole, status);
    // A status of its own: a caller must not take what is in force for a failed apply.
    if (wrote(whole)) return done;
    complain(string("done, but cannot write the report: ") + std::strerror(errno));
    return unreported;
}

// Takes the lock that serialises apply and stop; false, after a message, when another mordel keeps
// it or the folder is not to be trusted.
bool take_lock(unsigned wait, std::optional<file_lock> &lock)
{
    const state_folder state;
    string error = state.make();
    if (error.empty()) error = lock.emplace(state.path() + "/lock", wait).error();
    if (!error.empty()) complain(error);
    return error.empty();
}

int apply_or_stop(const options &o, bool stopping)
{
    const auto l = load_good(o);
    if (!l) return refused;
    if (::geteuid() != 0 && !o.apply.dry_run) {
        complain("this takes root; --dry-run shows what would be done");
        return failed;
    }
    const auto texts = texts_of(l->rules);
    if (!texts) return failed;
    // A dry run changes nothing and takes no lock: without root the lock file cannot be opened.
    std::optional<file_lock> lock;
    if (!o.apply.dry_run && !take_lock(o.apply.wait, lock)) return failed;
    return report(stopping ? stop_policy(l->rules, {o.apply.dry_run, o.apply.wait})
                           : apply_policy(l->rules, l->text, *texts, o.apply),
                  o);
}

// ---- status -------------------------------------------------------------------------------------

// The policy to compare an interface with: the given one, or else the one that was applied last.
// Holds this interface alone, or none when neither policy has it.
policy policy_of(const string &name, const std::optional<loaded> &given)
{
    policy p;
    if (given) {
        p = given->rules;
    } else if (const auto text = state_folder().read(name).policy) {
        diagnostics ignored;  // apply has shown its warnings
        p = read_policy(*text, kernel_kind::vendor, ignored);
    }
    std::erase_if(p.interfaces, [&](const policy_interface &iface) { return iface.name != name; });
    return p;
}

// None, after a message, when the kernel or the library gives no answer about the interface
std::optional<interface_status> status_of(const string &name, const options &o,
                                          const std::optional<loaded> &given)
{
    const policy p = policy_of(name, given);
    const auto texts = texts_of(p);
    if (!texts) return std::nullopt;
    std::optional<wanted> w;
    if (!p.interfaces.empty()) {
        const string &script = texts->interfaces.front().start;
        w.emplace(wanted{p.interfaces.front(), script, parse_start_script(script, name)});
        if (!w->script.error.empty()) {
            // A fault of ours: a form that the library writes and start_script.cpp does not know.
            complain(name + ": its start script: " + w->script.error);
            return std::nullopt;
        }
    }
    string why;
    auto s = look_at(name, w ? &*w : nullptr, {o.seconds, o.apply.wait}, why);
    if (!s) complain(name + ": " + why);
    return s;
}

int status(const options &o)
{
    std::optional<loaded> given;
    if (!o.file.empty() && !(given = load_good(o))) return refused;
    // The named interface, or those of the given policy, or all with a remembered policy
    std::vector<string> names;
    if (!o.interface.empty())
        names.push_back(o.interface);
    else if (given)
        for (const policy_interface &iface : given->rules.interfaces) names.push_back(iface.name);
    else
        names = state_folder().interfaces();
    if (names.empty()) {
        complain("nothing was applied; name an interface, or a policy with --policy");
        return failed;
    }
    // An interface that gives no answer fails the command but does not hide the others.
    int result = done;
    std::vector<interface_status> all;
    for (const string &name : names) {
        if (auto s = status_of(name, o, given))
            all.push_back(std::move(*s));
        else
            result = failed;
    }
    string text;
    for (const interface_status &s : all) text += status_text(s, look_of_stdout());
    return write_out(o.json ? status_json(all) : text, result);
}

// ---- The command line ---------------------------------------------------------------------------

void add_kernel(CLI::App *command, options &o)
{
    command
        ->add_option_function<string>(
            "--kernel",
            [&o](const string &kind) {
                o.kernel = kind == "vendor" ? kernel_kind::vendor : kernel_kind::mainline;
            },
            "Which kernel is meant: warn of what mainline ones refuse (the default), or not")
        ->type_name("KIND")
        ->check(CLI::IsMember({"mainline", "vendor"}));
}

CLI::App *add_command(CLI::App &app, options &o, const char *name, const char *does,
                      const char *examples)
{
    CLI::App *command = app.add_subcommand(name, does);
    command->add_option("FILE", o.file, "The policy; - is standard input")
        ->required()
        ->type_name("");
    add_kernel(command, o);
    command->footer(string("Examples:\n") + examples);
    return command;
}

// `mordel stop --interface "$IF"` with IF unset must be refused: an empty name would mean all
// interfaces.
string not_empty(const string &text) { return text.empty() ? "an empty name" : ""; }

void add_interface(CLI::App *command, options &o)
{
    command->add_option("--interface", o.interface, "This interface of the policy alone")
        ->type_name("NAME")
        ->check(not_empty);
}

void add_json(CLI::App *command, options &o)
{
    command->add_flag("--json", o.json, "As JSON, for a program");
}

void add_wait(CLI::App *command, options &o)
{
    command->add_option("--wait", o.apply.wait, "Seconds to wait for each lock (10)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0U, 3600U));
}

void add_check(CLI::App &app, options &o)
{
    CLI::App *c =
        add_command(app, o, "check", "Say all that is wrong with a policy",
                    "  mordel check home.toml\n  mordel check --kernel vendor home.toml\n");
    add_json(c, o);
}

void add_render(CLI::App &app, options &o)
{
    CLI::App *c =
        add_command(app, o, "render", "Print the scripts of a policy; nothing is written elsewhere",
                    "  mordel render home.toml --interface eth0 > start.sh\n"
                    "  mordel render home.toml --stop\n");
    add_interface(c, o);
    CLI::Option *rules = c->add_flag("--rules-only", o.rules_only, "The rule scripts");
    c->add_flag("--stop", o.stop, "The stop scripts")->excludes(rules);
}

void add_show(CLI::App &app, options &o)
{
    CLI::App *c = add_command(
        app, o, "show", "Show the tree, its rates, and the rules that lead to each class",
        "  mordel show home.toml\n  mordel show --dot home.toml | dot -Tsvg > home.svg\n");
    add_interface(c, o);
    CLI::Option *dot = c->add_flag("--dot", o.dot, "As a graph for Graphviz");
    c->add_flag("--json", o.json, "As JSON, for a program")->excludes(dot);
}

void add_apply(CLI::App &app, options &o)
{
    CLI::App *c = add_command(app, o, "apply", "Bring a policy into the kernel (root)",
                              "  mordel apply --dry-run home.toml\n  mordel apply home.toml\n");
    add_interface(c, o);
    add_json(c, o);
    add_wait(c, o);
    c->add_flag("--dry-run", o.apply.dry_run, "Show what would be done, and do nothing");
    c->add_flag("--script", o.apply.script, "Run the start script as it stands");
}

void add_stop(CLI::App &app, options &o)
{
    CLI::App *c =
        add_command(app, o, "stop", "Put the interfaces of a policy back on their default (root)",
                    "  mordel stop home.toml\n");
    add_interface(c, o);
    add_json(c, o);
    add_wait(c, o);
    c->add_flag("--dry-run", o.apply.dry_run, "Show what would be done, and do nothing");
}

void add_status(CLI::App &app, options &o)
{
    CLI::App *c = app.add_subcommand("status", "Show the kernel's live classes beside the policy");
    c->add_option("NAME", o.interface, "An interface; else all that a policy was applied to")
        ->type_name("")
        ->check(not_empty);
    c->add_option("--policy", o.file, "Beside this policy, not the one applied last")
        ->type_name("FILE");
    c->add_option("--interval", o.seconds, "Seconds over which rates are taken (1)")
        ->type_name("SECONDS")
        // CLI::Range would let "nan" pass, which is neither below 0.1 nor above 60.
        ->check([](const string &text) -> string {
            const auto seconds = split_quantity(text);
            const bool good =
                seconds && seconds->unit.empty() && seconds->value >= 0.1 && seconds->value <= 60;
            return good ? "" : "an interval is 0.1 to 60 seconds";
        });
    add_kernel(c, o);
    add_json(c, o);
    c->footer("Examples:\n  mordel status\n  mordel status eth0 --json\n");
}

void add_watch(CLI::App &app, options &o)
{
    CLI::App *c = app.add_subcommand("watch", "Show interfaces' bandwidth until q is pressed");
    c->add_option("NAME", o.watch.names, "Interfaces")->required()->type_name("...");
    c->add_option("--interval", o.watch.interval, "Seconds between samples (1)")
        ->type_name("SECONDS")
        // The monitor keeps its interval in a byte, where 0 works as 1.
        ->check(CLI::Range(1U, 255U));
    c->add_option("--count", o.watch.count, "End after so many samples")
        ->type_name("N")
        ->check(CLI::Range(1U, 4294967295U));
    c->add_flag("--json", o.watch.json, "As JSON, an object a line");
    c->footer("Examples:\n  mordel watch eth0 wlan0\n  mordel watch --count 10 eth0\n");
}

// A command: add declares its options, run does the work and returns the exit status.
struct subcommand {
    const char *name;
    void (*add)(CLI::App &, options &);
    int (*run)(const options &);
};

constexpr subcommand commands[] = {
    {"check", add_check, check},
    {"render", add_render, render},
    {"show", add_show, show},
    {"apply", add_apply, [](const options &o) { return apply_or_stop(o, false); }},
    {"stop", add_stop, [](const options &o) { return apply_or_stop(o, true); }},
    {"status", add_status, status},
    {"watch", add_watch, [](const options &o) { return tool::watch(o.watch, look_of_stdout()); }},
};

const subcommand *find_command(const string &name)
{
    for (const subcommand &c : commands)
        if (name == c.name) return &c;
    return nullptr;
}

// Before main: the option library's globals allocate too. 101 is the first place that a program may
// have.
__attribute__((constructor(101))) void prepare_memory() { end_without_memory(); }

// What a parent may have left to us, and nobody here expects
void start_clean()
{
    // Ignored, as daemons do it, SIGCHLD leaves no child to wait for: every tc would seem to fail.
    (void)std::signal(SIGCHLD, SIG_DFL);
    // `mordel show | head` ends without a message.
    (void)std::signal(SIGPIPE, SIG_DFL);
    // A file over the limit of ulimit -f fails a write then, and does not end us halfway.
    (void)std::signal(SIGXFSZ, SIG_IGN);
    const sigset_t none = signals({});
    (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace

int main(int argc, char **argv)
try {
    start_clean();
    // Started with descriptor 0, 1 or 2 closed? Fill it with /dev/null, or the next file we open
    // gets that number and our output is written into it.
    for (int fd = 0; fd < 3; ++fd)
        if (::fcntl(fd, F_GETFD) < 0) (void)::open("/dev/null", O_RDONLY);
    options o;
    CLI::App app("Shapes a router's interfaces by a policy file.", "mordel");
    app.require_subcommand(1);
    app.set_version_flag("--version", "mordel " MORDEL_VERSION);
    app.footer("Exit status: 0 done, 1 failed, 2 a bad policy or command line,\n"
               "3 done, but the report could not be written.\n"
               "mordel COMMAND --help tells of each command.");
    // Only the asked command's options are declared: those of all seven take some time to set up.
    // Without a command (--help, --version) all are, for the list of commands.
    const subcommand *asked = argc > 1 ? find_command(argv[1]) : nullptr;
    if (asked == nullptr && argc > 1 && argv[1][0] != '-') {
        complain("no command is called " + tool::quoted(argv[1]) + "; mordel --help names them");
        return refused;
    }
    for (const subcommand &c : commands)
        if (asked == nullptr || asked == &c) c.add(app, o);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        // CLI11 has statuses of its own above 100; only 0 (--help, --version) is kept.
        return app.exit(e) == 0 ? done : refused;
    }
    return find_command(app.get_subcommands().front()->get_name())->run(o);
} catch (const std::bad_alloc &) {
    std::fprintf(stderr, "mordel: out of memory\n");
    return failed;
} catch (const std::exception &e) {
    std::fprintf(stderr, "mordel: %s\n", e.what());
    return failed;
}
