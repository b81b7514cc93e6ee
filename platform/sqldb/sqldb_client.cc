/* Connections: one transaction at a time, of which nothing may be committed once a part is lost. */
#include <veloran/sqldb.h>

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include <poll.h>

#include "sqldb_copy.h"
#include "sqldb_format.h"
#include "sqldb_place.h"
#include "sqldb_result.h"
#include "sqldb_sqlite.h"

/* A format that is compiled once and takes its values as they are: a save repeats one of them for
 * each of its rows. */
struct compiled {
    std::string format;
    std::string kinds; /* of the values, as sqldb_format_template tells them */
    sqldb_prepared statement;
};

struct sqldb_connection {
    sqldb_place place;
    sqldb_handle database;
    compiled last;             /* released before the database */
    std::string text;          /* of the present statement; kept for its memory */
    sqldb_result_owner result; /* of the last statement, until it is taken */
    int32_t lost = 0;          /* errno of the loss of the transaction */
    int32_t unwritable = 0;    /* errno of each write, as sqldb_sqlite_open_saved tells it */
    bool inside = false;       /* what runs is this module's own */
    int32_t patience_ms = SQLDB_BUSY_MS;
    const std::atomic<bool>* give_up = nullptr; /* borrowed; null: never */
};

namespace {

constexpr const char* NAME_PREFIX = "/dev/sqldb/";

int32_t fail(int32_t error) {
    errno = error;
    return -1;
}

/* Runs a statement of this module's own, which may do what callers may not. */
int32_t run_inside(sqldb_connection* connection, const char* text) {
    connection->inside = true;
    const int32_t result = sqldb_sqlite_run(connection->database.get(), text);
    connection->inside = false;
    return result;
}

/* SQLite asks whether to try again, for the `tries`th time after a wait for the same lock. */
int wait_for_lock(void* user, int tries) {
    constexpr int32_t STEP_MS = 10;
    const auto* connection = static_cast<const sqldb_connection*>(user);
    if (tries >= connection->patience_ms / STEP_MS ||
        (connection->give_up != nullptr && *connection->give_up)) {
        return 0;
    }
    poll(nullptr, 0, STEP_MS);
    return 1;
}

int authorize(void* user, int action, const char*, const char*, const char*, const char*) {
    const bool is_ours = action == SQLITE_TRANSACTION || action == SQLITE_SAVEPOINT ||
                         action == SQLITE_ATTACH || action == SQLITE_DETACH;
    return is_ours && !static_cast<sqldb_connection*>(user)->inside ? SQLITE_DENY : SQLITE_OK;
}

bool in_transaction(const sqldb_connection* connection) {
    return sqlite3_get_autocommit(connection->database.get()) == 0;
}

/* One statement from the text, for use again and again with SQLITE_PREPARE_PERSISTENT in `flags`;
 * null with errno set. */
sqldb_prepared prepare(sqldb_connection* connection, uint32_t flags) {
    const std::string& text = connection->text;
    if (text.size() > INT32_MAX) {
        errno = EFBIG;
        return nullptr;
    }
    sqlite3_stmt* statement = nullptr;
    const char* rest = nullptr;
    const int code =
        sqlite3_prepare_v3(connection->database.get(), text.c_str(),
                           static_cast<int>(text.size() + 1), flags, &statement, &rest);
    sqldb_prepared owner(statement);
    if (code != SQLITE_OK) {
        errno = sqldb_sqlite_errno(connection->database.get(), code);
        return nullptr;
    }
    if (statement == nullptr || rest[strspn(rest, "; \t\r\n")] != '\0') {
        errno = EINVAL;
        return nullptr;
    }
    return owner;
}

/* Steps through all rows. */
int32_t gather(sqldb_connection* connection, sqlite3_stmt* statement) {
    sqldb_result_owner result(new sqldb_result);
    result->columns = sqlite3_column_count(statement);
    int code = sqlite3_step(statement);
    for (; code == SQLITE_ROW; code = sqlite3_step(statement)) {
        sqldb_result_add_row(result.get(), statement);
    }
    if (code != SQLITE_DONE) {
        return fail(sqldb_sqlite_errno(connection->database.get(), code));
    }
    connection->result = std::move(result);
    return 0;
}

int32_t execute(sqldb_connection* connection, sqlite3_stmt* statement) {
    if (sqlite3_stmt_readonly(statement) == 0) {
        if (connection->unwritable != 0) {
            return fail(connection->unwritable);
        }
        if (!in_transaction(connection) && run_inside(connection, "BEGIN IMMEDIATE") != 0) {
            return -1;
        }
    }
    const bool was_inside = in_transaction(connection);
    if (gather(connection, statement) == 0) {
        return 0;
    }
    if (was_inside && !in_transaction(connection)) {
        connection->lost = errno;
    }
    return -1;
}

/* Gives the compiled statement its values. */
int32_t bind_values(sqldb_connection* connection, va_list arguments) {
    sqlite3_stmt* statement = connection->last.statement.get();
    int code = SQLITE_OK;
    int place = 0;
    for (const char kind : connection->last.kinds) {
        ++place;
        if (kind == 'q') {
            const char* text = va_arg(arguments, const char*);
            text = text == nullptr ? "" : text;
            code = sqlite3_bind_text(statement, place, text, -1, SQLITE_STATIC);
        } else if (kind == 'u') {
            const auto value = static_cast<int64_t>(va_arg(arguments, unsigned long long));
            code = sqlite3_bind_int64(statement, place, value);
        } else if (kind == 'd') {
            code = sqlite3_bind_int64(statement, place, va_arg(arguments, int));
        } else {
            const double value = va_arg(arguments, double);
            code = std::isfinite(value) ? sqlite3_bind_double(statement, place, value)
                                        : SQLITE_MISUSE; /* EINVAL */
        }
        if (code != SQLITE_OK) {
            return fail(sqldb_sqlite_errno(connection->database.get(), code));
        }
    }
    return 0;
}

/* Compiles a format unless it is the last one. 1 when it can take values, 0 when it has to be
 * formatted, -1 with errno set. */
int32_t compile(sqldb_connection* connection, const char* format) {
    compiled* last = &connection->last;
    if (last->statement != nullptr && last->format == format) {
        return 1;
    }
    last->statement.reset();
    if (!sqldb_format_template(&connection->text, &last->kinds, format)) {
        return 0;
    }
    last->format = format;
    last->statement = prepare(connection, SQLITE_PREPARE_PERSISTENT);
    return last->statement == nullptr ? -1 : 1;
}

int32_t execute_compiled(sqldb_connection* connection, va_list arguments) {
    sqlite3_stmt* statement = connection->last.statement.get();
    int32_t result = bind_values(connection, arguments);
    if (result == 0) {
        result = execute(connection, statement);
    }
    const int32_t error = errno;
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement); /* the values are the caller's */
    errno = error;
    return result;
}

