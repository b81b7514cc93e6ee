/* The browse table. */
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "fake_sessions.h"
#include "fake_words.h"

namespace {

/* The media source that a session works with. */
int32_t source_of(fake_state& state, const void* handle) VEL_REQUIRES(state.lock) {
    const auto found = state.sessions.find(fake_handle_serial(handle));
    return found == state.sessions.end() ? -1 : found->second.ms_id;
}

/* How many records to hand out of `available`, when `wanted` (-1: all) are asked for. */
int32_t page_size(int32_t available, int32_t wanted, const call_effect& effect) {
    int32_t size = wanted < 0 ? available : std::min(available, wanted);
    if (effect.page) {
        size = std::min(size, *effect.page);
    }
    return std::min(available, size + effect.over);
}

/* Hands out the items as the rules of the call want them. */
int32_t deliver(fake_state& state, int32_t ms_id, const std::vector<tree_item>& items,
                const call_effect& effect, int32_t* count, medianode** nodes)
    VEL_REQUIRES(state.lock) {
    *count = static_cast<int32_t>(items.size());
    if (items.empty()) {
        return 0;
    }
    const fake_source* source = fake_source_by_id(state, ms_id);
    medianode* records = static_cast<medianode*>(std::calloc(items.size(), sizeof *records));
    if (records == nullptr) {
        return -1;
    }
    for (size_t i = 0; i < items.size(); ++i) {
        fake_fill_node(items[i], source, ms_id, records[i]);
        if (effect.null_ids) {
            std::free(records[i].id);
            records[i].id = nullptr;
        }
    }
    *nodes = records;
    return 0;
}

void check_page(fake_state& state, const char* entry, int32_t offset, const int32_t* count,
                medianode* const* nodes) VEL_REQUIRES(state.lock) {
    if (count == nullptr || nodes == nullptr) {
        fake_violation(state, std::string(entry) + ": nowhere to store");
        return;
    }
    if (offset < 0 || *count < -1) {
        fake_violation(state, std::string(entry) + ": offset or count out of range");
    }
    if (*nodes != nullptr) {
        fake_violation(state, std::string(entry) + ": the array pointer is not null");
    }
}

int32_t browse_items(fake_state& state, const void* handle, const char* id, int32_t offset,
                     const call_effect& effect, int32_t* count, medianode** nodes)
    VEL_REQUIRES(state.lock) {
    const int32_t ms_id = source_of(state, handle);
    const tree& source = fake_tree_of(state, ms_id);
    const std::string folder = id == nullptr ? "" : id;
    const int32_t total = tree_count(source, folder);
    if (total < 0 || offset < 0 || *count < -1) {
        return -1;
    }
    const int32_t first = std::min(total, effect.rewind ? 0 : offset);
    const int32_t size = page_size(total - first, *count, effect);
    std::vector<tree_item> items(static_cast<size_t>(size));
    for (int32_t i = 0; i < size; ++i) {
        tree_child(source, folder, first + i, items[static_cast<size_t>(i)]);
    }
    return deliver(state, ms_id, items, effect, count, nodes);
}

int32_t search_items(fake_state& state, const void* handle, const char* key, int32_t offset,
                     const call_effect& effect, int32_t* count, medianode** nodes)
    VEL_REQUIRES(state.lock) {
    if (offset < 0 || *count < -1) {
        return -1;
    }
    const int32_t ms_id = source_of(state, handle);
    const int32_t wanted = page_size(INT32_MAX - effect.over, *count, effect);
    return deliver(state, ms_id,
                   tree_search(fake_tree_of(state, ms_id), key == nullptr ? "" : key,
                               effect.rewind ? 0 : offset, wanted),
                   effect, count, nodes);
}

/* The metadata of a node, or null: it has none. */
metadata* metadata_of(fake_state& state, int32_t ms_id, const std::string& id)
    VEL_REQUIRES(state.lock) {
    tree_item item;
    const bool known = tree_find(fake_tree_of(state, ms_id), id, item);
    std::map<std::string, std::string> words;
    if (known && item.type != LYR_NODE_FOLDER) {
        words["duration"] = "180000";
        if (item.name) {
            words["title"] = *item.name;
        }
    }
    const auto written = state.metadata.find(id);
    if (written != state.metadata.end()) {
        for (const auto& [key, value] : written->second) {
            words[key] = value;
        }
    }
    if (words.empty()) {
        return nullptr;
    }
    const auto text = [&](const char* key) {
        const auto found = words.find(key);
        return found == words.end() ? nullptr : strdup(found->second.c_str());
    };
    const auto number = [&](const char* key) {
        return static_cast<int32_t>(words_to_number(words[key]).value_or(0));
    };
    metadata* data = static_cast<metadata*>(std::calloc(1, sizeof *data));
    *data = {text("title"),    number("duration"), text("artwork"), text("artist"),
             text("album"),    text("genre"),      text("year"),    number("width"),
             number("height"), number("disc"),     number("track"), text("extra")};
    return data;
}

extern "C" {

static void* fake_browse_create(int32_t ms_id, void* data) noexcept {
    return session_create("browse.create", false, ms_id, data);
}

static int32_t fake_browse_destroy(void* handle) noexcept {
    return session_destroy("browse.destroy", false, handle);
}

static int32_t fake_browse(void* handle, const char* id, int32_t offset, int32_t* count,
                           medianode** nodes) noexcept {
    fake_state& state = fake();
    fake_call call = session_checked_call("browse", handle, false);
    if (id != nullptr) {
        call.id = id;
    }
    call.arguments = call_word("offset", offset) + call_word("count", *count);
    {
        vel_lock_guard guard(state.lock);
        check_page(state, "browse", offset, count, nodes);
        call.ms = source_of(state, handle);
    }
    const call_effect effect = call_begin(std::move(call));
    int32_t result = effect.result.value_or(0);
    if (!effect.result && effect.count) {
        *count = *effect.count;
    } else if (!effect.result) {
        vel_lock_guard guard(state.lock);
        result = browse_items(state, handle, id, offset, effect, count, nodes);
    }
    return call_end(effect, result);
}

static int32_t fake_search(void* handle, const char* filter, const char* key, int32_t offset,
                           int32_t* count, medianode** nodes) noexcept {
    fake_state& state = fake();
    fake_call call = session_checked_call("search", handle, false);
    call.arguments = call_word("filter", filter) + call_word("key", key) +
                     call_word("offset", offset) + call_word("count", *count);
    {
        vel_lock_guard guard(state.lock);
        check_page(state, "search", offset, count, nodes);
        call.ms = source_of(state, handle);
    }
    const call_effect effect = call_begin(std::move(call));
    int32_t result = effect.result.value_or(0);
    if (!effect.result && effect.count) {
        *count = *effect.count;
    } else if (!effect.result) {
        vel_lock_guard guard(state.lock);
        result = search_items(state, handle, key, offset, effect, count, nodes);
    }
    return call_end(effect, result);
}

static int32_t fake_metadata(void* handle, const char* id, metadata** data) noexcept {
    fake_state& state = fake();
    fake_call call = session_checked_call("metadata", handle, false);
    if (id != nullptr) {
        call.id = id;
    }
    const call_effect effect = call_begin(std::move(call));
    if (!effect.result && !effect.null && id != nullptr) {
        vel_lock_guard guard(state.lock);
        *data = metadata_of(state, source_of(state, handle), id);
    }
    return call_end(effect, effect.result.value_or(0));
}

static int32_t fake_extended(void* handle, const char* id, const char* const* keys,
                             char** values) noexcept {
    fake_state& state = fake();
    fake_call call = session_checked_call("extended", handle, false);
    if (id != nullptr) {
        call.id = id;
    }
    for (int32_t i = 0; keys[i] != nullptr; ++i) {
        call.arguments += call_word("key", keys[i]);
    }
    const call_effect effect = call_begin(std::move(call));
    {
        /* Also before a failure: what was stored is the service's to free. */
        vel_lock_guard guard(state.lock);
        std::map<std::string, std::string>& known = state.extended[id == nullptr ? "" : id];
        for (int32_t i = 0; keys[i] != nullptr; ++i) {
            const auto found = known.find(keys[i]);
            values[i] = found == known.end() ? nullptr : strdup(found->second.c_str());
        }
    }
    return call_end(effect, effect.result.value_or(0));
}

static int32_t fake_update(void* handle, int32_t count, medianode* nodes) noexcept {
    fake_state& state = fake();
    fake_call call = session_checked_call("update", handle, false);
    call.arguments = call_word("count", count);
    const call_effect effect = call_begin(std::move(call));
    if (!effect.result) {
        vel_lock_guard guard(state.lock);
        const int32_t ms_id = source_of(state, handle);
        const fake_source* source = fake_source_by_id(state, ms_id);
        for (int32_t i = 0; i < count; ++i) {
            tree_item item;
            if (nodes[i].id != nullptr &&
                tree_find(fake_tree_of(state, ms_id), nodes[i].id, item)) {
                char* uid = nodes[i].ms_uid;
                const int32_t type = nodes[i].ms_type;
                for (char* text : {nodes[i].id, nodes[i].name, nodes[i].url}) {
                    std::free(text);
                }
                fake_fill_node(item, source, ms_id, nodes[i]);
                if (source == nullptr) { /* unknown while it is still being reported */
                    nodes[i].ms_uid = uid;
                    nodes[i].ms_type = type;
                } else {
                    std::free(uid);
                }
            }
        }
    }
    return call_end(effect, effect.result.value_or(0));
}

static int32_t fake_cancel(void* handle) noexcept {
    fake_state& state = fake();
    const call_effect effect = call_begin(session_checked_call("cancel", handle, false));
    {
        vel_lock_guard guard(state.lock);
        const auto found = state.sessions.find(fake_handle_serial(handle));
        if (found != state.sessions.end()) {
            found->second.cancels += 1;
            fake_wake(state);
        }
    }
    return call_end(effect, effect.result.value_or(0));
}
}

} // namespace

const lyr_browse_api fake_browse_entries = {fake_browse_create, fake_browse_destroy, nullptr,
                                            fake_browse,        fake_search,         fake_metadata,
                                            fake_extended,      fake_update,         fake_cancel};
