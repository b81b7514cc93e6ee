/* Reading media files and playlists in another process: that process, and who has it. */
#include <atomic>
#include <string>
#include <utility>

#include <dlfcn.h>

#include "files_log.h"
#include "files_reader_state.h"

/* A process that could not be started is tried again after so many ms. */
static constexpr int64_t RETRY_MS = 5000;
/* Who waits for a reader looks so often whether it is cancelled, in ms. */
static constexpr int WAIT_MS = 50;

/* Not destroyed: a scan that hangs may hold one to the end. */
static files_reader& reader_of(files_reader_use use) {
    static auto* readers = new files_reader[2];
    return readers[use == files_reader_use::scan ? 1 : 0];
}

/* --- the process ---------------------------------------------------------------------------- */

/* The program stands beside the library that holds this function. */
static std::string program_path() {
    Dl_info self = {};
    std::string path;
    if (dladdr(reinterpret_cast<void*>(&program_path), &self) != 0 && self.dli_fname != nullptr) {
        path = self.dli_fname;
    }
    const size_t slash = path.rfind('/');
    path.erase(slash == std::string::npos ? 0 : slash + 1);
    return path + "files-reader";
}

int files_reader_end_child(files_reader* reader, bool kill_it) noexcept {
    reader->sent = 0;
    reader->used = 0;
    return files_reader_child_end(&reader->child, kill_it);
}

static bool may_start(files_reader* reader) noexcept {
    vel_lock_guard hold(reader->lock);
    return reader->allowed && files_reader_child_now() >= reader->retry_at;
}

static bool start_child(files_reader* reader, std::string* reason) {
    return may_start(reader) && files_reader_child_start(program_path(), &reader->child, reason);
}

bool files_reader_have_child(files_reader* reader, const files_cancel& cancel) {
    static std::atomic<bool> notice_said{false};
    std::string reason;
    std::string notice;
    if ((reader->child.pid >= 0 || start_child(reader, &reason)) &&
        files_reader_child_greet(&reader->child, cancel, &reason, &notice)) {
        reader->failure_said = false;
        if (!notice.empty() && !notice_said.exchange(true)) {
            files_log(4, notice.c_str());
        }
        return true;
    }
    if (!reason.empty() && !files_cancelled(cancel)) {
        reader->retry_at = files_reader_child_now() + RETRY_MS;
        if (!std::exchange(reader->failure_said, true)) {
            files_log(3, ("no tags are read: " + program_path() + ": " + reason).c_str());
        }
    }
    return false;
}

/* --- holding -------------------------------------------------------------------------------- */

files_reader_hold files_reader_begin(files_reader_use use, const files_cancel& cancel) {
    files_reader& reader = reader_of(use);
    vel_lock_guard hold(reader.lock);
    while (reader.held) {
        if (files_cancelled(cancel)) {
            return nullptr;
        }
        (void)vel_wait_until(&reader.changed, &reader.lock, vel_deadline(WAIT_MS));
    }
    reader.held = true;
    return files_reader_hold(&reader);
}

void files_reader_prepare() noexcept {
    files_reader& reader = reader_of(files_reader_use::listener);
    {
        vel_lock_guard hold(reader.lock);
        if (reader.held) {
            return;
        }
        reader.held = true;
    }
    const files_reader_hold hold(&reader);
    try {
        std::string reason;
        if (reader.child.pid < 0) {
            (void)start_child(&reader, &reason);
        }
    } catch (...) {
        return; /* it is started when it is needed */
    }
}

/* Gives the reader back, unless its process has to be ended before. */
static bool give_back(files_reader* reader) noexcept {
    vel_lock_guard hold(reader->lock);
    if (!reader->allowed && reader->child.pid >= 0) {
        return false;
    }
    reader->held = false;
    pthread_cond_signal(&reader->changed);
    return true;
}

void files_reader_let_go::operator()(files_reader* reader) const noexcept {
    if (!reader->entries.empty()) {
        reader->entries.clear();
        files_reader_end_child(reader, true);
    }
    while (!give_back(reader)) {
        files_reader_end_child(reader, true);
    }
}

/* Ends the process. Who holds the reader does it if it is not allowed any more. */
static void end_if_free(files_reader* reader, bool allowed) noexcept {
    {
        vel_lock_guard hold(reader->lock);
        reader->allowed = reader->allowed && allowed;
        if (reader->held) {
            return;
        }
        reader->held = true;
    }
    files_reader_end_child(reader, false);
    files_reader_let_go{}(reader);
}

void files_reader_rest() noexcept {
    end_if_free(&reader_of(files_reader_use::scan), true);
}

static void allow(files_reader* reader) noexcept {
    vel_lock_guard hold(reader->lock);
    reader->allowed = true;
    if (!reader->held) {
        reader->retry_at = 0;
    }
}

void files_reader_allow() noexcept {
    allow(&reader_of(files_reader_use::listener));
    allow(&reader_of(files_reader_use::scan));
}

void files_reader_stop() noexcept {
    end_if_free(&reader_of(files_reader_use::listener), false);
    end_if_free(&reader_of(files_reader_use::scan), false);
    files_reader_child_collect();
    files_unread_forget();
}