int32_t execute_format(sqldb_connection* connection, const char* format, va_list arguments) {
    const int32_t is_compiled = compile(connection, format);
    if (is_compiled != 0) {
        return is_compiled < 0 ? -1 : execute_compiled(connection, arguments);
    }
    if (sqldb_format(&connection->text, format, arguments) != 0) {
        return -1;
    }
    const sqldb_prepared statement = prepare(connection, 0);
    return statement == nullptr ? -1 : execute(connection, statement.get());
}

/* Commits, or drops all and remembers why. */
int32_t commit(sqldb_connection* connection) {
    if (connection->lost != 0) {
        return fail(connection->lost);
    }
    if (!in_transaction(connection) || run_inside(connection, "COMMIT") == 0) {
        return 0;
    }
    connection->lost = errno;
    run_inside(connection, "ROLLBACK"); /* it may be over already */
    return fail(connection->lost);
}

int32_t open_place(sqldb_connection* connection, const char* name) {
    const size_t prefix = strlen(NAME_PREFIX);
    if (strncmp(name, NAME_PREFIX, prefix) != 0 || !sqldb_place_is_name(name + prefix)) {
        return fail(EINVAL);
    }
    connection->place.name = name + prefix;
    const std::string path = sqldb_place_of_name(connection->place.name, true);
    std::string text;
    return path.empty() || sqldb_place_read(path, &text, SQLDB_PLACE_TEXT_MAX) != 0
               ? -1
               : sqldb_place_parse(&connection->place, text, false);
}

