/* The one rule: a replacement is made aside and proved whole before what it replaces is moved, and
 * what is moved is kept. */
#include "sqldb_store.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veloran/paths.h>

#include "sqldb_copy.h"
#include "sqldb_layout.h"
#include "sqldb_sqlite.h"

namespace {

/* Severities; the one of an error ends some programs, and nothing here is worth that. */
constexpr int32_t WARNING = 3;
constexpr int32_t NOTICE = 4;
constexpr int32_t INFO = 5;

constexpr const char* MADE_EMPTY = "made empty";
constexpr int32_t KEPT_MAX = 9; /* the last number of a damaged file that is kept */

struct schema_texts {
    std::string tables;
    std::string data;
    sqldb_layout layout; /* of the tables */
};

enum class verdict { whole, missing, damaged, unknown };

std::string because(const std::string& what) {
    char buffer[128];
    return what + ": " + strerror_r(errno, buffer, sizeof buffer);
}

/* Brings a schema file to where it is expected; `built_in` is its text when there is no default, or
 * null. One that is there stays as it is. */
int32_t provide(const std::string& path, const sqldb_reporter& reporter, const char* built_in) {
    std::string text;
    if (access(path.c_str(), F_OK) == 0) {
        return 0;
    }
    const std::string original = reporter.defaults + path.substr(path.rfind('/'));
    if (sqldb_place_read(original, &text, SQLDB_PLACE_SCHEMA_MAX) != 0) {
        if (errno != ENOENT || built_in == nullptr) {
            return -1;
        }
        text = built_in;
    }
    return paths_make_parents(path.c_str()) != 0 ? -1 : sqldb_place_write(path, text, true);
}

int32_t load_schema_file(const std::string& path, const sqldb_reporter& reporter,
                         const char* built_in, bool optional, std::string* text,
                         std::string* reason) {
    if (path.empty() ||
        (provide(path, reporter, built_in) == 0 &&
         sqldb_place_read(path, text, SQLDB_PLACE_SCHEMA_MAX) == 0) ||
        (optional && errno == ENOENT)) {
        return 0;
    }
    *reason = because("the schema file " + path);
    return -1;
}

int32_t load_schemas(const sqldb_place& place, const sqldb_reporter& reporter,
                     schema_texts* schemas, std::string* reason) {
    std::string unused;
    if (load_schema_file(place.schema, reporter, place.built_in, false, &schemas->tables, reason) !=
            0 ||
        load_schema_file(place.data_schema, reporter, nullptr, true, &schemas->data, reason) != 0 ||
        load_schema_file(place.client_schema, reporter, nullptr, true, &unused, reason) != 0) {
        return -1;
    }
    std::string error;
    if (sqldb_layout_of_schema(schemas->tables, &schemas->layout, &error) != 0) {
        *reason = "the schema file " + place.schema + ": " + error;
        return -1;
    }
    return 0;
}

/* What the errno of an access says of the file itself. */
verdict judge_error(const std::string& file, std::string* reason) {
    *reason = because(file);
    return errno == EBADMSG ? verdict::damaged : verdict::unknown;
}

/* Checks that a file is as long as its database: a missing end of the last page shows nowhere else.
 * 0, or -1 with errno set, EBADMSG when it is shorter. */
int32_t check_length(sqlite3* database, const std::string& file) {
    int in_journal = -1;
    int copied = -1; /* of them, into the file */
    if (sqlite3_wal_checkpoint_v2(database, nullptr, SQLITE_CHECKPOINT_PASSIVE, &in_journal,
                                  &copied) != SQLITE_OK ||
        in_journal != copied) {
        return 0; /* somebody else is at work; the rest is in the journal */
    }
    std::string length;
    struct stat status;
    if (sqldb_sqlite_text(database,
                          "SELECT page_count * page_size FROM pragma_page_count, "
                          "pragma_page_size",
                          &length) != 0 ||
        stat(file.c_str(), &status) != 0) {
        return -1;
    }
    if (status.st_size < strtoll(length.c_str(), nullptr, 10)) {
        errno = EBADMSG;
        return -1;
    }
    return 0;
}

/* Whether a file is one that SQLite has made: nobody else's is ours to move or to replace. An empty
 * one holds nothing that could be lost. Sets the reason otherwise. */
bool is_ours(const std::string& file, const struct stat& status, std::string* reason) {
    if (S_ISREG(status.st_mode) && status.st_size == 0) {
        return true;
    }
    const int32_t has_header = S_ISREG(status.st_mode) ? sqldb_sqlite_has_header(file.c_str()) : 0;
    if (has_header == 0) {
        *reason = file + (S_ISLNK(status.st_mode) ? ": a link and" : ":") +
                  " no database, so it stays as it is; move it away, or name another";
    } else if (has_header < 0) {
        *reason = because(file);
    }
    return has_header > 0;
}

/* Opens a database for a look: for reading and writing if `unwritable` is not null, which gets what
 * sqldb_sqlite_open_saved tells, else for reading alone. */
sqldb_handle open_to_inspect(const std::string& file, int32_t* unwritable) {
    return unwritable != nullptr ? sqldb_sqlite_open_saved(file.c_str(), unwritable)
                                 : sqldb_sqlite_open(file.c_str(), SQLITE_OPEN_READONLY);
}

/* Looks at a database file, opened as open_to_inspect does. The reason is set unless it is whole.
 */
verdict inspect(const std::string& file, const sqldb_layout& wanted, int32_t* unwritable,
                std::string* reason) {
    struct stat status;
    if (lstat(file.c_str(), &status) != 0) {
        *reason = because(file);
        return errno == ENOENT ? verdict::missing : verdict::unknown;
    }
    if (!is_ours(file, status, reason)) {
        return verdict::unknown;
    }
    const sqldb_handle database = open_to_inspect(file, unwritable);
    sqldb_layout present;
    if (database == nullptr || sqldb_copy_check(database.get()) != 0 ||
        check_length(database.get(), file) != 0 || sqldb_layout_of(database.get(), &present) != 0) {
        return judge_error(file, reason);
    }
    const std::string table = sqldb_layout_missing(wanted, present);
    if (!table.empty()) {
        *reason = file + ": the table " + table + " is missing or has other columns";
        return verdict::damaged;
    }
    /* Writers beside readers, one synchronisation a commit; kept in the file. Where it cannot be
     * had, the ordinary journal serves as well. */
    if (unwritable != nullptr && *unwritable == 0) {
        sqldb_sqlite_run(database.get(), "PRAGMA journal_mode=WAL");
    }
    return verdict::whole;
}

/* The backups that exist, newest first. */
std::vector<std::string> find_backups(const sqldb_place& place) {
    std::vector<std::pair<timespec, std::string>> found;
    for (const std::string& directory : place.backups) {
        const std::string path = sqldb_copy_backup_path(directory, place.name);
        struct stat status;
        if (stat(path.c_str(), &status) == 0) {
            found.emplace_back(status.st_mtim, path);
        }
    }
    std::stable_sort(found.begin(), found.end(), [](const auto& one, const auto& other) {
        return one.first.tv_sec != other.first.tv_sec ? one.first.tv_sec > other.first.tv_sec
                                                      : one.first.tv_nsec > other.first.tv_nsec;
    });
    std::vector<std::string> paths;
    for (const auto& item : found) {
        paths.push_back(item.second);
    }
    return paths;
}

int32_t copy_backup(const std::string& backup, const std::string& aside) {
    const sqldb_handle database = sqldb_sqlite_open(backup.c_str(), SQLITE_OPEN_READONLY);
    return database == nullptr ? -1 : sqldb_copy_make(database.get(), aside);
}

/* Makes an empty database aside. 0, or -1 with the reason; then no file is left. */
int32_t make_empty(const schema_texts& schemas, const std::string& aside, std::string* reason) {
    sqldb_copy_discard(aside);
    sqldb_handle database =
        sqldb_sqlite_open(aside.c_str(), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    bool is_made = database != nullptr;
    for (const std::string* text : {&schemas.tables, &schemas.data}) {
        is_made = is_made && sqldb_sqlite_run_schema(database.get(), text->c_str()) == 0;
    }
    if (!is_made) {
        *reason = because(aside);
    }
    database.reset(); /* before the file is opened otherwise */
    if (is_made && sqldb_copy_settle(aside) == 0) {
        return 0;
    }
    *reason = is_made ? because(aside) : *reason;
    sqldb_copy_discard(aside);
    return -1;
}

/* Makes the replacement aside: from the newest backup that is good, else from the schema. */
int32_t make_replacement(const sqldb_place& place, const schema_texts& schemas,
                         const sqldb_reporter& reporter, const std::string& aside,
                         std::string* origin, std::string* reason) {
    for (const std::string& backup : find_backups(place)) {
        std::string flaw;
        if (inspect(backup, schemas.layout, nullptr, &flaw) != verdict::whole) {
            sqldb_report(reporter, WARNING, "backup not used: " + flaw);
            continue;
        }
        if (copy_backup(backup, aside) != 0) {
            *reason = because("copying " + backup + " to " + aside);
            return -1; /* the copy is at fault, not the backup: an empty one would hide it */
        }
        *origin = "restored from " + backup;
        return 0;
    }
    *origin = MADE_EMPTY;
    return make_empty(schemas, aside, reason);
}

/* A name for what is moved aside. */
std::string kept_name(const std::string& file) {
    std::string kept = file + ".damaged";
    for (int32_t number = 1; number <= KEPT_MAX && access(kept.c_str(), F_OK) == 0; ++number) {
        kept = file + ".damaged." + std::to_string(number);
    }
    return kept;
}

/* Moves the database file aside with its journals, which belong to it and to no other. */
int32_t set_aside(const std::string& file, const sqldb_reporter& reporter) {
    const std::string kept = kept_name(file);
    if (rename(file.c_str(), kept.c_str()) == 0) {
        sqldb_report(reporter, NOTICE, "kept the damaged database as " + kept);
    } else if (errno != ENOENT) {
        return -1;
    }
    for (const char* suffix : {"-wal", "-journal"}) {
        if (rename((file + suffix).c_str(), (kept + suffix).c_str()) != 0 && errno != ENOENT) {
            return -1;
        }
    }
    if (unlink((file + "-shm").c_str()) != 0 && errno != ENOENT) {
        return -1;
    }
    /* A journal that a power cut brought back would be taken for one of the replacement. */
    return sqldb_place_sync_directory(file);
}

int32_t replace(const sqldb_place& place, const schema_texts& schemas, verdict state,
                const sqldb_reporter& reporter, std::string* reason) {
    const std::string aside = place.file + ".new";
    std::string origin;
    if (make_replacement(place, schemas, reporter, aside, &origin, reason) != 0) {
        return -1;
    }
    if (set_aside(place.file, reporter) != 0 || rename(aside.c_str(), place.file.c_str()) != 0 ||
        sqldb_place_sync_directory(place.file) != 0) {
        *reason = because(place.file);
        return -1;
    }
    const bool is_first = state == verdict::missing && origin == MADE_EMPTY;
    sqldb_report(reporter, is_first ? INFO : WARNING, "database " + place.name + " " + origin);
    return 0;
}

int32_t prepare(const sqldb_place& place, const sqldb_reporter& reporter, std::string* reason) {
    schema_texts schemas;
    if (paths_make_parents(place.file.c_str()) != 0) {
        *reason = because(place.file);
        return -1;
    }
    if (load_schemas(place, reporter, &schemas, reason) != 0) {
        return -1;
    }
    int32_t unwritable = 0;
    verdict state = inspect(place.file, schemas.layout, &unwritable, reason);
    if (state == verdict::damaged) {
        sqldb_report(reporter, WARNING, "database " + place.name + " is damaged: " + *reason);
    }
    if (state == verdict::damaged || state == verdict::missing) {
        if (replace(place, schemas, state, reporter, reason) != 0) {
            return -1;
        }
        state = inspect(place.file, schemas.layout, &unwritable, reason);
    }
    if (state == verdict::whole && unwritable != 0) {
        errno = unwritable;
        sqldb_report(reporter, WARNING,
                     because("database " + place.name +
                             " can be read, but nothing can be saved in " + place.file) +
                         "; give it room and the right to write");
    }
    return state == verdict::whole ? 0 : -1;
}

} // namespace

void sqldb_report(const sqldb_reporter& reporter, int32_t severity, const std::string& text) {
    if (reporter.say != nullptr) {
        reporter.say(reporter.user, severity, text.c_str());
    }
}

int32_t sqldb_store_prepare(const sqldb_place& place, const sqldb_reporter& reporter,
                            std::string* reason) {
    const int32_t result = prepare(place, reporter, reason);
    if (result != 0) {
        sqldb_report(reporter, WARNING, "database " + place.name + " cannot be used: " + *reason);
    }
    return result;
}
