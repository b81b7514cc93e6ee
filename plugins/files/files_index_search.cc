/* Looking something up in the index. */
#include "files_index_search.h"

#include <algorithm>

#include "files_node.h"

/* Instructions of the database between two looks whether the call was cancelled. */
static constexpr int CANCEL_EVERY = 1000;

/* --- rows ----------------------------------------------------------------------------------- */

static int is_cancelled(void* cancel) noexcept {
    return files_cancelled(*static_cast<const files_cancel*>(cancel)) ? 1 : 0;
}

/* Ends the watch for a cancel at the end of a scope, also of one that is left by an exception. */
struct watched_database {
    sqlite3* database;
    ~watched_database() { sqlite3_progress_handler(database, 0, nullptr, nullptr); }
};

bool files_index_select(files_index* index, const char* text,
                        const std::vector<std::string>& values, const files_cancel& cancel,
                        void (*row)(sqlite3_stmt* statement, void* data), void* data) {
    vel_lock_guard hold(index->read_lock);
    sqlite3* database = files_index_reader(index);
    if (database == nullptr) {
        return !files_cancelled(cancel);
    }
    files_cancel watched = cancel;
    sqlite3_progress_handler(database, CANCEL_EVERY, is_cancelled, &watched);
    int code = SQLITE_OK;
    {
        const watched_database end{database};
        const files_index_statement statement = files_index_prepare(database, text);
        for (size_t i = 0; i < values.size(); ++i) {
            files_index_bind(statement.get(), static_cast<int>(i) + 1, values[i]);
        }
        code = statement != nullptr ? sqlite3_step(statement.get()) : sqlite3_errcode(database);
        for (; code == SQLITE_ROW && !files_cancelled(cancel);
             code = sqlite3_step(statement.get())) {
            row(statement.get(), data);
        }
    }
    if (files_index_is_damage(code)) {
        index->damaged = true;
        index->reader.reset();
    }
    return code != SQLITE_INTERRUPT && !files_cancelled(cancel);
}

/* --- search --------------------------------------------------------------------------------- */

/* Each word as a quoted text that begins a word; nothing of it is looked at as a command. The
 * ending of a file's name is none of its words. */
static std::string quoted_words(const std::string& text) {
    static constexpr const char* SPACE = " \t\r\n\v\f";
    std::string query;
    size_t words = 0;
    size_t begin = text.find_first_not_of(SPACE);
    while (begin != std::string::npos && words < FILES_SEARCH_WORDS) {
        const size_t end = std::min(text.find_first_of(SPACE, begin), text.size());
        std::string word = text.substr(begin, end - begin);
        if (files_node_media_type(word.c_str()) != 0) {
            word.resize(word.rfind('.'));
        }
        query += '"';
        for (const char byte : word) {
            query.append(byte == '"' ? 2 : 1, byte);
        }
        query += "\"* ";
        ++words;
        begin = text.find_first_not_of(SPACE, end);
    }
    return query;
}

static bool is_filter(const std::string& filter) {
    return filter == "name" || filter == "title" || filter == "artist" || filter == "album" ||
           filter == "genre";
}

static void add_hit(sqlite3_stmt* statement, void* data) {
    auto* hits = static_cast<std::vector<files_index_hit>*>(data);
    hits->push_back({files_index_id(files_index_text(statement, 0), files_index_text(statement, 1)),
                     sqlite3_column_int(statement, 2)});
}

bool files_index_search(files_index* index, const char* filter, const std::string& text,
                        int32_t offset, int32_t most, const files_cancel& cancel,
                        std::vector<files_index_hit>* hits) {
    const std::string where = filter != nullptr ? filter : "";
    if ((!where.empty() && !is_filter(where)) || text.size() > FILES_SEARCH_MOST) {
        return false;
    }
    const std::string words = quoted_words(text);
    if (words.empty()) {
        return true;
    }
    const std::string query = where.empty() ? words : where + " : (" + words + ')';
    const std::string limits =
        " LIMIT " + std::to_string(most) + " OFFSET " + std::to_string(offset);
    const std::string select =
        "SELECT folder, file, type FROM (SELECT rowid AS row FROM words WHERE words MATCH ?"
        " ORDER BY rowid" +
        limits + ") JOIN tracks ON tracks.id = row ORDER BY row";
    return files_index_select(index, select.c_str(), {query}, cancel, add_hit, hits);
}

/* --- files that moved ----------------------------------------------------------------------- */

static const char FIND_MOVED[] = R"(
WITH old AS (
    SELECT size, title, artist, album, duration FROM tracks WHERE folder = ?1 AND file = ?2
    UNION ALL
    SELECT * FROM (SELECT size, title, artist, album, duration FROM gone
                   WHERE folder = ?1 AND file = ?2 ORDER BY number DESC LIMIT 1)
    LIMIT 1)
SELECT tracks.folder, tracks.file, tracks.type FROM old JOIN tracks ON tracks.size = old.size
WHERE tracks.title = old.title AND tracks.artist = old.artist AND tracks.album = old.album
    AND tracks.duration = old.duration AND tracks.type <> 0 AND old.size > 0
    AND NOT (tracks.folder = ?1 AND tracks.file = ?2)
ORDER BY tracks.file <> ?2, tracks.id LIMIT 64)";

static const char REMEMBER[] = R"(
SELECT folder, file, type FROM tracks WHERE folder = ?1 AND file = ?2
UNION ALL SELECT folder, file, 0 FROM gone WHERE folder = ?1 AND file = ?2 LIMIT 1)";

/* Rows that a statement finds for the folder and the name of an id. */
static std::vector<files_index_hit> find_for(const files_source& source, const char* text,
                                             const std::string& id) {
    std::vector<files_index_hit> hits;
    const files_index_ref index = files_index_of(source);
    const size_t slash = id.rfind('/');
    if (index == nullptr || slash == std::string::npos) {
        return hits;
    }
    const std::atomic<uint32_t> never = 0;
    const files_cancel cancel = {&never, 0, &source.gone};
    const std::string folder = slash == 0 ? "/" : id.substr(0, slash);
    files_index_select(index.get(), text, {folder, id.substr(slash + 1)}, cancel, add_hit, &hits);
    return hits;
}

bool files_index_remembers(const files_source& source, const std::string& id) {
    return !find_for(source, REMEMBER, id).empty();
}

bool files_index_find_moved(const files_source& source, const std::string& id, std::string* now) {
    for (const files_index_hit& hit : find_for(source, FIND_MOVED, id)) {
        if (files_node_type(source, hit.id.c_str()) == hit.type) {
            *now = hit.id;
            return true;
        }
    }
    return false;
}
