/* The service side: one thread that follows the configuration objects. */
#include <veloran/sqldb.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <set>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/paths.h>
#include <veloran/pps.h>
#include <veloran/process.h>

#include "sqldb_place.h"
#include "sqldb_store.h"

namespace {

constexpr const char* CONFIG = "/pps/veloran/sqldb/config";
constexpr const char* STATUS = "/pps/veloran/sqldb/status";
constexpr const char* LOCK = "/dev/sqldb/.lock";
constexpr const char* LOCK_NAME = ".lock";
constexpr size_t READ_SIZE = 16384;
constexpr int32_t RETRY_MS = 1000; /* between looks at a directory that has gone */
constexpr int32_t WARNING = 3;

struct pps_closer {
    void operator()(pps_object* object) const noexcept { pps_close(object); }
};
using pps_owner = std::unique_ptr<pps_object, pps_closer>;

/* A database that was asked for. */
struct served {
    sqldb_place place;
    bool is_valid = false;
};

int32_t fail(int32_t error) {
    errno = error;
    return -1;
}

std::string below(const char* directory, const std::string& name) {
    return std::string(directory) + '/' + name;
}

/* Makes the directories above a platform path. */
int32_t make_parents(const std::string& path) {
    char real[PATH_MAX];
    return paths_resolve(path.c_str(), real, sizeof real) < 0 ? -1 : paths_make_parents(real);
}

} // namespace

struct sqldb_service {
    sqldb_reporter reporter;
    vel_fd lock;                             /* held: no other service side in this root */
    vel_fd stop;                             /* readable: the thread is to end */
    pthread_t thread = {};                   /* started last */
    pps_owner watch;                         /* the thread's from here on */
    std::string tail;                        /* of what was read: a line that is not whole yet */
    std::map<std::string, served> databases; /* by name */
    std::string own_name;                    /* of the database of this process; empty: none */
    std::string own_text;                    /* its configuration */
    const char* own_schema = nullptr;        /* the text of its schema when there is no file */
};

