/* The configuration file: its text without comments, the way back to lines of the file, and
 * numbers. The text is then the JSON decoder's, which json.cc is for. */
#include <sys/mman.h>
#include <unistd.h>

#include <veloran/json.h>

#include "config_text.h"
#include "input.h"

namespace {

void require_pieces(const config_text& text) {
    require(strlen(text.text) == text.length, "the text ends where it says");
    for (int32_t i = 0; i < text.piece_count; ++i) {
        const config_piece& piece = text.pieces[i];
        const bool behind = i == 0 || (piece.offset > text.pieces[i - 1].offset &&
                                       piece.line >= text.pieces[i - 1].line);
        require(behind && piece.offset < text.length && piece.line > 0 && piece.column > 0,
                "pieces are in order and inside the text");
        const char first = text.text[piece.offset];
        require(first != '#' && first != ' ' && first != '\t', "comments and blanks are dropped");
    }
}

/* The byte of the file at a line and column from 1; -1 when there is none. */
int byte_at(const std::string& file, int32_t line, int32_t column) {
    size_t at = 0;
    for (int32_t i = 1; i < line; ++i) {
        at = file.find('\n', at);
        require(at != std::string::npos, "the line is in the file");
        at += 1;
    }
    at += static_cast<size_t>(column - 1);
    return at < file.size() ? static_cast<unsigned char>(file[at]) : -1;
}

/* Every byte of the text is found again in the file. A NUL ends a piece, so files with one have no
 * such order. */
void require_way_back(const config_text& text, const std::string& file) {
    int32_t line = 1;
    int32_t column = 1;
    for (size_t i = 0; i < text.length; ++i) {
        int32_t file_line = line;
        int32_t file_column = column;
        config_text_locate(&text, &file_line, &file_column);
        require(byte_at(file, file_line, file_column) == static_cast<unsigned char>(text.text[i]),
                "a place of the text is a place of the file");
        line += text.text[i] == '\n' ? 1 : 0;
        column = text.text[i] == '\n' ? 1 : column + 1;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static constexpr size_t SLOW = 600; /* bytes beyond which not every place is looked up */
    const std::string file(reinterpret_cast<const char*>(data), size);
    static const int fd = memfd_create("config", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    require(ftruncate(fd, 0) == 0 && pwrite(fd, data, size, 0) == static_cast<ssize_t>(size),
            "a file");
    config_text text = {};
    require(config_text_read(&text, path.c_str()) == 0, "any file can be read");
    require_pieces(text);
    if (file.size() < SLOW && file.find('\0') == std::string::npos) {
        require_way_back(text, file);
    }
    pps_decoder decoder;
    require(pps_decoder_initialize(&decoder) == PPS_JSON_OK, "memory");
    if (pps_decoder_parse_json_str(&decoder, text.text) == PPS_JSON_SYNTAX) {
        int32_t line = 0;
        int32_t column = 0;
        pps_decoder_error(&decoder, &line, &column, nullptr);
        config_text_locate(&text, &line, &column);
        require(line > 0 && column > 0, "an error has a place");
    }
    pps_decoder_cleanup(&decoder);
    (void)config_number(text.text);
    config_text_free(&text);
    return 0;
}
