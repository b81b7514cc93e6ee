// sqldbd: serves the databases of several services from a process of its own.
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <system_error>

#include <unistd.h>

#include <veloran/paths.h>
#include <veloran/process.h>
#include <veloran/slog.h>
#include <veloran/sqldb.h>

#include "daemon_main.h"
#include "notify.h"
#include "text.h"
#include "user.h"

namespace {

constexpr int32_t EVENT = 5; /* severities */
constexpr int32_t WARNING = 3;

struct arguments {
    std::string schemas;
    std::string user; /* empty: the present one */
    bool syslog = false;
};

/* Where a line goes; [main, the service side's thread] */
void say(void* user, int32_t severity, const char* text) noexcept {
    if (static_cast<const arguments*>(user)->syslog) {
        (void)slogb(0, severity, text, strlen(text));
        return;
    }
    try {
        const std::string line = "sqldbd: " + text_printable(text) + "\n";
        (void)process_write_now(STDERR_FILENO, line.data(), line.size());
    } catch (const std::exception&) {
        /* No memory for this line. */
    }
}

std::string error_text(int32_t error) {
    return std::system_category().message(error);
}

void declare(CLI::App* app, arguments* what) {
    app->set_version_flag("--version", std::string("sqldbd ") + LYRANE_VERSION);
    app->add_option("--schemas", what->schemas,
                    "Where schema files are copied from that a service expects and does not find; "
                    "default: those that were installed")
        ->type_name("DIRECTORY")
        ->check(CLI::ExistingDirectory);
    app->add_option("-U", what->user,
                    "Go on as another user, by name or by number, before anything is served")
        ->type_name("USER[:GROUP,...]");
    app->add_flag("--syslog", what->syslog,
                  "Log to the system's logger instead of the standard error");
}

/* The directory that the option names, for the service side, which would let the variable win. */
const char* schemas_of(const arguments& what) {
    if (what.schemas.empty()) {
        return nullptr;
    }
    (void)unsetenv("VELORAN_SQLDB_DEFAULTS");
    return what.schemas.c_str();
}

bool run(arguments* what, std::string* why) {
    sigset_t ends;
    sigemptyset(&ends);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&ends, number);
    }
    (void)pthread_sigmask(SIG_BLOCK, &ends, nullptr); /* in the service side's thread, too */
    user_identity user;
    const bool is_other = !what->user.empty();
    if (is_other && (!user_read(what->user, &user, why) || !user_own_roots(user, why))) {
        return false;
    }
    char reason[PATH_MAX + 128];
    if (paths_make_roots(reason, sizeof reason) != 0) {
        *why = std::string("cannot use the directory ") + reason;
        return false;
    }
    if (is_other && !user_become(user, why)) {
        return false;
    }
    if (what->syslog) {
        slog_open("sqldbd");
    }
    if (paths_umask_refused() != nullptr) {
        say(what, WARNING, "VELORAN_UMASK is no octal number up to 077; modes lose 022");
    }
    const sqldb_service_options options = {schemas_of(*what), say, what, nullptr, nullptr, nullptr};
    sqldb_service* service = sqldb_service_start(&options);
    if (service == nullptr) {
        *why = errno == EEXIST ? std::string("another process serves the databases of ")
                               : "cannot serve: " + error_text(errno) + ": ";
        *why += paths_runtime_root();
        return false;
    }
    say(what, EVENT, (std::string("serves the databases of ") + paths_runtime_root()).c_str());
    notify_manager("READY=1");
    int number = 0;
    (void)sigwait(&ends, &number);
    notify_manager("STOPPING=1");
    sqldb_service_stop(service);
    say(what, EVENT, "ends");
    return true;
}

} // namespace

int main(int argc, char** argv) {
    arguments what;
    return daemon_main(
        argc, argv, "sqldbd", "Serves the databases of several services.",
        [&what](CLI::App* app) { declare(app, &what); },
        [&what](const CLI::App&, std::string* why) { return run(&what, why); });
}
