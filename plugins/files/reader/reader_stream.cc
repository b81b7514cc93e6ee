/* A file that was handed over, as TagLib reads it. */
#include "reader_stream.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include <unistd.h>

static constexpr size_t BLOCK = size_t{16} * 1024;

size_t reader_stream_read(int fd, int64_t from, char* bytes, size_t count) noexcept {
    size_t done = 0;
    while (done < count) {
        const ssize_t length =
            pread(fd, bytes + done, count - done, from + static_cast<int64_t>(done));
        if (length == 0 || (length < 0 && errno != EINTR)) {
            break;
        }
        done += length > 0 ? static_cast<size_t>(length) : 0;
    }
    return done;
}

reader_stream::reader_stream(int opened, uint64_t bytes, std::string called)
    : fd(opened), file(std::move(called)),
      size(static_cast<int64_t>(std::min<uint64_t>(bytes, std::numeric_limits<long>::max()))) {}

TagLib::FileName reader_stream::name() const {
    return file.c_str();
}

TagLib::ByteVector reader_stream::readBlock(unsigned long length) {
    const int64_t left = std::max<int64_t>(size - position, 0);
    const auto count = static_cast<size_t>(
        std::min<uint64_t>({length, static_cast<uint64_t>(left), std::numeric_limits<int>::max()}));
    if (count >= BLOCK) {
        TagLib::ByteVector bytes(static_cast<unsigned>(count), '\0');
        const size_t read = reader_stream_read(fd, position, bytes.data(), count);
        position += static_cast<int64_t>(read);
        return read < count ? bytes.resize(static_cast<unsigned>(read)) : bytes;
    }
    const auto held = static_cast<int64_t>(block.size());
    if (position < begin || position + static_cast<int64_t>(count) > begin + held) {
        block.resize(BLOCK);
        begin = position;
        block.resize(reader_stream_read(fd, begin, block.data(), block.size()));
    }
    const auto at = static_cast<size_t>(position - begin);
    const size_t there = std::min(count, block.size() - at);
    position += static_cast<int64_t>(there);
    return {block.data() + at, static_cast<unsigned>(there)};
}

void reader_stream::seek(long offset, Position from) {
    const int64_t base = from == Beginning ? 0 : from == Current ? position : size;
    int64_t target = 0;
    if (!__builtin_add_overflow(base, int64_t{offset}, &target) && target >= 0 &&
        target <= std::numeric_limits<long>::max()) {
        position = target;
    }
}

long reader_stream::tell() const {
    return static_cast<long>(position);
}

long reader_stream::length() {
    return static_cast<long>(size);
}

bool reader_stream::readOnly() const {
    return true;
}

bool reader_stream::isOpen() const {
    return true;
}

void reader_stream::writeBlock(const TagLib::ByteVector&) {}
void reader_stream::insert(const TagLib::ByteVector&, unsigned long, unsigned long) {}
void reader_stream::removeBlock(unsigned long, unsigned long) {}
void reader_stream::truncate(long) {}
