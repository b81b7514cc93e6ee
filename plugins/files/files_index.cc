/* What is known of all tracks of a source: the database itself. */
#include "files_index.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "files_cache.h"
#include "files_log.h"

/* Raised with every change of the tables, or of what is written into them. */
static constexpr int VERSION = 2;
/* Milliseconds that one waits for another process. */
static constexpr int BUSY_MS = 2000;

/* The beginnings of words have an index of their own up to a length at which few tracks are left.
 * A folder and a name are an id; `name` is what is searched for. Types are LYR_NODE_*, and 0 for a
 * playlist, which is not searched. `gone` has what files were like that are not there any more, and
 * `unread` those that are not read while they are like that. */
static constexpr char TABLES[] = R"(
PRAGMA page_size = 4096;
PRAGMA journal_mode = WAL;
PRAGMA synchronous = NORMAL;
PRAGMA journal_size_limit = 16777216;
PRAGMA max_page_count = 262144;
BEGIN IMMEDIATE;
CREATE TABLE IF NOT EXISTS tracks(
    id INTEGER PRIMARY KEY, folder TEXT NOT NULL, file TEXT NOT NULL, type INTEGER NOT NULL,
    size INTEGER NOT NULL, changed INTEGER NOT NULL, name TEXT NOT NULL, title TEXT NOT NULL,
    artist TEXT NOT NULL, album TEXT NOT NULL, genre TEXT NOT NULL, album_artist TEXT NOT NULL,
    disc INTEGER NOT NULL, track INTEGER NOT NULL, duration INTEGER NOT NULL);
CREATE UNIQUE INDEX IF NOT EXISTS tracks_place ON tracks(folder, file);
CREATE INDEX IF NOT EXISTS tracks_size ON tracks(size);
CREATE INDEX IF NOT EXISTS tracks_artist ON tracks(artist, album) WHERE artist <> '';
CREATE INDEX IF NOT EXISTS tracks_album ON tracks(album, album_artist) WHERE album <> '';
CREATE INDEX IF NOT EXISTS tracks_genre ON tracks(genre) WHERE genre <> '';
CREATE INDEX IF NOT EXISTS tracks_playlist ON tracks(type) WHERE type = 0;
CREATE TABLE IF NOT EXISTS gone(
    number INTEGER PRIMARY KEY, folder TEXT NOT NULL, file TEXT NOT NULL, size INTEGER NOT NULL,
    title TEXT NOT NULL, artist TEXT NOT NULL, album TEXT NOT NULL, duration INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS gone_place ON gone(folder, file);
CREATE TABLE IF NOT EXISTS unread(
    number INTEGER PRIMARY KEY, folder TEXT NOT NULL, file TEXT NOT NULL, size INTEGER NOT NULL,
    changed INTEGER NOT NULL, UNIQUE(folder, file));
CREATE VIRTUAL TABLE IF NOT EXISTS words USING fts5(
    name, title, artist, album, genre, content = 'tracks', content_rowid = 'id', columnsize = 0,
    prefix = '1 2 3 4 5 6', tokenize = 'unicode61 remove_diacritics 2');
CREATE TRIGGER IF NOT EXISTS tracks_insert AFTER INSERT ON tracks WHEN new.type <> 0 BEGIN
    INSERT INTO words(rowid, name, title, artist, album, genre)
    VALUES (new.id, new.name, new.title, new.artist, new.album, new.genre);
END;
CREATE TRIGGER IF NOT EXISTS tracks_delete AFTER DELETE ON tracks WHEN old.type <> 0 BEGIN
    INSERT INTO words(words, rowid, name, title, artist, album, genre)
    VALUES ('delete', old.id, old.name, old.title, old.artist, old.album, old.genre);
END;
PRAGMA user_version = 2;
COMMIT;
)";

static vel_mutex indexes_lock;
/* What was said of a failure, not to be said again for each source. */
static std::string* failure_said VEL_GUARDED_BY(indexes_lock);

/* --- the list ------------------------------------------------------------------------------- */

using index_list = std::map<std::pair<std::string, std::string>, std::weak_ptr<files_index>>;

