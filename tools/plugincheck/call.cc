#include "call.h"

#include <atomic>

#include "check.h"

static thread_local const char* inside;
static std::atomic<int32_t> running;

const char* call_inside() {
    return inside;
}

/* Begins a call; what it returns is given back to `leave`. */
static const char* enter(const char* entry) {
    const char* before = inside;
    inside = entry;
    ++running;
    check_note_call(entry);
    return before;
}

static int32_t leave(const char* before, int32_t result) {
    inside = before;
    if (--running == 0) {
        check_note_call(nullptr);
    }
    return result;
}

static const lyr_play_api* play_table() {
    return host().api->play_api;
}

static const lyr_browse_api* browse_table() {
    return host().api->browse_api;
}

void* call_play_create(int32_t ms_id, void* data) {
    if (play_table() == nullptr || play_table()->create == nullptr) {
        return nullptr;
    }
    const char* before = enter("create (play)");
    void* handle = play_table()->create(ms_id, data);
    (void)leave(before, 0);
    return handle;
}

void* call_browse_create(int32_t ms_id, void* data) {
    if (browse_table() == nullptr || browse_table()->create == nullptr) {
        return nullptr;
    }
    const char* before = enter("create (browse)");
    void* handle = browse_table()->create(ms_id, data);
    (void)leave(before, 0);
    return handle;
}

/* An entry that takes a handle alone. */
static int32_t call_plain(const char* name, int32_t (*entry)(void*) noexcept, void* handle) {
    if (entry == nullptr || handle == nullptr) {
        return CALL_MISSING;
    }
    const char* before = enter(name);
    return leave(before, entry(handle));
}

static int32_t call_number(const char* name, int32_t (*entry)(void*, int32_t) noexcept,
                           void* handle, int32_t number) {
    if (entry == nullptr || handle == nullptr) {
        return CALL_MISSING;
    }
    const char* before = enter(name);
    return leave(before, entry(handle, number));
}

int32_t call_play_destroy(void* handle) {
    return handle == nullptr ? CALL_MISSING
                             : call_plain("destroy (play)", play_table()->destroy, handle);
}

int32_t call_browse_destroy(void* handle) {
    return handle == nullptr ? CALL_MISSING
                             : call_plain("destroy (browse)", browse_table()->destroy, handle);
}

struct play_slot {
    const char* name;
    int32_t (*lyr_play_api::*entry)(void*) noexcept;
};

static const play_slot play_slots[] = {{"play", &lyr_play_api::play},
                                       {"pause", &lyr_play_api::pause},
                                       {"stop", &lyr_play_api::stop},
                                       {"next", &lyr_play_api::next},
                                       {"previous", &lyr_play_api::previous}};

const char* call_name(play_entry entry) {
    return play_slots[static_cast<int32_t>(entry)].name;
}

bool call_has(play_entry entry) {
    return play_table() != nullptr &&
           play_table()->*play_slots[static_cast<int32_t>(entry)].entry != nullptr;
}

int32_t call_play(host_session* session, play_entry entry) {
    if (entry == play_entry::play) {
        vel_lock_guard guard(host().lock);
        ++session->plays;
    }
    const play_slot& slot = play_slots[static_cast<int32_t>(entry)];
    return session->play == nullptr
               ? CALL_MISSING
               : call_plain(slot.name, play_table()->*slot.entry, session->play);
}

int32_t call_attach(host_session* session, const node_copy& node) {
    if (session->play == nullptr || play_table()->attach_medianode == nullptr) {
        return CALL_MISSING;
    }
    medianode record = node_record(node);
    const char* before = enter("attach_medianode");
    const int32_t result = play_table()->attach_medianode(session->play, &record);
    free_medianode_contents(&record); /* it was lent */
    return leave(before, result);
}

int32_t call_seek(host_session* session, int32_t position) {
    return session->play == nullptr
               ? CALL_MISSING
               : call_number("seek", play_table()->seek, session->play, position);
}

int32_t call_rate(host_session* session, float rate) {
    if (session->play == nullptr || play_table()->set_playback_rate == nullptr) {
        return CALL_MISSING;
    }
    const char* before = enter("set_playback_rate");
    return leave(before, play_table()->set_playback_rate(session->play, rate));
}

int32_t call_shuffle(host_session* session, int32_t mode) {
    return session->play == nullptr
               ? CALL_MISSING
               : call_number("shuffle", play_table()->shuffle, session->play, mode);
}

int32_t call_repeat(host_session* session, int32_t mode) {
    return session->play == nullptr
               ? CALL_MISSING
               : call_number("repeat", play_table()->repeat, session->play, mode);
}

int32_t call_browse(host_session* session, const char* id, int32_t offset, int32_t* count,
                    medianode** nodes) {
    if (session->browse == nullptr || browse_table()->browse == nullptr) {
        return CALL_MISSING;
    }
    const char* before = enter("browse");
    return leave(before, browse_table()->browse(session->browse, id, offset, count, nodes));
}

int32_t call_search(host_session* session, const char* filter, const char* key, int32_t offset,
                    int32_t* count, medianode** nodes) {
    if (session->browse == nullptr || browse_table()->search == nullptr) {
        return CALL_MISSING;
    }
    const char* before = enter("search");
    return leave(before,
                 browse_table()->search(session->browse, filter, key, offset, count, nodes));
}

int32_t call_metadata(host_session* session, const char* id, metadata** data) {
    if (session->browse == nullptr || browse_table()->get_metadata == nullptr) {
        return CALL_MISSING;
    }
    const char* before = enter("get_metadata");
    return leave(before, browse_table()->get_metadata(session->browse, id, data));
}

int32_t call_extended(host_session* session, const char* id, const char* const* keys,
                      char** values) {
    if (session->browse == nullptr || browse_table()->get_extended_metadata == nullptr) {
        return CALL_MISSING;
    }
    const char* before = enter("get_extended_metadata");
    return leave(before, browse_table()->get_extended_metadata(session->browse, id, keys, values));
}

int32_t call_update(host_session* session, int32_t count, medianode* nodes) {
    if (session->browse == nullptr || browse_table()->update_medianodes == nullptr) {
        return CALL_MISSING;
    }
    const char* before = enter("update_medianodes");
    return leave(before, browse_table()->update_medianodes(session->browse, count, nodes));
}

int32_t call_cancel(host_session* session) {
    return session->browse == nullptr
               ? CALL_MISSING
               : call_plain("cancel_browse", browse_table()->cancel_browse, session->browse);
}
