/* The decoders on bytes that are too few or lie; what they read is told in tests/protocol. */
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <lyrane/client.h>

namespace {

/* Decodes a heap copy of exactly these bytes, so that a read behind them is seen; releases what was
 * decoded. A failure must store null. */
template <typename record>
int32_t decode(int32_t (*unpack)(const void*, int32_t, int32_t, record**),
               void (*release)(record**), const std::string& bytes, int32_t count) {
    const std::unique_ptr<char[]> exact(new char[bytes.size()]);
    std::memcpy(exact.get(), bytes.data(), bytes.size());
    auto* records = reinterpret_cast<record*>(exact.get());
    const int32_t result = unpack(exact.get(), static_cast<int32_t>(bytes.size()), count, &records);
    if (result == 0) {
        release(&records);
    } else {
        EXPECT_EQ(records, nullptr);
    }
    return result;
}

/* Every way in which the bytes of a record, numbers and then texts of one byte, can be wrong. */
template <typename record>
void expect_borders(int32_t (*unpack)(const void*, int32_t, int32_t, record**),
                    void (*release)(record**), size_t numbers, size_t texts) {
    std::string bytes(numbers, '\x7');
    for (size_t i = 0; i < texts; ++i) {
        bytes += std::string("\1\0\0\0x", 5);
    }
    EXPECT_EQ(decode(unpack, release, bytes, 1), 0);
    EXPECT_EQ(decode(unpack, release, bytes + "more", 1), 0) << "the rest is not looked at";
    for (size_t size = 0; size < bytes.size(); ++size) {
        EXPECT_EQ(decode(unpack, release, bytes.substr(0, size), 1), -1) << size;
        EXPECT_EQ(decode(unpack, release, bytes + bytes.substr(0, size), 2), -1) << size;
    }
    for (const int32_t count : {0, -1, INT32_MIN, 2, INT32_MAX}) {
        EXPECT_EQ(decode(unpack, release, bytes, count), -1) << count;
    }
    for (const int32_t length : {1000, INT32_MAX, INT32_MAX - 1}) {
        std::memcpy(bytes.data() + bytes.size() - 5, &length, sizeof length);
        EXPECT_EQ(decode(unpack, release, bytes, 1), -1) << length;
    }
    record* none = nullptr;
    EXPECT_EQ(unpack(nullptr, 100, 1, &none), -1);
    EXPECT_EQ(unpack(bytes.data(), -1, 1, &none), -1);
}

} // namespace

TEST(Decode, NothingBehindTheBytesIsRead) {
    expect_borders(unpack_media_source, free_lyr_ms, 20, 3);
    expect_borders<lyr_ms_node>(
        unpack_media_node, [](lyr_ms_node** nodes) { free_lyr_ms_nodes(nodes, 1); }, 16, 2);
    expect_borders(unpack_metadata, free_lyr_ms_node_metadata, 20, 7);
}