/* Not destroyed: a thread that hangs on a dead drive may outlive everything. */
static index_list& indexes() VEL_REQUIRES(indexes_lock) {
    static auto* list = new index_list;
    return *list;
}

static void destroy_index(files_index* index) noexcept {
    vel_mutex_destroy(&index->read_lock);
    vel_mutex_destroy(&index->times_lock);
    pthread_cond_destroy(&index->completed);
    delete index;
}

files_index_ref files_index_of(const files_source& source) {
    if (!source.settings->index || source.settings->cache.empty()) {
        return nullptr;
    }
    vel_lock_guard hold(indexes_lock);
    auto& entry = indexes()[{source.settings->cache, source.uid}];
    files_index_ref index = entry.lock();
    if (index == nullptr) {
        index = files_index_ref(new files_index, destroy_index);
        vel_mutex_init(&index->read_lock);
        vel_mutex_init(&index->times_lock);
        index->uid = source.uid;
        index->settings = source.settings;
        entry = index;
    }
    return index;
}

/* --- small helpers -------------------------------------------------------------------------- */

files_index_statement files_index_prepare(sqlite3* database, const char* text) noexcept {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database, text, -1, &statement, nullptr);
    return files_index_statement(statement);
}

std::string files_index_text(sqlite3_stmt* statement, int column) {
    const void* text = sqlite3_column_blob(statement, column);
    const int length = sqlite3_column_bytes(statement, column);
    return text != nullptr
               ? std::string(static_cast<const char*>(text), static_cast<size_t>(length))
               : "";
}

