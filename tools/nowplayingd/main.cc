// nowplayingd: decides which player may sound, on machines that have nobody else to do so.
#include <string>

#include "control.h"
#include "ctl.h"
#include "daemon_main.h"
#include "log.h"
#include "policy_file.h"
#include "server.h"

namespace {

struct arguments {
    std::string config;
    bool syslog = false;
    bool check = false;
    ctl_request request;
};

struct command {
    const char* name;
    const char* help;
    bool named;
};
constexpr command COMMANDS[] = {
    {"status", "Show who holds the focus, who waits, and all clients", false},
    {"play", "Give a client the focus and tell it to play", true},
    {"pause", "Tell a client to pause; it does not resume by itself then", true},
    {"next", "Tell a client to go to the next track", true},
    {"prev", "Tell a client to go to the previous track", true},
    {"take", "Take the focus for something that is no client, a phone for instance", true},
    {"give-back", "Give back what was taken", true},
};

void declare_ctl(CLI::App* ctl, arguments* what) {
    ctl->require_subcommand(1);
    for (const command& known : COMMANDS) {
        CLI::App* sub = ctl->add_subcommand(known.name, known.help);
        sub->callback([what, &known]() { what->request.command = known.name; });
        if (known.named) {
            sub->add_option("NAME", what->request.name, "A name, or a client's number, as in #16")
                ->required()
                ->check([](const std::string& name) {
                    return name.empty() ? std::string("it is empty") : std::string();
                });
        }
    }
    ctl->get_subcommand("status")->add_flag("--json", what->request.json,
                                            "Answer in JSON, one line");
    ctl->get_subcommand("take")
        ->add_option("--kind", what->request.kind, "The kind that it ranks as")
        ->default_val(CONTROL_DEFAULT_KIND);
}

void declare(CLI::App* app, arguments* what) {
    app->set_version_flag("--version", std::string("nowplayingd ") + LYRANE_VERSION);
    app->add_option("-c,--config", what->config, "Configuration file; default: built in");
    app->add_flag("--check", what->check, "Check the configuration file and end");
    app->add_flag("--syslog", what->syslog,
                  "Log to the system's logger instead of the standard error");
    declare_ctl(app->add_subcommand("ctl", "Ask a running arbiter"), what);
    app->require_subcommand(0, 1);
}

bool run(const CLI::App& app, const arguments& what, std::string* why) {
    if (app.got_subcommand("ctl")) {
        return ctl_run(what.request, why);
    }
    policy rules = policy_default();
    if (!what.config.empty() && !policy_file_read(what.config, &rules, why)) {
        return false;
    }
    if (what.check) {
        return true;
    }
    if (what.syslog) {
        log_to_system();
    }
    return server_run(rules, why);
}

} // namespace

int main(int argc, char** argv) {
    arguments what;
    return daemon_main(
        argc, argv, "nowplayingd", "Decides which player may sound.",
        [&what](CLI::App* app) { declare(app, &what); },
        [&what](const CLI::App& app, std::string* why) { return run(app, what, why); });
}
