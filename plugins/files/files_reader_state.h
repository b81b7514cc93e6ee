/* What the parts of files_reader.h share. */
#ifndef LYRANE_FILES_READER_STATE_H
#define LYRANE_FILES_READER_STATE_H

#include <deque>

#include <veloran/lock.h>

#include "files_reader.h"
#include "files_reader_child.h"

struct files_reader_entry {
    files_reader_job job;
    files_unread_state state;
    uint32_t number;
};

struct files_reader {
    vel_mutex lock = {}; /* a leaf; held for moments only */
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
    bool held VEL_GUARDED_BY(lock) = false;
    bool allowed VEL_GUARDED_BY(lock) = false;

    /* the holder's */
    files_reader_child child;
    std::deque<files_reader_entry> entries;
    size_t sent = 0; /* of the entries, from the front */
    uint32_t last_number = 0;
    int64_t used = 0;     /* of the processor, when the last answer came; ms */
    int64_t retry_at = 0; /* no start before */
    bool failure_said = false;
};

/* True when there is a process that is ready; it is started if there is none. [holder] */
bool files_reader_have_child(files_reader* reader, const files_cancel& cancel);

/* Ends the process, if there is one: how it ended, as files_reader_child_end. [holder] */
int files_reader_end_child(files_reader* reader, bool kill_it) noexcept;

#endif
