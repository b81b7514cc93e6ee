// plugincheck: loads a media plug-in, exercises what the service expects of it, and reports.
#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>

#include "checks.h"
#include "runner.h"
#include "show.h"

const std::vector<check_group> check_groups = {
    {"load", checks_load},     {"life", checks_life},         {"sources", checks_sources},
    {"browse", checks_browse}, {"metadata", checks_metadata}, {"play", checks_play},
    {"order", checks_order},   {"locks", checks_locks}};

namespace {

constexpr int STATUS_FINDINGS = 1;
constexpr int STATUS_UNUSABLE = 2;

struct arguments {
    host_options host;
    std::vector<std::string> settings;
    std::vector<std::string> groups;
    int32_t limit = 60; /* seconds */
    bool json = false;
    bool verbose = false;
    bool rules = false;
};

void declare(CLI::App* app, arguments* what) {
    std::vector<std::string> names;
    for (const check_group& group : check_groups) {
        names.emplace_back(group.name);
    }
    app->set_version_flag("--version", std::string("plugincheck ") + LYRANE_VERSION);
    app->add_option("PLUGIN", what->host.library, "The plug-in's library");
    app->add_option("-s,--set", what->settings, "A setting for the plug-in; may be given again")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false);
    app->add_option("--source", what->host.source,
                    "The uid of the media source to check; default: the first")
        ->type_name("UID");
    app->add_option("--group", what->groups, "Only this group of checks; may be given again")
        ->check(CLI::IsMember(names))
        ->allow_extra_args(false);
    app->add_option("--wait", what->host.wait, "The most ms that a report may take")
        ->check(CLI::Range(1, 3600000))
        ->capture_default_str();
    app->add_option("--limit", what->limit, "The most seconds that a check may take")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    app->add_option("--loops", what->host.loops, "How often the plug-in is loaded and unloaded")
        ->check(CLI::Range(1, 10000))
        ->capture_default_str();
    app->add_flag("--json", what->json, "Report in JSON");
    app->add_flag("-v,--verbose", what->verbose, "Show what the plug-in writes");
    app->add_flag("--rules", what->rules, "Only list the checks with their rules");
}

/* Takes the settings apart, and makes the library's name a path. */
void read_settings(arguments* what) {
    for (const std::string& setting : what->settings) {
        const size_t sign = setting.find('=');
        if (sign == std::string::npos || sign == 0) {
            throw CLI::ValidationError("--set", "not KEY=VALUE: " + setting);
        }
        what->host.settings.emplace_back(setting.substr(0, sign), setting.substr(sign + 1));
    }
    if (what->host.library.empty()) {
        throw CLI::RequiredError("PLUGIN");
    }
    char path[PATH_MAX];
    if (realpath(what->host.library.c_str(), path) != nullptr) {
        what->host.library = path; /* the loader looks for a bare name elsewhere */
    }
}

/* The group is not wanted. "load" goes first always: it says whether there is a plug-in. */
bool left_out(const arguments& what, const std::string& name) {
    return name != "load" && !what.groups.empty() &&
           std::find(what.groups.begin(), what.groups.end(), name) == what.groups.end();
}

int check(const arguments& what) {
    std::vector<check_result> all;
    for (const check_group& group : check_groups) {
        if (left_out(what, group.name)) {
            continue;
        }
        const group_result result = runner_run(group, what.host, what.limit);
        if (what.verbose) {
            std::cerr << result.output << std::flush;
        }
        if (!result.unusable.empty()) {
            std::cerr << "plugincheck: " << what.host.library << ": " << result.unusable
                      << std::endl;
            return STATUS_UNUSABLE;
        }
        if (!what.json) {
            show_checks(result.checks);
        }
        all.insert(all.end(), result.checks.begin(), result.checks.end());
    }
    if (what.json) {
        show_json(what.host.library, all);
    } else {
        show_summary(all);
    }
    return show_failed(all) > 0 ? STATUS_FINDINGS : 0;
}

} // namespace

int main(int argc, char** argv) {
    (void)std::signal(SIGPIPE, SIG_IGN);
    try {
        arguments what;
        CLI::App app("Checks a media plug-in against what the service expects of it.",
                     "plugincheck");
        declare(&app, &what);
        try {
            app.parse(argc, argv);
            if (!what.rules) {
                read_settings(&what);
            }
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? 0 : STATUS_UNUSABLE;
        }
        if (what.rules) {
            show_rules();
            return 0;
        }
        return check(what);
    } catch (const std::exception& failure) {
        std::cerr << "plugincheck: " << failure.what() << std::endl;
    }
    return STATUS_UNUSABLE;
}
