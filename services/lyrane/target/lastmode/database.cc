/* Getting at the database: the service's configuration object, and the wait for the status. */
#include "lastmode.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/pps.h>
#include <veloran/slog.h>
#include <veloran/sqldb.h>

#include "database_status.h"
#include "msglog.h"
#include "schema_text.h"

static sqldb_service* embedded; /* [main] */

static constexpr char CONFIGURATION[] = "/pps/veloran/sqldb/config/lyrane?nopersist";
static constexpr char STATUS[] = "/pps/veloran/sqldb/status/.all?delta,wait";

/* Start-up goes on without a database that does not become valid; music must not wait for it. */
static constexpr time_t VALID_WAIT_SECONDS = 10;
static constexpr int OPEN_AGAIN_MS = 5000;
static constexpr int READ_AGAIN_MS = 1000;

static int32_t creation_failed(void) noexcept {
    msglog(3, "Error: database creation failed ");
    return -1;
}

/* The configuration text; null when there is none. A line feed in the path would begin a line of
 * its own. The caller frees it. */
static char* configuration_text(const control_block* control) noexcept {
    char* text = nullptr;
    if (strchr(control->database, '\n') != nullptr ||
        asprintf(&text,
                 "Filename::%s\nSchemaFile::%s\nDataSchemaFile::%s\nClientSchemaFile::%s\n"
                 "BackupDir::%s\nCompression::diocopy",
                 control->database, "/db/lyrane.sql", "/db/lyrane_data.sql",
                 "/db/lyrane_client.sql", "/var/db/backup/,/var/db/backup2") < 0) {
        return nullptr;
    }
    return text;
}

/* Sleeps, or until the deadline; false when that has come. */
static bool pause_before(int deadline_fd, int milliseconds) noexcept {
    pollfd deadline = {deadline_fd, POLLIN, 0};
    return poll(&deadline, 1, milliseconds) == 0;
}

static pps_object* open_again(int deadline_fd) noexcept {
    for (;;) {
        pps_object* status = pps_open(STATUS, O_RDONLY, 0);
        if (status != nullptr) {
            return status;
        }
        msglog(3, "can't open pps/veloran/sqldb/status/.all");
        if (!pause_before(deadline_fd, OPEN_AGAIN_MS)) {
            return nullptr;
        }
    }
}

/* Reads until the database is valid or the deadline has come; takes the status object over. */
static int32_t await_valid(pps_object* status, int deadline_fd) noexcept {
    static char text[65536]; /* [main] only */
    size_t held = 0;
    int32_t result = -1;
    while (status != nullptr) {
        const ssize_t got = pps_read(status, text + held, sizeof text - held, deadline_fd);
        if (got < 0) {
            if (errno == ECANCELED) {
                break;
            }
            held = 0;
            if (errno == EBADF || errno == ENOENT) {
                pps_close(status);
                status = open_again(deadline_fd);
            } else if (!pause_before(deadline_fd, READ_AGAIN_MS)) {
                break;
            }
            continue;
        }
        held += static_cast<size_t>(got);
        if (held == sizeof text) { /* no status is that long */
            held = 0;
            continue;
        }
        const database_status now = database_read_status(text, held);
        if (now == database_status::valid) {
            result = 0;
            break;
        }
        /* Our own service side says this of the present configuration, so nothing better comes;
         * another one's may be of an earlier one. */
        if (now == database_status::unusable && embedded != nullptr) {
            break;
        }
        held = 0;
    }
    pps_close(status);
    return result;
}

static int make_deadline(void) noexcept {
    const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    const itimerspec when = {{}, {VALID_WAIT_SECONDS, 0}};
    if (fd >= 0) {
        (void)timerfd_settime(fd, 0, &when, nullptr);
    }
    return fd;
}

/* What the database service says is a line of ours; nothing of it may end the service. */
static void database_says(void* unused, int32_t severity, const char* text) noexcept {
    (void)unused;
    msglog(severity > 3 ? severity : 3, "%s", text);
}

void lastmode_database_start(const control_block* control) noexcept {
    (void)pps_unlink("/pps/veloran/sqldb/config/lyrane");
    const vel_text text(configuration_text(control));
    const sqldb_service_options options = {nullptr,  database_says, nullptr,
                                           "lyrane", text.get(),    SCHEMA};
    embedded = sqldb_service_start(&options);
    if (embedded == nullptr && errno != EEXIST) {
        msglog(3, "The database service cannot be started: %s", msglog_error_text(errno));
    }
}

void lastmode_database_stop(void) noexcept {
    sqldb_service_stop(embedded);
    embedded = nullptr;
}

extern "C" {

int32_t database_initialize(control_block* control) noexcept {
    msglog(6, "backup database initializes ...");
    pps_object* configuration = pps_open(CONFIGURATION, O_WRONLY | O_CREAT | O_TRUNC, 0777);
    if (configuration == nullptr) {
        return creation_failed();
    }
    const vel_text text(configuration_text(control));
    if (text == nullptr) {
        pps_close(configuration);
        return creation_failed();
    }
    if (pps_write(configuration, text.get(), strlen(text.get()) + 1) != 0) {
        msglog(3, "database_initialize failed");
        pps_close(configuration);
        return -1;
    }
    pps_object* status = pps_open(STATUS, O_RDONLY, 0);
    if (status == nullptr) {
        msglog(3, "sqldb not running... exiting");
        msglog(3, "database_initialize failed");
        pps_close(configuration);
        return -1;
    }
    const vel_fd deadline(make_deadline());
    const int32_t result = await_valid(status, deadline.value);
    pps_close(configuration);
    if (result != 0) {
        msglog(3, "database_initialize failed");
    }
    return result;
}
}
