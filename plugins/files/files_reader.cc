/* Reading media files and playlists in another process: files that are read, and those that are
 * not. */
#include "files_reader.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "files_log.h"
#include "files_node.h"
#include "files_reader_state.h"

/* A file that is late is to blame if reading it has taken so much of the processor, in ms; else it
 * was the drive, or others had the processor. */
static constexpr int64_t BLAME_MS = FILES_READER_FILE_MS / 2;

/* --- files that are not read ---------------------------------------------------------------- */

/* A name in a line of the log: no byte of it begins another line. */
static std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(),
        [](char byte) { return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7F; }, '?');
    return text;
}

/* How the process ended. */
static std::string ending_of(int status) {
    if (status != -1 && WIFSIGNALED(status)) {
        return "killed its reader by signal " + std::to_string(WTERMSIG(status));
    }
    if (status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == FILES_READER_NO_MEMORY) {
        return "needs too much memory to be read";
    }
    return "made its reader end";
}

/* Whoever has no memory left or is killed from outside ends by that signal. */
static bool is_own_fault(int status) noexcept {
    return status != -1 && !(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

static void blame(const files_source& source, const files_unread_file& file, bool lasting,
                  const std::string& how) {
    files_unread_add(source, file, lasting);
    files_log(3, (printable(files_node_path(source, file.id.c_str())) + ' ' + how +
                  (lasting ? "; it is not read until it changes" : "; it is left out for now"))
                     .c_str());
}

/* Ends the process that did not answer, and says of the file what it did. */
static files_reader_end give_up(files_reader* reader, const files_source& source,
                                const files_unread_file& file, files_reader_packet why) {
    int status = -1;
    switch (why) {
    case files_reader_packet::late: {
        const int64_t used = files_reader_child_used(reader->child) - reader->used;
        files_reader_end_child(reader, true);
        const bool own_fault = used >= BLAME_MS;
        blame(source, file, own_fault, "takes too long to read");
        return own_fault ? files_reader_end::unread : files_reader_end::for_now;
    }
    case files_reader_packet::senseless:
        files_reader_end_child(reader, true);
        blame(source, file, true, "made its reader answer nonsense");
        return files_reader_end::unread;
    case files_reader_packet::died:
        status = files_reader_end_child(reader, false);
        blame(source, file, is_own_fault(status), ending_of(status));
        return is_own_fault(status) ? files_reader_end::unread : files_reader_end::for_now;
    default:
        files_reader_end_child(reader, true);
        return files_reader_end::cancelled;
    }
}

/* --- reading -------------------------------------------------------------------------------- */

bool files_reader_open(const files_source& source, const std::string& id, files_reader_job* job) {
    vel_fd fd(files_node_open(source, id.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    struct stat facts = {};
    if (fd.value < 0 || fstat(fd.value, &facts) != 0) {
        return false;
    }
    if (!S_ISREG(facts.st_mode)) {
        errno = EINVAL;
        return false;
    }
    job->file = {id, facts.st_size, files_index_time(facts.st_mtim.tv_sec, facts.st_mtim.tv_nsec)};
    job->fd = fd.release();
    return true;
}

static files_reader_request request_of(const files_reader_entry& entry) {
    files_reader_request request = {};
    request.number = entry.number;
    request.wanted = entry.job.wish.wanted;
    request.keys = entry.job.wish.keys;
    request.size = static_cast<uint64_t>(entry.job.file.size);
    const std::string& id = entry.job.file.id;
    const size_t name =
        std::max(id.rfind('/') + 1, id.size() - std::min(id.size(), FILES_READER_NAME - 1));
    std::memcpy(request.name, id.data() + name, id.size() - name);
    return request;
}

/* Sends what was not sent yet, as far as the process takes it. */
static void send_entries(files_reader* reader) {
    for (; reader->sent < reader->entries.size(); ++reader->sent) {
        const files_reader_entry& entry = reader->entries[reader->sent];
        if (entry.state == files_unread_state::readable &&
            !files_reader_child_send(reader->child, request_of(entry), entry.job.fd)) {
            return;
        }
    }
}

void files_reader_put(files_reader* reader, const files_source& source, files_reader_job job) {
    const files_unread_state state = files_unread_find(source, job.file);
    reader->entries.push_back({std::move(job), state, ++reader->last_number});
    if (reader->child.pid >= 0) {
        send_entries(reader);
    }
}

/* Receives the answer for the first entry, which can be read. */
static files_reader_end receive(files_reader* reader, const files_source& source,
                                const files_cancel& cancel, files_reader_found* found) {
    if (!files_reader_have_child(reader, cancel)) {
        return files_cancelled(cancel) ? files_reader_end::cancelled : files_reader_end::for_now;
    }
    send_entries(reader);
    const files_reader_entry& entry = reader->entries.front();
    std::string bytes;
    files_reader_packet result =
        files_reader_child_receive(&reader->child, entry.number, cancel, &bytes);
    if (result == files_reader_packet::whole &&
        !files_reader_answer_take(bytes, entry.job.wish, found)) {
        *found = {};
        result = files_reader_packet::senseless;
    }
    if (result != files_reader_packet::whole) {
        return give_up(reader, source, entry.job.file, result);
    }
    reader->used = files_reader_child_used(reader->child);
    if (reader->used > FILES_READER_WORN_MS) {
        files_reader_end_child(reader, true); /* what was sent ahead is sent to the next one */
    }
    return files_reader_end::read;
}

files_reader_end files_reader_take(files_reader* reader, const files_source& source,
                                   const files_cancel& cancel, files_reader_found* found) {
    *found = {};
    files_reader_end end = files_reader_end::unread;
    switch (reader->entries.front().state) {
    case files_unread_state::readable:
        end = receive(reader, source, cancel, found);
        break;
    case files_unread_state::for_now:
        end = files_reader_end::for_now;
        break;
    default:
        break;
    }
    reader->entries.pop_front();
    reader->sent -= std::min<size_t>(reader->sent, 1);
    return end;
}

files_reader_end files_reader_ask(const files_source& source, const char* id,
                                  const files_reader_wish& wish, const files_cancel& cancel,
                                  files_reader_found* found) {
    *found = {};
    files_reader_job job;
    if (!files_reader_open(source, id, &job)) {
        return files_reader_end::for_now;
    }
    const vel_fd fd(job.fd);
    job.wish = wish;
    const files_reader_hold hold = files_reader_begin(files_reader_use::listener, cancel);
    if (hold == nullptr) {
        return files_reader_end::cancelled;
    }
    files_reader_put(hold.get(), source, std::move(job));
    return files_reader_take(hold.get(), source, cancel, found);
}
