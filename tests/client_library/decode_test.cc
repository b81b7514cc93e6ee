/* The decoders on bytes that are too few or lie; what they read is told in tests/protocol. */
#include <cstdlib>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include <lyrane/client.h>

namespace {

using bytes = std::vector<unsigned char>;

/* Written by hand from the layouts. */
const bytes SOURCE = {
    0x05, 0,    0,    0,                           /* id */
    0x02, 0,    0,    0,                           /* type */
    0xFF, 0xFF, 0xFF, 0xFF,                        /* status */
    0x01, 0,    0x04, 0,    0x02, 0,    0,   0x80, /* capabilities */
    0x03, 0,    0,    0,    'u',  'i',  'd',       /* uid */
    0x00, 0,    0,    0,                           /* name, empty */
    0x02, 0,    0,    0,    0xC3, 0x28,            /* view_name, no UTF-8 */
};
const bytes NODE = {
    0x01, 0,    0,    0,         /* type */
    0x10, 0x27, 0,    0,         /* count */
    0x07, 0,    0,    0,         /* ms_id */
    0x00, 0x01, 0,    0,         /* ms_type */
    0x01, 0,    0,    0,    '/', /* id */
    0xFE, 0xFF, 0xFF, 0xFF,      /* name, absent */
};
const bytes METADATA = {
    0x10, 0x27, 0, 0,    0x80, 0x02, 0, 0,    0xE0, 0x01, 0, 0,   0x02,
    0,    0,    0, 0x09, 0,    0,    0, 0x01, 0,    0,    0, 't', /* title */
    0x01, 0,    0, 0,    'w',                                     /* artwork */
    0x01, 0,    0, 0,    'a',                                     /* artist */
    0x01, 0,    0, 0,    'l',                                     /* album */
    0x01, 0,    0, 0,    'g',                                     /* genre */
    0x01, 0,    0, 0,    'y',                                     /* year */
    0x01, 0,    0, 0,    'x',                                     /* extra */
};

/* A copy on the heap of exactly the size, so that a read behind it is seen. */
struct exact {
    explicit exact(const bytes& source, size_t size)
        : data(static_cast<unsigned char*>(std::malloc(size == 0 ? 1 : size))) {
        std::copy_n(source.begin(), size, data);
    }
    ~exact() { std::free(data); }
    unsigned char* data;
};

bytes twice(const bytes& record) {
    bytes two = record;
    two.insert(two.end(), record.begin(), record.end());
    return two;
}

void release(lyr_ms* records, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        lyr_ms* one = static_cast<lyr_ms*>(std::malloc(sizeof(lyr_ms)));
        *one = records[i];
        free_lyr_ms(&one);
    }
    std::free(records);
}
void release(lyr_ms_node* records, int32_t count) {
    free_lyr_ms_nodes(&records, count);
}
void release(lyr_ms_node_metadata* records, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        auto* one = static_cast<lyr_ms_node_metadata*>(std::malloc(sizeof *records));
        *one = records[i];
        free_lyr_ms_node_metadata(&one);
    }
    std::free(records);
}

int32_t unpack(const void* buffer, int32_t size, int32_t count, lyr_ms** out) {
    return unpack_media_source(buffer, size, count, out);
}
int32_t unpack(const void* buffer, int32_t size, int32_t count, lyr_ms_node** out) {
    return unpack_media_node(buffer, size, count, out);
}
int32_t unpack(const void* buffer, int32_t size, int32_t count, lyr_ms_node_metadata** out) {
    return unpack_metadata(buffer, size, count, out);
}

/* Every way in which the bytes can be too few. `last_text` is the offset of the last length. */
void expect_borders(const bytes& record, auto* none, size_t last_text) {
    const bytes two = twice(record);
    auto* records = none;
    for (size_t size = 0; size < two.size(); ++size) {
        const exact cut(two, size);
        records = reinterpret_cast<decltype(none)>(&records);
        EXPECT_EQ(unpack(cut.data, static_cast<int32_t>(size), 2, &records), -1) << size;
        EXPECT_EQ(records, nullptr) << size;
    }
    const exact whole(two, two.size());
    const auto size = static_cast<int32_t>(two.size());
    for (const int32_t count : {0, -1, INT32_MIN, 3, INT32_MAX}) {
        EXPECT_EQ(unpack(whole.data, size, count, &records), -1) << count;
    }
    EXPECT_EQ(unpack(nullptr, size, 1, &records), -1);
    EXPECT_EQ(unpack(whole.data, -1, 1, &records), -1);
    for (const int32_t length : {1000, INT32_MAX, INT32_MAX - 1}) {
        bytes lying = two;
        memcpy(lying.data() + record.size() + last_text, &length, sizeof length);
        EXPECT_EQ(unpack(lying.data(), size, 2, &records), -1) << length;
        EXPECT_EQ(records, nullptr);
    }
    /* One of two: the rest is not looked at. */
    ASSERT_EQ(unpack(whole.data, size, 1, &records), 0);
    release(records, 1);
}

} // namespace

TEST(Decode, NothingBehindTheBytesIsRead) {
    expect_borders(SOURCE, static_cast<lyr_ms*>(nullptr), 31);
    expect_borders(NODE, static_cast<lyr_ms_node*>(nullptr), 21);
    expect_borders(METADATA, static_cast<lyr_ms_node_metadata*>(nullptr), 50);
}
