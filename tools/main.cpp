// SPDX-License-Identifier: MIT
// Owns the command line of mordel: which commands there are, and the options of each.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <new>

#include "commands.h"
#include "memory_reserve.h"
#include "output.h"
#include "process.h"
#include "text.h"

using namespace tool;
using std::string;

namespace {

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

void add_dry_run(CLI::App *command, options &o)
{
    command->add_flag("--dry-run", o.apply.dry_run, "Show what would be done, and do nothing");
}

void add_transaction(CLI::App *c, options &o, CLI::Option *boot)
{
    c->add_flag("--keep-going", o.apply.keep_going,
                "Each interface for itself: one that fails is taken back alone");
    c->add_option("--wait-interface", o.apply.wait_interface,
                  "Seconds to wait for interfaces that are not there yet (0)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0U, 3600U));
    CLI::Option *prune =
        c->add_flag("--prune", o.prune, "Take interfaces down that have gone from the policy");
    c->add_option("--confirm", o.apply.confirm,
                  "Take all back after so many seconds, unless mordel confirm comes before")
        ->type_name("SECONDS")
        ->check(CLI::Range(1U, 86400U))
        ->excludes(prune)
        ->excludes(boot);
}

void add_apply(CLI::App &app, options &o)
{
    CLI::App *c = app.add_subcommand("apply", "Bring a policy into the kernel (root)");
    CLI::Option *file =
        c->add_option("FILE", o.file, "The policy; - is standard input")->type_name("");
    add_kernel(c, o);
    add_interface(c, o);
    add_json(c, o);
    add_wait(c, o);
    add_dry_run(c, o);
    CLI::Option *boot = c->add_flag("--boot", o.boot,
                                    "Apply the saved policies, /etc/mordel/*.toml, each for itself")
                            ->excludes(file);
    add_transaction(c, o, boot);
    c->add_flag("--save", o.save, "Keep the policy in /etc/mordel, for the next boot")
        ->excludes(boot);
    c->add_flag("--script", o.apply.script, "Run the start script as it stands");
    c->callback([&o] {
        if (o.file.empty() && !o.boot) throw CLI::RequiredError("FILE, or --boot,");
        if (o.save && (o.file == "-" || !safe_name(o.file.substr(o.file.rfind('/') + 1)) ||
                       !o.file.ends_with(".toml")))
            throw CLI::ValidationError("--save", "takes a file whose name is NAME.toml");
    });
    c->footer("Examples:\n  mordel apply --dry-run home.toml\n"
              "  mordel apply --confirm 60 --save home.toml\n");
}

void add_stop(CLI::App &app, options &o)
{
    CLI::App *c = app.add_subcommand("stop", "Put interfaces back on their default (root)");
    CLI::Option *words =
        c->add_option("NAME", o.words, "Interfaces; or a policy file, for all of its interfaces")
            ->type_name("...");
    add_kernel(c, o);
    add_interface(c, o);
    add_json(c, o);
    add_wait(c, o);
    add_dry_run(c, o);
    c->add_flag("--all", o.all, "All that a policy was applied to")->excludes(words);
    c->callback([&o] {
        if (o.words.empty() && !o.all) throw CLI::RequiredError("NAME, FILE or --all");
    });
    c->footer("Examples:\n  mordel stop home.toml\n  mordel stop eth0 wlan0\n");
}

void add_recover(CLI::App &app, options &o)
{
    CLI::App *c = app.add_subcommand(
        "recover", "Take back an apply that was broken off or waits to be confirmed (root)");
    add_wait(c, o);
    c->footer("Examples:\n  mordel recover\n");
}

void add_confirm(CLI::App &app, options &o)
{
    CLI::App *c = app.add_subcommand("confirm", "Keep what apply --confirm has applied (root)");
    add_wait(c, o);
    c->footer("Examples:\n  mordel confirm\n");
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
    {"apply", add_apply, apply},
    {"confirm", add_confirm, confirm},
    {"recover", add_recover, recover},
    {"stop", add_stop, stop},
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
    app.footer(
        "Exit status: 0 done, 1 failed, 2 a bad policy or command line, 3 done but the report"
        " could not be\nwritten, 128 and the signal's number when a signal ended it.\n"
        "mordel COMMAND --help tells of each command.");
    // Only the asked command's options are declared: those of all take some time to set up.
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
