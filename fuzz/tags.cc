/* Tags of the `files` plug-in: any bytes as a file of each kind, as its reader reads them. What is
 * found gets to the plug-in as it is, and any bytes that get there are an answer or refused. */
#include <sys/mman.h>
#include <unistd.h>

#include "files_reader_answer.h"
#include "input.h"
#include "reader_read.h"

namespace {

constexpr const char* ENDINGS[] = {"mp3", "flac", "ogg", "opus", "m4a", "wav", "wma", "aiff",
                                   "ape", "mpc",  "wv",  "tta",  "spx", "oga", "mp4", "dsf"};
constexpr files_reader_wish ALL = {FILES_READ_RECORD | FILES_READ_PICTURE | FILES_READ_KEYS,
                                   (1U << FILES_READER_KEY_COUNT) - 1};

files_reader_request request_of(uint8_t kind, size_t size) {
    files_reader_request request = {};
    request.wanted = ALL.wanted;
    request.keys = ALL.keys;
    request.size = size;
    const std::string name = std::string("file.") + ENDINGS[kind % std::size(ENDINGS)];
    std::memcpy(request.name, name.data(), name.size());
    return request;
}

void check_answer(const files_reader_found& found) {
    files_reader_found arrived;
    const std::string answer = files_reader_answer_write(ALL, found);
    require(answer.size() <= FILES_READER_ANSWER_MOST, "it is no longer than it may be");
    require(files_reader_answer_take(answer, ALL, &arrived), "what is found is an answer");
    require(arrived.title == found.title && arrived.picture == found.picture &&
                arrived.values == found.values && arrived.duration == found.duration,
            "it arrives as it is");
}

void check_bytes(const std::string& bytes) {
    files_reader_found arrived;
    if (files_reader_answer_take(bytes, ALL, &arrived)) {
        require(files_reader_answer_write(ALL, arrived) == bytes, "these bytes and no others");
    }
    (void)files_reader_answer_take(bytes, {FILES_READ_LOCATIONS, 0}, &arrived);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int file = memfd_create("tags", MFD_CLOEXEC);
    fuzz_input input = {data, size};
    const uint8_t kind = input_u8(&input);
    const std::string bytes = input_bytes(&input, input.left);
    check_bytes(bytes);
    require(ftruncate(file, 0) == 0 &&
                pwrite(file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
            "a file");
    check_answer(reader_read(file, request_of(kind, bytes.size())));
    return 0;
}
