/* Where a database and what belongs to it lies, and the file that tells a client so. */
#ifndef VELORAN_SQLDB_PLACE_H
#define VELORAN_SQLDB_PLACE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/* Bytes of /dev/sqldb/NAME, and of a schema file. */
constexpr size_t SQLDB_PLACE_TEXT_MAX = 65536;
constexpr size_t SQLDB_PLACE_SCHEMA_MAX = 1048576;

/* A database as a configuration object asks for it, and as a connection name tells it. All paths
 * are real and absolute. */
struct sqldb_place {
    std::string name;
    std::string file;
    std::string schema; /* the three schema files; empty: none */
    std::string data_schema;
    std::string client_schema;
    std::vector<std::string> backups; /* directories */
    const char* built_in = nullptr;   /* the schema when there is no file; null: none */
    friend bool operator==(const sqldb_place&, const sqldb_place&) = default;
};

/* Whether a text may be the name of a database. */
bool sqldb_place_is_name(std::string_view name) noexcept;

/* The real path of /dev/sqldb/NAME; with `existing` for a client that looks for it. Empty with
 * errno set. */
std::string sqldb_place_of_name(const std::string& name, bool existing);

/* Takes the attributes of a text into *place, whose name stays. `platform` says that it is a
 * configuration: the paths are those of the platform, and BackupDir is a list with commas. Without
 * it each BackupDir is one directory, since a real path may have commas. 0, or -1 with errno set:
 * ENODATA when an attribute that must be there is missing, ENAMETOOLONG for a database file that
 * SQLite does not take. */
int32_t sqldb_place_parse(sqldb_place* place, std::string_view text, bool platform);

/* Writes /dev/sqldb/NAME, whole or not at all; takes it away. 0, or -1 with errno set. */
int32_t sqldb_place_publish(const sqldb_place& place);
void sqldb_place_withdraw(const std::string& name);

/* Reads a whole file of at most `limit` bytes (EFBIG). 0, or -1 with errno set. */
int32_t sqldb_place_read(const std::string& path, std::string* text, size_t limit);

/* The same for a text that is only believed when its file belongs to the user of this service or to
 * root and nobody else could write it, as the descriptor tells that is read; EPERM otherwise. */
int32_t sqldb_place_read_believed(const std::string& path, std::string* text, size_t limit);

/* Writes a file aside and renames it into place; with `durable` it is on the disk when it is
 * there. 0, or -1 with errno set. */
int32_t sqldb_place_write(const std::string& path, std::string_view text, bool durable);

/* Synchronises the directory that holds a path. 0, or -1 with errno set. */
int32_t sqldb_place_sync_directory(const std::string& path);

#endif
