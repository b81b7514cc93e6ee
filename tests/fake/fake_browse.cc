/* The browse table. */
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "fake_calls.h"
#include "fake_words.h"

namespace {

/* Logs a call on a browse session. */
call_effect begin(const char* entry, const void* handle, const char* id) {
    fake_call call = session_call(entry, handle, false);
    if (id != nullptr) {
        call.id = id;
    }
    return call_begin(std::move(call));
}

/* The media source that a session works with. */
int32_t source_of(const call_effect& effect) VEL_REQUIRES(state.lock) {
    const fake_session* session = fake_session_at(effect.session);
    return session == nullptr ? -1 : session->ms_id;
}

/* Hands out the items as the rules of the call want them. */
int32_t deliver(int32_t ms_id, const std::vector<tree_item>& items, const call_effect& effect,
                int32_t* count, medianode** nodes) VEL_REQUIRES(state.lock) {
    *count = static_cast<int32_t>(items.size());
    if (items.empty()) {
        return 0;
    }
    const fake_source* source = fake_source_by_id(ms_id);
    medianode* records = static_cast<medianode*>(std::calloc(items.size(), sizeof *records));
    if (records == nullptr) {
        return -1;
    }
    for (size_t i = 0; i < items.size(); ++i) {
        fake_fill_node(items[i], source, ms_id, records[i]);
        if (words_flag(effect.rules, "nullid")) {
            std::free(records[i].id);
            records[i].id = nullptr;
        }
    }
    *nodes = records;
    return 0;
}

void check_page(const char* entry, int32_t offset, const int32_t* count, medianode* const* nodes) {
    vel_lock_guard guard(state.lock);
    if (count == nullptr || nodes == nullptr) {
        fake_violation(std::string(entry) + ": nowhere to store");
        return;
    }
    if (offset < 0 || *count < -1) {
        fake_violation(std::string(entry) + ": offset or count out of range");
    }
    if (*nodes != nullptr) {
        fake_violation(std::string(entry) + ": the array pointer is not null");
    }
}

/* What browse and search have in common; `text` is what `look_up` goes by. */
int32_t page(const call_effect& effect, decltype(tree_page)* look_up, const char* text,
             int32_t offset, int32_t* count, medianode** nodes) {
    if (effect.result) {
        return *effect.result;
    }
    if (const auto told = words_number(effect.rules, "count")) {
        *count = static_cast<int32_t>(*told);
        return 0;
    }
    if (offset < 0 || *count < -1) {
        return -1;
    }
    const int64_t wanted = *count < 0 ? INT32_MAX : *count;
    const int64_t most = std::min(wanted, words_number(effect.rules, "page").value_or(wanted)) +
                         words_number(effect.rules, "over").value_or(0);
    vel_lock_guard guard(state.lock);
    const int32_t ms_id = source_of(effect);
    std::vector<tree_item> items;
    if (!look_up(fake_tree_of(ms_id), text == nullptr ? "" : text,
                 words_flag(effect.rules, "rewind") ? 0 : offset, most, items)) {
        return -1;
    }
    return deliver(ms_id, items, effect, count, nodes);
}

/* The metadata of a node, or null: it has none. */
metadata* metadata_of(int32_t ms_id, const std::string& id) VEL_REQUIRES(state.lock) {
    const auto item = tree_find(fake_tree_of(ms_id), id);
    const auto written = state.metadata.find(id);
    auto words =
        written == state.metadata.end() ? std::map<std::string, std::string>() : written->second;
    if (item && item->type != LYR_NODE_FOLDER) {
        words.emplace("duration", "180000");
        if (item->name) {
            words.emplace("title", *item->name);
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
    if (data == nullptr) {
        return nullptr;
    }
    *data = {text("title"),    number("duration"), text("artwork"), text("artist"),
             text("album"),    text("genre"),      text("year"),    number("width"),
             number("height"), number("disc"),     number("track"), text("extra")};
    return data;
}

int32_t fake_browse(void* handle, const char* id, int32_t offset, int32_t* count,
                    medianode** nodes) noexcept {
    check_page("browse", offset, count, nodes);
    const call_effect effect = begin("browse", handle, id);
    return call_end(effect, page(effect, tree_page, id, offset, count, nodes));
}

int32_t fake_search(void* handle, const char*, const char* key, int32_t offset, int32_t* count,
                    medianode** nodes) noexcept {
    check_page("search", offset, count, nodes);
    const call_effect effect = begin("search", handle, nullptr);
    return call_end(effect, page(effect, tree_search, key, offset, count, nodes));
}

int32_t fake_metadata(void* handle, const char* id, metadata** data) noexcept {
    const call_effect effect = begin("metadata", handle, id);
    if (!effect.result && id != nullptr) {
        vel_lock_guard guard(state.lock);
        *data = metadata_of(source_of(effect), id);
    }
    return call_end(effect, effect.result.value_or(0));
}

int32_t fake_extended(void* handle, const char* id, const char* const* keys,
                      char** values) noexcept {
    const call_effect effect = begin("extended", handle, id);
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

int32_t fake_update(void* handle, int32_t count, medianode* nodes) noexcept {
    const call_effect effect = begin("update", handle, nullptr);
    if (!effect.result) {
        vel_lock_guard guard(state.lock);
        const int32_t ms_id = source_of(effect);
        const fake_source* source = fake_source_by_id(ms_id);
        for (medianode* node = nodes; node < nodes + count; ++node) {
            const auto item = tree_find(fake_tree_of(ms_id), node->id == nullptr ? "" : node->id);
            if (item) {
                medianode fresh;
                fake_fill_node(*item, source, ms_id, fresh);
                if (source == nullptr) { /* unknown while it is still being reported */
                    std::swap(fresh.ms_uid, node->ms_uid);
                    fresh.ms_type = node->ms_type;
                }
                fake_free_node(*node);
                *node = fresh;
            }
        }
    }
    return call_end(effect, effect.result.value_or(0));
}

int32_t fake_cancel(void* handle) noexcept {
    const call_effect effect = begin("cancel", handle, nullptr);
    {
        vel_lock_guard guard(state.lock);
        if (fake_session* session = fake_session_at(effect.session)) {
            session->cancels += 1;
            fake_wake();
        }
    }
    return call_end(effect, effect.result.value_or(0));
}

} // namespace

constinit const lyr_browse_api fake_browse_entries = {
    .create =
        [](int32_t ms_id, void* data) noexcept {
            return session_create("browse.create", false, ms_id, data);
        },
    .destroy =
        [](void* handle) noexcept { return session_destroy("browse.destroy", false, handle); },
    .reserved = nullptr,
    .browse = fake_browse,
    .search = fake_search,
    .get_metadata = fake_metadata,
    .get_extended_metadata = fake_extended,
    .update_medianodes = fake_update,
    .cancel_browse = fake_cancel,
};