int32_t open_database(sqldb_connection* connection) {
    connection->database =
        sqldb_sqlite_open_saved(connection->place.file.c_str(), &connection->unwritable);
    if (connection->database == nullptr) {
        return -1;
    }
    std::string schema;
    if (!connection->place.client_schema.empty() &&
        sqldb_place_read(connection->place.client_schema, &schema, SQLDB_PLACE_SCHEMA_MAX) != 0 &&
        errno != ENOENT) {
        return -1;
    }
    /* Also looks whether the file is a database at all. */
    std::string version;
    if (sqldb_sqlite_text(connection->database.get(), "PRAGMA schema_version", &version) != 0) {
        return -1;
    }
    if (sqldb_sqlite_run_schema(connection->database.get(), schema.c_str()) != 0) {
        return -1;
    }
    sqlite3_set_authorizer(connection->database.get(), authorize, connection);
    return 0;
}

int32_t copy_to_all(sqldb_connection* connection) {
    int32_t error = 0;
    connection->inside = true;
    for (const std::string& directory : connection->place.backups) {
        if (sqldb_copy_backup(connection->database.get(), directory, connection->place.name) != 0 &&
            error == 0) {
            error = errno;
        }
    }
    connection->inside = false;
    return error == 0 ? 0 : fail(error);
}

} // namespace

extern "C" {

sqldb_connection* sqldb_connect(const char* name, uint32_t flags) noexcept {
    if (name == nullptr || flags != 0) {
        errno = EINVAL;
        return nullptr;
    }
    try {
        auto connection = std::make_unique<sqldb_connection>();
        if (open_place(connection.get(), name) == 0 && open_database(connection.get()) == 0) {
            return connection.release();
        }
    } catch (const std::exception&) {
        errno = ENOMEM;
    }
    return nullptr;
}

void sqldb_set_patience(sqldb_connection* connection, int32_t milliseconds,
                        const std::atomic<bool>* give_up) noexcept {
    if (connection != nullptr) {
        connection->patience_ms = milliseconds;
        connection->give_up = give_up;
        sqlite3_busy_handler(connection->database.get(), wait_for_lock, connection);
    }
}

int32_t sqldb_disconnect(sqldb_connection* connection) noexcept {
    if (connection == nullptr) {
        return 0;
    }
    const int32_t result = commit(connection);
    const int32_t error = errno;
    delete connection;
    errno = error;
    return result;
}

int32_t sqldb_statement(sqldb_connection* connection, const char* format, ...) noexcept {
    if (connection == nullptr || format == nullptr) {
        return fail(EINVAL);
    }
    connection->result.reset();
    if (connection->lost != 0) {
        return fail(connection->lost);
    }
    int32_t result = -1;
    va_list arguments;
    va_start(arguments, format);
    try {
        result = execute_format(connection, format, arguments);
    } catch (const std::exception&) {
        connection->last.statement.reset(); /* it may stand on a row */
        result = fail(ENOMEM);
    }
    va_end(arguments);
    return result;
}

sqldb_result* sqldb_getresult(sqldb_connection* connection) noexcept {
    if (connection == nullptr || connection->result == nullptr) {
        errno = ENODATA;
        return nullptr;
    }
    return connection->result.release();
}

int32_t sqldb_backup(sqldb_connection* connection, int32_t scope) noexcept {
    if (connection == nullptr || scope != SQLDB_SCOPE_ALL) {
        return fail(EINVAL);
    }
    if (commit(connection) != 0) {
        return -1;
    }
    try {
        return copy_to_all(connection);
    } catch (const std::exception&) {
        connection->inside = false;
        return fail(ENOMEM);
    }
}

int32_t sqldb_commit(sqldb_connection* connection) noexcept {
    return connection == nullptr ? fail(EINVAL) : commit(connection);
}

int32_t sqldb_rollback(sqldb_connection* connection) noexcept {
    if (connection == nullptr) {
        return fail(EINVAL);
    }
    if (in_transaction(connection) && run_inside(connection, "ROLLBACK") != 0) {
        connection->lost = errno; /* what is left must not be committed by the disconnect */
        return -1;
    }
    connection->lost = 0;
    return 0;
}
}
