/* Files that are not read again as long as they do not change. */
#include "files_unread.h"

#include <algorithm>
#include <map>
#include <utility>

struct unread_entry {
    files_unread_file file;
    uint64_t number; /* the oldest has the lowest */
    bool lasting;
    bool written; /* the index has it */
};

/* By the uid of their source and their id. */
using unread_table = std::map<std::pair<std::string, std::string>, unread_entry>;

static vel_mutex unread_lock; /* a leaf: nothing is called with it */
static uint64_t last_number VEL_GUARDED_BY(unread_lock);

/* Not destroyed: a thread that hangs on a dead drive may outlive everything. */
static unread_table& table() VEL_REQUIRES(unread_lock) {
    static auto* made = new unread_table;
    return *made;
}

static void enter(const std::string& uid, const files_unread_file& file, bool lasting, bool written)
    VEL_REQUIRES(unread_lock) {
    unread_table& all = table();
    all[{uid, file.id}] = {file, ++last_number, lasting, written};
    if (all.size() > FILES_UNREAD_MOST) {
        all.erase(std::min_element(all.begin(), all.end(), [](const auto& left, const auto& right) {
            return left.second.number < right.second.number;
        }));
    }
}

void files_unread_load(files_index* index) {
    if (index->unread_known.load()) {
        return;
    }
    std::vector<files_unread_file> files;
    {
        vel_lock_guard hold(index->read_lock);
        if (index->unread_known.load()) {
            return;
        }
        sqlite3* database = files_index_reader(index);
        const files_index_statement list =
            database != nullptr
                ? files_index_prepare(
                      database, "SELECT folder, file, size, changed FROM unread ORDER BY number")
                : nullptr;
        while (list != nullptr && sqlite3_step(list.get()) == SQLITE_ROW) {
            files.push_back(
                {files_index_id(files_index_text(list.get(), 0), files_index_text(list.get(), 1)),
                 sqlite3_column_int64(list.get(), 2), sqlite3_column_int64(list.get(), 3)});
        }
        vel_lock_guard inner(unread_lock);
        for (const files_unread_file& file : files) {
            enter(index->uid, file, true, true);
        }
        index->unread_known = true;
    }
}

files_unread_state files_unread_find(const files_source& source, const files_unread_file& file) {
    vel_lock_guard hold(unread_lock);
    const auto found = table().find({source.uid, file.id});
    if (found == table().end() || found->second.file.size != file.size ||
        found->second.file.changed != file.changed) {
        return files_unread_state::readable;
    }
    return found->second.lasting ? files_unread_state::lasting : files_unread_state::for_now;
}

void files_unread_add(const files_source& source, const files_unread_file& file, bool lasting) {
    vel_lock_guard hold(unread_lock);
    enter(source.uid, file, lasting, false);
}

/* The first entry of a source that is not written, from one on; null: none. */
static unread_entry* next_unwritten(const std::string& uid, unread_table::iterator* at)
    VEL_REQUIRES(unread_lock) {
    for (; *at != table().end() && (*at)->first.first == uid; ++*at) {
        unread_entry& entry = (*at)->second;
        if (entry.lasting && !entry.written) {
            return &entry;
        }
    }
    return nullptr;
}

bool files_unread_waiting(const files_source& source) {
    vel_lock_guard hold(unread_lock);
    auto at = table().lower_bound({source.uid, ""});
    return next_unwritten(source.uid, &at) != nullptr;
}

std::vector<files_unread_file> files_unread_take(const files_source& source) {
    std::vector<files_unread_file> files;
    vel_lock_guard hold(unread_lock);
    auto at = table().lower_bound({source.uid, ""});
    while (unread_entry* entry = next_unwritten(source.uid, &at)) {
        files.push_back(entry->file);
        entry->written = true;
    }
    return files;
}

void files_unread_forget() noexcept {
    vel_lock_guard hold(unread_lock);
    table().clear();
}
