/* A file that was handed over, as TagLib reads it. */
#ifndef LYRANE_READER_STREAM_H
#define LYRANE_READER_STREAM_H

#include <cstdint>
#include <string>

#include <tiostream.h>

/* TagLib asks for an object. Reads only, in blocks: few calls, and none but pread(2). The
 * descriptor stays the caller's. */
struct reader_stream final : TagLib::IOStream {
    reader_stream(int fd, uint64_t size, std::string name);

    TagLib::FileName name() const override;
    TagLib::ByteVector readBlock(unsigned long length) override;
    void seek(long offset, Position from) override;
    long tell() const override;
    long length() override;
    bool readOnly() const override;
    bool isOpen() const override;
    /* Nothing is written. */
    void writeBlock(const TagLib::ByteVector& data) override;
    void insert(const TagLib::ByteVector& data, unsigned long start,
                unsigned long replace) override;
    void removeBlock(unsigned long start, unsigned long length) override;
    void truncate(long length) override;

    int fd;
    std::string file;
    int64_t size;
    int64_t position = 0;
    std::string block; /* what was read last, */
    int64_t begin = 0; /* and where it begins */
};

/* Reads up to so many bytes; fewer at the end of the file, or when it cannot be read. */
size_t reader_stream_read(int fd, int64_t from, char* bytes, size_t count) noexcept;

#endif
