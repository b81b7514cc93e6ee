/* Browsing, searching and extended metadata. */
#include <cstdlib>
#include <cstring>

#include "mediasource.h"
#include "msglog.h"
#include "record_encode.h"
#include "request_call.h"

/* Replies with a list of nodes, and frees it. */
static void reply_nodes(request_call* call, medianode* nodes, int32_t count) noexcept {
    int32_t size = compute_media_node_size(nodes, count);
    vel_bytes buffer(size > 0 ? static_cast<unsigned char*>(malloc(static_cast<size_t>(size)))
                              : nullptr);
    if (size != 0 && buffer == nullptr) {
        msglog(3, "A reply with %d media nodes does not fit in memory", count);
        request_reply(call, -1);
    } else {
        pack_media_node(nodes, count, buffer.get(), &size);
        const iovec pieces[] = {{&count, sizeof count}, {buffer.get(), static_cast<size_t>(size)}};
        request_replyv(call, 0, pieces, 2);
    }
    free_medianodes(&nodes, count);
}

void handle_browse(request_call* call) noexcept {
    const int32_t ms_id = request_read_i32(&call->reader);
    const int32_t offset = request_read_i32(&call->reader);
    int32_t count = request_read_i32(&call->reader);
    const uint32_t length = request_read_u32(&call->reader);
    const vel_text id = request_read_text(&call->reader, length);
    if (request_malformed(call)) {
        return;
    }
    msglog(7, "media node id: %s", id.get());
    medianode* nodes = nullptr;
    int32_t result = -1;
    {
        vel_lock_guard guard(call->player->lock);
        if (call->player->closed == 0) {
            result = mediasource_browse(call->control, call->player, ms_id, id.get(), offset,
                                        &count, &nodes);
        }
    }
    msglog(7, "browse result (%d): %d", result, count);
    if (result != 0) {
        request_reply(call, -1);
        return;
    }
    reply_nodes(call, nodes, count);
}

/* A text with a signed length; none for a length of 0 or below. */
static vel_text read_optional_text(request_call* call) noexcept {
    const int32_t length = request_read_i32(&call->reader);
    return length > 0 ? request_read_text(&call->reader, length) : vel_text();
}

static const char* shown(const vel_text& text) noexcept {
    return text != nullptr ? text.get() : "NULL";
}

void handle_search(request_call* call) noexcept {
    const int32_t ms_id = request_read_i32(&call->reader);
    const int32_t offset = request_read_i32(&call->reader);
    int32_t count = request_read_i32(&call->reader);
    const vel_text filter = read_optional_text(call);
    const vel_text key = read_optional_text(call);
    if (request_malformed(call)) {
        return;
    }
    msglog(7, "filter: %s\tsearch: %s", shown(filter), shown(key));
    medianode* nodes = nullptr;
    int32_t result = -1;
    {
        vel_lock_guard guard(call->player->lock);
        if (call->player->closed == 0) {
            result = mediasource_search(call->control, call->player, ms_id, filter.get(), key.get(),
                                        offset, &count, &nodes);
        }
    }
    msglog(7, "search result (%d): %d", result, count);
    if (result != 0) {
        request_reply(call, -1);
        return;
    }
    reply_nodes(call, nodes, count);
}

/* The keys of a request and the values that the plug-in gives them; both end with null. */
struct key_table {
    char** keys;
    char** values;
    uint32_t count;
};

static void key_table_free(key_table* table) noexcept {
    for (uint32_t i = 0; i < table->count; ++i) {
        if (table->keys != nullptr) {
            free(table->keys[i]);
        }
        if (table->values != nullptr) {
            free(table->values[i]); /* a plug-in that fails may have stored some */
        }
    }
    free(table->keys);
    free(table->values);
}

/* Reads count and keys; the count is bounded by the bytes that could hold so many lengths. */
static void read_keys(request_call* call, key_table* table) noexcept {
    const uint32_t n = request_read_u32(&call->reader);
    if (n > request_remaining(&call->reader) / static_cast<int64_t>(sizeof(uint32_t))) {
        call->reader.malformed = true;
        return;
    }
    const size_t entries = static_cast<size_t>(n) + 1;
    table->keys = static_cast<char**>(calloc(entries, sizeof(char*)));
    table->values = static_cast<char**>(calloc(entries, sizeof(char*)));
    if (table->keys == nullptr || table->values == nullptr) {
        call->reader.malformed = true;
        return;
    }
    table->count = n;
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t length = request_read_u32(&call->reader);
        table->keys[i] = request_read_text(&call->reader, length).release();
    }
}

/* The values one after the other, each behind its length. False without memory. */
static bool pack_values(const key_table* table, vel_bytes* buffer, size_t* size) noexcept {
    *size = 0;
    for (uint32_t i = 0; i < table->count; ++i) {
        const char* value = table->values[i];
        *size += sizeof(uint32_t) + (value != nullptr ? strlen(value) : 0);
    }
    buffer->reset(static_cast<unsigned char*>(malloc(*size + 1)));
    if (*buffer == nullptr || *size > INT32_MAX) {
        return false;
    }
    unsigned char* at = buffer->get();
    for (uint32_t i = 0; i < table->count; ++i) {
        const char* value = table->values[i] != nullptr ? table->values[i] : "";
        const uint32_t length = static_cast<uint32_t>(strlen(value));
        memcpy(at, &length, sizeof length);
        memcpy(at + sizeof length, value, length);
        at += sizeof length + length;
    }
    return true;
}

static void query_values(request_call* call, int32_t ms_id, const char* id,
                         key_table* table) noexcept {
    for (uint32_t i = 0; i < table->count; ++i) {
        msglog(7, "keys : %s", table->keys[i]);
    }
    int32_t result = -1;
    {
        vel_lock_guard guard(call->player->lock);
        if (call->player->closed == 0) {
            result = mediasource_get_extended_metadata(call->control, call->player, ms_id, id,
                                                       table->keys, table->values);
        }
    }
    vel_bytes buffer;
    size_t size = 0;
    if (result != 0 || !pack_values(table, &buffer, &size)) {
        request_reply(call, -1);
        return;
    }
    const iovec piece = {buffer.get(), size};
    request_replyv(call, 0, &piece, 1);
}

void handle_get_extended_metadata(request_call* call) noexcept {
    const int32_t ms_id = request_read_i32(&call->reader);
    const uint32_t length = request_read_u32(&call->reader);
    const vel_text id = request_read_text(&call->reader, length);
    key_table table = {};
    read_keys(call, &table);
    if (!request_malformed(call)) {
        msglog(7, "media source id: %d\tmedia node id: %s\t keys: %d", ms_id, id.get(),
               static_cast<int>(table.count));
        query_values(call, ms_id, id.get(), &table);
    }
    key_table_free(&table);
}