namespace {

void publish_status(sqldb_service* service, const std::string& name, const std::string& text) {
    const pps_owner object(
        pps_open(below(STATUS, name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    if (object == nullptr || pps_write(object.get(), text.data(), text.size()) != 0) {
        sqldb_report(service->reporter, WARNING, "cannot publish the status of database " + name);
    }
}

void withdraw(const std::string& name) {
    sqldb_place_withdraw(name);
    pps_unlink(below(STATUS, name).c_str()); /* last: who sees it go finds no name */
}

/* The present content of a configuration object, as far as it is to be believed: its words make
 * this process open, move and replace files. 0, or -1 with errno set, EPERM for a stranger's. */
int32_t read_configuration(const std::string& name, std::string* text) {
    char real[PATH_MAX];
    return paths_resolve(below(CONFIG, name).c_str(), real, sizeof real) < 0
               ? -1
               : sqldb_place_read_believed(real, text, SQLDB_PLACE_TEXT_MAX);
}

void publish_error(sqldb_service* service, const std::string& name, std::string reason) {
    sqldb_place_withdraw(name);
    for (char& letter : reason) {
        letter = letter == '\n' || letter == '\0' ? ' ' : letter;
    }
    publish_status(service, name, "Status::Error\nReason::" + reason + "\n");
}

/* Gets a database ready, or only tells its new surroundings when it is ready already. */
void serve(sqldb_service* service, served* entry, sqldb_place&& place) {
    const bool is_ready =
        entry->is_valid && entry->place.file == place.file && entry->place.schema == place.schema;
    const bool is_same = is_ready && entry->place == place;
    entry->place = std::move(place);
    if (is_same) {
        return;
    }
    const std::string& name = entry->place.name;
    std::string reason;
    if (!is_ready) {
        entry->is_valid = false;
        withdraw(name);
        if (sqldb_store_prepare(entry->place, service->reporter, &reason) != 0) {
            publish_error(service, name, reason);
            return;
        }
    }
    entry->is_valid = sqldb_place_publish(entry->place) == 0;
    if (!entry->is_valid) {
        char buffer[128];
        reason = std::string("/dev/sqldb: ") + strerror_r(errno, buffer, sizeof buffer);
        sqldb_report(service->reporter, WARNING, "database " + name + ": " + reason);
        publish_error(service, name, reason);
    } else if (!is_ready) {
        publish_status(service, name, "Status::Valid\n");
    }
}

void release(sqldb_service* service, const std::string& name) {
    if (service->databases.erase(name) != 0) {
        withdraw(name);
    }
}

/* What keeps the words of a configuration from being followed. */
void refuse(sqldb_service* service, const std::string& name, const std::string& reason) {
    sqldb_report(service->reporter, WARNING, "database " + name + ": " + reason);
    service->databases[name] = {};
    publish_error(service, name, reason);
}

/* Follows the words of a configuration. */
void follow_text(sqldb_service* service, const std::string& name, const std::string& text) {
    sqldb_place place;
    place.name = name;
    place.built_in = name == service->own_name ? service->own_schema : nullptr;
    const int32_t error = sqldb_place_parse(&place, text, true) == 0 ? 0 : errno;
    if (error == ENODATA) {
        release(service, name); /* the rest is still to be written */
    } else if (error != 0) {
        char buffer[128];
        refuse(service, name,
               std::string("the paths in the configuration: ") +
                   strerror_r(error, buffer, sizeof buffer));
    } else {
        serve(service, &service->databases[name], std::move(place));
    }
}

/* Follows what a configuration object holds now. */
void follow(sqldb_service* service, const std::string& name) {
    std::string text;
    if (name == service->own_name) {
        return; /* known better than any file tells it */
    }
    const int32_t error = read_configuration(name, &text) == 0 ? 0 : errno;
    if (error != 0 && error != EPERM) {
        release(service, name);
    } else if (service->databases.count(name) == 0 &&
               service->databases.size() >= SQLDB_SERVED_MAX) {
        sqldb_report(service->reporter, WARNING, "too many databases; not served: " + name);
    } else if (error == EPERM) {
        refuse(service, name,
               "its configuration object belongs to another user or others may write it, so it is "
               "not believed; its writer has to be this service's user or root, with a "
               "VELORAN_UMASK that takes 022");
    } else {
        follow_text(service, name, text);
    }
}

/* Follows every object that the text names, once; a line that is not whole waits in the tail. */
void follow_changes(sqldb_service* service, const char* text, size_t length) {
    service->tail.append(text, length);
    const size_t whole = service->tail.rfind('\n') + 1; /* 0 when there is none */
    const std::string lines = service->tail.substr(0, whole);
    service->tail.erase(0, whole);
    std::set<std::string> names;
    const char* at = lines.data();
    size_t left = lines.size();
    pps_line line;
    while (pps_next_line(&at, &left, &line) != 0) {
        const std::string name(line.name, line.name_length);
        if ((line.kind == '@' || line.kind == '~') && sqldb_place_is_name(name)) {
            names.insert(name);
        }
    }
    for (const std::string& name : names) {
        follow(service, name);
    }
}

/* Opens the watch, making its directory when it is missing. */
int32_t open_watch(sqldb_service* service) {
    if (make_parents(below(CONFIG, "x")) != 0) {
        return -1;
    }
    service->tail.clear();
    service->watch.reset(pps_open(below(CONFIG, ".all?delta,wait").c_str(), O_RDONLY, 0));
    return service->watch == nullptr ? -1 : 0;
}

/* Waits for a change and follows it. False when the service side is to stop. */
bool follow_next(sqldb_service* service) {
    char buffer[READ_SIZE];
    ssize_t count = -1;
    if (service->watch != nullptr) {
        count = pps_read(service->watch.get(), buffer, sizeof buffer, service->stop.value);
    }
    if (count > 0) {
        follow_changes(service, buffer, static_cast<size_t>(count));
        return true;
    }
    if (count < 0 && service->watch != nullptr && errno == ECANCELED) {
        return false;
    }
    /* The directory has gone, and all that was asked for in it. */
    std::set<std::string> names;
    for (const auto& database : service->databases) {
        names.insert(database.first);
    }
    names.erase(service->own_name);
    for (const std::string& name : names) {
        release(service, name);
    }
    if (open_watch(service) == 0) {
        return true;
    }
    pollfd stop = {service->stop.value, POLLIN, 0};
    return poll(&stop, 1, RETRY_MS) <= 0;
}

void* run(void* argument) {
    auto* service = static_cast<sqldb_service*>(argument);
    for (;;) {
        try {
            if (!service->own_name.empty() && service->databases.count(service->own_name) == 0) {
                follow_text(service, service->own_name, service->own_text);
            }
            if (!follow_next(service)) {
                return nullptr;
            }
        } catch (const std::exception&) {
            /* No memory for this change; the next one brings the name again. */
            if (service->reporter.say != nullptr) {
                service->reporter.say(service->reporter.user, WARNING, "sqldb: out of memory");
            }
        }
    }
}

/* Takes the root for this service side. */
int32_t take_root(sqldb_service* service, int32_t names) {
    service->lock.value = openat(names, LOCK_NAME, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (service->lock.value < 0) {
        return -1;
    }
    if (flock(service->lock.value, LOCK_EX | LOCK_NB) != 0) {
        return fail(errno == EWOULDBLOCK ? EEXIST : errno);
    }
    return 0;
}

/* Withdraws what an earlier service side left behind, so that no old word passes for a new one. */
int32_t withdraw_all(int32_t names) {
    if (make_parents(below(STATUS, "x")) != 0 || pps_clear_tree(STATUS) != 0) {
        return -1;
    }
    vel_fd listing(openat(names, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(
        listing.value < 0 ? nullptr : fdopendir(listing.value), closedir);
    if (directory == nullptr) {
        return -1;
    }
    (void)listing.release();
    while (const dirent* entry = readdir(directory.get())) {
        if (entry->d_name[0] != '.' && unlinkat(dirfd(directory.get()), entry->d_name, 0) != 0 &&
            errno != ENOENT) {
            return -1;
        }
    }
    return 0;
}

void take_options(sqldb_service* service, const sqldb_service_options* options) {
    const char* named = secure_getenv("VELORAN_SQLDB_DEFAULTS");
    service->reporter.defaults = SQLDB_DEFAULTS;
    if (options != nullptr) {
        service->reporter.say = options->say;
        service->reporter.user = options->user;
        if (options->own_name != nullptr && options->own_text != nullptr &&
            sqldb_place_is_name(options->own_name)) {
            service->own_name = options->own_name;
            service->own_text = options->own_text;
            service->own_schema = options->own_schema;
        }
        service->reporter.defaults =
            options->defaults != nullptr ? options->defaults : SQLDB_DEFAULTS;
    }
    if (named != nullptr && named[0] != '\0') {
        service->reporter.defaults = named;
    }
}

int32_t start(sqldb_service* service) {
    char real[PATH_MAX];
    const char* last = nullptr;
    /* Also beside another service side: who asks it for a database writes there. */
    if (make_parents(below(CONFIG, "x")) != 0 || paths_resolve(LOCK, real, sizeof real) < 0) {
        return -1;
    }
    const vel_fd names(paths_open_parent(real, &last));
    if (names.value < 0 || take_root(service, names.value) != 0 || withdraw_all(names.value) != 0 ||
        open_watch(service) != 0) {
        return -1;
    }
    service->stop.value = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (service->stop.value < 0) {
        return -1;
    }
    const int32_t error = process_thread_start("sqldb", 0, run, service, &service->thread);
    return error == 0 ? 0 : fail(error);
}

} // namespace

extern "C" {

sqldb_service* sqldb_service_start(const sqldb_service_options* options) noexcept {
    try {
        auto service = std::make_unique<sqldb_service>();
        take_options(service.get(), options);
        if (start(service.get()) == 0) {
            return service.release();
        }
    } catch (const std::exception&) {
        errno = ENOMEM;
    }
    return nullptr;
}

void sqldb_service_stop(sqldb_service* service) noexcept {
    if (service == nullptr) {
        return;
    }
    const uint64_t one = 1;
    while (write(service->stop.value, &one, sizeof one) < 0 && errno == EINTR) {
    }
    pthread_join(service->thread, nullptr);
    try {
        for (const auto& database : service->databases) {
            withdraw(database.first);
        }
    } catch (const std::exception&) {
        /* What is left is withdrawn by the next start. */
    }
    delete service;
}
}
