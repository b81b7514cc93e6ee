#include "config_text.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <sys/stat.h>

namespace {

constexpr size_t PIECE_SIZE = 2049; /* bytes of a piece, with the NUL */
constexpr int32_t PIECES_STEP = 64;

struct file_close {
    void operator()(FILE* file) const noexcept { fclose(file); }
};
using file_owner = std::unique_ptr<FILE, file_close>;

bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool reserve(config_text* text, size_t more) {
    const size_t needed = text->length + more + 1;
    if (needed > text->capacity) {
        const size_t capacity = needed > 2 * text->capacity ? needed : 2 * text->capacity;
        char* grown = static_cast<char*>(realloc(text->text, capacity));
        if (grown == nullptr) {
            return false;
        }
        text->text = grown;
        text->capacity = capacity;
    }
    if (text->piece_count == text->piece_capacity) {
        const int32_t capacity = text->piece_capacity + PIECES_STEP;
        config_piece* grown = static_cast<config_piece*>(
            reallocarray(text->pieces, static_cast<size_t>(capacity), sizeof(config_piece)));
        if (grown == nullptr) {
            return false;
        }
        text->pieces = grown;
        text->piece_capacity = capacity;
    }
    return true;
}

/* Adds one piece of the file that begins at a line and column. */
bool add_piece(config_text* text, const char* piece, int32_t line, int32_t column) {
    const char* rest = piece;
    while (is_blank(*rest)) {
        rest++;
    }
    if (*rest == '\0' || *rest == '#') {
        return true;
    }
    const size_t length = strlen(rest);
    if (!reserve(text, length)) {
        return false;
    }
    text->pieces[text->piece_count++] = {text->length, line,
                                         column + static_cast<int32_t>(rest - piece)};
    memcpy(text->text + text->length, rest, length + 1);
    text->length += length;
    return true;
}

bool read_pieces(config_text* text, FILE* file) {
    char piece[PIECE_SIZE];
    int32_t line = 1;
    int32_t column = 1;
    while (fgets(piece, sizeof piece, file) != nullptr) {
        if (!add_piece(text, piece, line, column)) {
            return false;
        }
        const size_t length = strlen(piece);
        const bool line_ends = length > 0 && piece[length - 1] == '\n';
        line += line_ends ? 1 : 0;
        column = line_ends ? 1 : column + static_cast<int32_t>(length);
    }
    return ferror(file) == 0;
}

} // namespace

int32_t config_text_read(config_text* text, const char* path) noexcept {
    const file_owner file(fopen(path, "re"));
    struct stat status = {};
    if (file == nullptr || fstat(fileno(file.get()), &status) != 0) {
        return -1;
    }
    if (S_ISDIR(status.st_mode)) {
        errno = EISDIR;
        return -1;
    }
    if (!reserve(text, 0)) {
        return -1;
    }
    text->text[0] = '\0';
    return read_pieces(text, file.get()) ? 0 : -1;
}

void config_text_locate(const config_text* text, int32_t* line, int32_t* column) noexcept {
    size_t offset = 0;
    for (int32_t i = 1; i < *line && offset < text->length; i++) {
        const char* end = strchr(text->text + offset, '\n');
        offset = end != nullptr ? static_cast<size_t>(end - text->text) + 1 : text->length;
    }
    offset += *column > 0 ? static_cast<size_t>(*column - 1) : 0;
    const config_piece* piece = nullptr;
    for (int32_t i = 0; i < text->piece_count && text->pieces[i].offset <= offset; i++) {
        piece = &text->pieces[i];
    }
    *line = piece != nullptr ? piece->line : 1;
    *column = piece != nullptr ? piece->column + static_cast<int32_t>(offset - piece->offset) : 1;
}

void config_text_free(config_text* text) noexcept {
    free(text->text);
    free(text->pieces);
    *text = {};
}

int32_t config_number(const char* text) noexcept {
    while (is_blank(*text)) {
        text++;
    }
    const bool negative = *text == '-';
    if (negative || *text == '+') {
        text++;
    }
    uint32_t magnitude = 0;
    const std::from_chars_result result = std::from_chars(text, text + strlen(text), magnitude);
    if (result.ec == std::errc::result_out_of_range) {
        magnitude = UINT32_MAX;
    }
    if (negative) {
        return magnitude > INT32_MAX ? INT32_MIN : -static_cast<int32_t>(magnitude);
    }
    return magnitude > INT32_MAX ? INT32_MAX : static_cast<int32_t>(magnitude);
}