void files_index_bind(sqlite3_stmt* statement, int place, const std::string& text) noexcept {
    sqlite3_bind_text(statement, place, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

std::string files_index_id(const std::string& folder, const std::string& file) {
    return folder == "/" ? '/' + file : folder + '/' + file;
}

bool files_index_is_damage(int code) noexcept {
    const int kind = code & 0xFF;
    return kind == SQLITE_CORRUPT || kind == SQLITE_NOTADB || kind == SQLITE_FORMAT ||
           kind == SQLITE_SCHEMA || kind == SQLITE_ERROR || kind == SQLITE_CONSTRAINT ||
           kind == SQLITE_MISMATCH;
}

static void log_failure(const files_index& index, const std::string& reason) {
    const std::string what = " cannot be kept in " + index.settings->cache + ": " + reason;
    {
        vel_lock_guard hold(indexes_lock);
        if (failure_said == nullptr) {
            failure_said = new std::string; /* not destroyed, like the list */
        }
        if (*failure_said == what) {
            return;
        }
        *failure_said = what;
    }
    files_log(3, ("the index of " + index.uid + what).c_str());
}

void files_index_log_failure(const files_index& index, sqlite3* database) {
    log_failure(index, sqlite3_errmsg(database));
}

void files_index_log_success() noexcept {
    vel_lock_guard hold(indexes_lock);
    if (failure_said != nullptr) {
        failure_said->clear();
    }
}

/* --- files ---------------------------------------------------------------------------------- */

static std::string folder_of(const files_index& index) {
    return files_cache_folder(*index.settings, "index", 0700);
}

static std::string path_in(const std::string& folder, const files_index& index) {
    return folder + '/' + files_source_hash(index.uid) + ".db";
}

static void remove_database(const std::string& path) noexcept {
    for (const char* ending : {"", "-wal", "-shm", "-journal"}) {
        try {
            unlink((path + ending).c_str());
        } catch (...) {
            return;
        }
    }
}

struct close_folder {
    void operator()(DIR* folder) const noexcept { closedir(folder); }
};

struct aged_file {
    time_t used;
    std::string name;
};

/* Makes room for one more database. */
static void drop_oldest(const std::string& folder) {
    std::vector<aged_file> databases;
    const std::unique_ptr<DIR, close_folder> stream(opendir(folder.c_str()));
    while (stream != nullptr) {
        const dirent* entry = readdir(stream.get()); // NOLINT(concurrency-mt-unsafe): own stream
        struct stat facts = {};
        if (entry == nullptr) {
            break;
        }
        if (std::string(entry->d_name).ends_with(".db") &&
            fstatat(dirfd(stream.get()), entry->d_name, &facts, AT_SYMLINK_NOFOLLOW) == 0) {
            databases.push_back({facts.st_mtim.tv_sec, entry->d_name});
        }
    }
    if (databases.size() < FILES_INDEX_DATABASES) {
        return;
    }
    std::sort(databases.begin(), databases.end(),
              [](const aged_file& left, const aged_file& right) { return left.used < right.used; });
    for (size_t i = 0; i <= databases.size() - FILES_INDEX_DATABASES; ++i) {
        remove_database(folder + '/' + databases[i].name);
    }
}

/* --- opening -------------------------------------------------------------------------------- */

static int run(sqlite3* database, const char* text) noexcept {
    return sqlite3_exec(database, text, nullptr, nullptr, nullptr);
}

/* The version that a database says it has, 0: it is new, -1: none of that can be read. */
static int version_of(sqlite3* database) noexcept {
    const files_index_statement ask = files_index_prepare(database, "PRAGMA user_version");
    return ask != nullptr && sqlite3_step(ask.get()) == SQLITE_ROW
               ? sqlite3_column_int(ask.get(), 0)
               : -1;
}

static int open_database(const std::string& path, int flags, files_index_database* database) {
    sqlite3* opened = nullptr;
    const int code = sqlite3_open_v2(path.c_str(), &opened, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    database->reset(opened);
    if (opened != nullptr) {
        sqlite3_extended_result_codes(opened, 1);
        sqlite3_busy_timeout(opened, BUSY_MS);
    }
    return code;
}

/* Opens and prepares; what cannot be helped but by a new database is told by the result. */
static int open_writer(const std::string& path, files_index_database* database) {
    int code = open_database(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, database);
    if (code != SQLITE_OK) {
        return code;
    }
    const int version = version_of(database->get());
    if (version < 0) {
        return sqlite3_extended_errcode(database->get());
    }
    if (version != 0 && version != VERSION) {
        return SQLITE_FORMAT;
    }
    code = run(database->get(), TABLES);
    return code;
}

static std::string why_discarded(int code) {
    return (code & 0xFF) == SQLITE_FORMAT
               ? "is of another version"
               : std::string("is damaged (") + sqlite3_errstr(code) + ')';
}

files_index_database files_index_open(files_index* index) {
    const std::string folder = folder_of(*index);
    if (folder.empty()) {
        log_failure(*index, std::strerror(errno)); // NOLINT(concurrency-mt-unsafe): own buffer
        return nullptr;
    }
    const std::string path = path_in(folder, *index);
    if (index->damaged.exchange(false)) {
        files_log(3, ("the index of " + index->uid + " is damaged; it is made anew").c_str());
        files_index_discard(index);
    }
    if (access(path.c_str(), F_OK) != 0) {
        drop_oldest(folder);
    }
    files_index_database database;
    int code = open_writer(path, &database);
    if (files_index_is_damage(code)) {
        database.reset();
        files_log(3,
                  ("the index of " + index->uid + ' ' + why_discarded(code) + "; it is made anew")
                      .c_str());
        files_index_discard(index);
        code = open_writer(path, &database);
    }
    if (code != SQLITE_OK) {
        log_failure(*index, database != nullptr ? sqlite3_errmsg(database.get()) : "no memory");
        return nullptr;
    }
    utimensat(AT_FDCWD, path.c_str(), nullptr, 0);
    return database;
}

/* The connection for reading is closed with it, and opened anew when it is needed. */
void files_index_discard(files_index* index) {
    vel_lock_guard hold(index->read_lock);
    index->reader.reset();
    const std::string folder = folder_of(*index);
    if (!folder.empty()) {
        remove_database(path_in(folder, *index));
    }
}

sqlite3* files_index_reader(files_index* index) {
    if (index->reader == nullptr) {
        const std::string path = path_in(index->settings->cache + "/index", *index);
        if (open_database(path, SQLITE_OPEN_READWRITE, &index->reader) != SQLITE_OK ||
            version_of(index->reader.get()) != VERSION) {
            index->reader.reset();
        }
    }
    return index->reader.get();
}
