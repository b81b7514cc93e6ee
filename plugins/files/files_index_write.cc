/* Bringing the index up to date. */
#include "files_index_write.h"

#include "files_tags.h"
#include "files_unread.h"

static bool noted(files_index_writer* writer, int code) noexcept {
    if (code == SQLITE_OK || code == SQLITE_DONE || code == SQLITE_ROW) {
        return true;
    }
    if (writer->code == SQLITE_OK) {
        writer->code = code;
    }
    return false;
}

static bool run(files_index_writer* writer, const char* text) noexcept {
    return noted(writer, sqlite3_exec(writer->database.get(), text, nullptr, nullptr, nullptr));
}

/* One step of a statement without rows, which is ready for the next use then. */
static bool step(files_index_writer* writer, const files_index_statement& statement) noexcept {
    const bool done = noted(writer, sqlite3_step(statement.get()));
    sqlite3_reset(statement.get());
    return done;
}

bool files_index_write_begin(files_index* index, files_index_writer* writer) {
    *writer = {};
    writer->database = files_index_open(index);
    sqlite3* database = writer->database.get();
    if (database == nullptr) {
        return false;
    }
    writer->list = files_index_prepare(
        database, "SELECT file, id, type, size, changed FROM tracks WHERE folder = ?");
    writer->insert = files_index_prepare(
        database, "INSERT INTO tracks(id, folder, file, type, size, changed, name, title, artist, "
                  "album, genre, album_artist, disc, track, duration) "
                  "VALUES (nullif(?, 0), ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    writer->remove = files_index_prepare(database, "DELETE FROM tracks WHERE id = ?");
    writer->remember = files_index_prepare(
        database, "INSERT INTO gone(folder, file, size, title, artist, album, duration) "
                  "SELECT folder, file, size, title, artist, album, duration FROM tracks "
                  "WHERE id = ? AND type <> 0 AND size > 0");
    writer->forget = files_index_prepare(
        database, "DELETE FROM gone WHERE number <= (SELECT max(number) FROM gone) - ?");
    const bool prepared = writer->list != nullptr && writer->insert != nullptr &&
                          writer->remove != nullptr && writer->remember != nullptr &&
                          writer->forget != nullptr;
    if (!prepared) {
        writer->code = SQLITE_CORRUPT;
        return true; /* the first use finds out */
    }
    run(writer, "BEGIN IMMEDIATE");
    return true;
}

bool files_index_write_commit(files_index_writer* writer) {
    writer->changes = 0;
    return writer->code == SQLITE_OK && run(writer, "COMMIT") && run(writer, "BEGIN IMMEDIATE");
}

bool files_index_write_list(files_index_writer* writer, const std::string& folder,
                            std::map<std::string, files_index_file>* files) {
    if (writer->code != SQLITE_OK) {
        return false;
    }
    sqlite3_stmt* list = writer->list.get();
    files_index_bind(list, 1, folder);
    int code = sqlite3_step(list);
    for (; code == SQLITE_ROW; code = sqlite3_step(list)) {
        (*files)[files_index_text(list, 0)] = {
            sqlite3_column_int64(list, 1), sqlite3_column_int(list, 2),
            sqlite3_column_int64(list, 3), sqlite3_column_int64(list, 4)};
    }
    sqlite3_reset(list);
    return noted(writer, code);
}

bool files_index_write_folders(files_index_writer* writer, const std::string& above,
                               std::set<std::string>* folders) {
    if (writer->code != SQLITE_OK) {
        return false;
    }
    const files_index_statement below =
        files_index_prepare(writer->database.get(),
                            "SELECT DISTINCT folder FROM tracks WHERE folder >= ? AND folder < ?");
    /* '0' is the next byte behind '/'. */
    const std::string begin = above == "/" ? above : above + '/';
    const std::string end = begin.substr(0, begin.size() - 1) + '0';
    files_index_bind(below.get(), 1, begin);
    files_index_bind(below.get(), 2, end);
    int code = sqlite3_step(below.get());
    for (; code == SQLITE_ROW; code = sqlite3_step(below.get())) {
        folders->insert(files_index_text(below.get(), 0));
    }
    return noted(writer, code);
}

/* --- changes -------------------------------------------------------------------------------- */

bool files_index_write_put(files_index_writer* writer, const std::string& folder,
                           const std::string& name, const files_index_file& file,
                           const files_reader_found& found) {
    if (writer->code != SQLITE_OK ||
        (file.row != 0 && !files_index_write_remove(writer, file.row, false))) {
        return false;
    }
    const std::string stem = files_tags_stem(name);
    const std::string& title = found.title.empty() && file.type != 0 ? stem : found.title;
    sqlite3_stmt* insert = writer->insert.get();
    int place = 0;
    sqlite3_bind_int64(insert, ++place, file.row);
    files_index_bind(insert, ++place, folder);
    files_index_bind(insert, ++place, name);
    sqlite3_bind_int(insert, ++place, file.type);
    sqlite3_bind_int64(insert, ++place, file.size);
    sqlite3_bind_int64(insert, ++place, file.changed);
    for (const std::string* text :
         {&stem, &title, &found.artist, &found.album, &found.genre, &found.album_artist}) {
        files_index_bind(insert, ++place, *text);
    }
    sqlite3_bind_int(insert, ++place, found.disc);
    sqlite3_bind_int(insert, ++place, found.track);
    sqlite3_bind_int(insert, ++place, found.duration);
    const bool done = step(writer, writer->insert);
    sqlite3_clear_bindings(insert);
    ++writer->changes;
    return done;
}

bool files_index_write_remove(files_index_writer* writer, int64_t row, bool gone) {
    if (writer->code != SQLITE_OK) {
        return false;
    }
    if (gone) {
        sqlite3_bind_int64(writer->remember.get(), 1, row);
        if (!step(writer, writer->remember)) {
            return false;
        }
    }
    sqlite3_bind_int64(writer->remove.get(), 1, row);
    ++writer->changes;
    return step(writer, writer->remove);
}

bool files_index_write_unread(files_index_writer* writer, const std::string& folder,
                              const std::string& name, int64_t size, int64_t changed) {
    if (writer->code != SQLITE_OK) {
        return false;
    }
    const files_index_statement insert = files_index_prepare(
        writer->database.get(),
        "INSERT OR REPLACE INTO unread(folder, file, size, changed) VALUES (?, ?, ?, ?)");
    files_index_bind(insert.get(), 1, folder);
    files_index_bind(insert.get(), 2, name);
    sqlite3_bind_int64(insert.get(), 3, size);
    sqlite3_bind_int64(insert.get(), 4, changed);
    ++writer->changes;
    return step(writer, insert);
}

bool files_index_write_trim(files_index_writer* writer) {
    if (writer->code != SQLITE_OK) {
        return false;
    }
    const files_index_statement forget = files_index_prepare(
        writer->database.get(),
        "DELETE FROM unread WHERE number <= (SELECT max(number) FROM unread) - ?");
    sqlite3_bind_int(forget.get(), 1, static_cast<int>(FILES_UNREAD_MOST));
    sqlite3_bind_int(writer->forget.get(), 1, FILES_INDEX_GONE);
    return step(writer, forget) && step(writer, writer->forget);
}
