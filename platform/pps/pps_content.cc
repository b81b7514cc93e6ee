#include "pps_content.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <veloran/lock.h>

static int32_t fail(int32_t error) {
    errno = error;
    return -1;
}

bool pps_identity_equal(const pps_identity& one, const pps_identity& other) noexcept {
    return one.device == other.device && one.inode == other.inode &&
           one.written.tv_sec == other.written.tv_sec &&
           one.written.tv_nsec == other.written.tv_nsec;
}

/* Reads to the end of the file, which is where a read gives less than there is room for; somebody
 * may be writing to it. */
static int32_t read_all(int32_t fd, std::string* text, size_t expected) {
    size_t length = 0;
    text->resize(expected + 1); /* one more, to meet the end without growing */
    for (;;) {
        const ssize_t count = read(fd, text->data() + length, text->size() - length);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            text->resize(length);
            return -1;
        }
        length += static_cast<size_t>(count);
        if (length > PPS_OBJECT_MAX) {
            return fail(EFBIG);
        }
        if (length < text->size()) {
            text->resize(length);
            return 0;
        }
        text->resize(length * 2);
    }
}

int32_t pps_content_load(int32_t place, const char* name, std::string* text,
                         pps_identity* identity) {
    const vel_fd file(
        openat(place, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status;
    if (file.value < 0) {
        const bool is_special = errno == ELOOP || errno == ENXIO || errno == ENODEV;
        return is_special ? fail(EINVAL) : -1;
    }
    if (fstat(file.value, &status) != 0) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        return fail(EINVAL);
    }
    if (status.st_size > static_cast<off_t>(PPS_OBJECT_MAX)) {
        return fail(EFBIG);
    }
    *identity = {status.st_dev, status.st_ino, status.st_mtim};
    return read_all(file.value, text, static_cast<size_t>(status.st_size));
}

/* Takes one line apart; false when it is none. */
static bool parse_line(std::string_view text, pps_line* line) {
    if (text.empty() || text.find('\0') != std::string_view::npos) {
        return false;
    }
    *line = {text[0], text.data() + 1, text.size() - 1, nullptr, 0};
    if (line->kind == '@') {
        return line->name_length > 0;
    }
    if (line->kind == '-') {
        if (text.size() > 1 && text[1] == '@') {
            *line = {'~', text.data() + 2, text.size() - 2, nullptr, 0};
        }
        return line->name_length > 0;
    }
    const size_t colon = text.find(':');
    if (colon == 0 || colon == std::string_view::npos ||
        text.find(':', colon + 1) == std::string_view::npos) {
        return false;
    }
    *line = {'=', text.data(), colon, text.data() + colon, text.size() - colon};
    return true;
}

/* The text up to the next line end; *text moves on behind it. */
static std::string_view take_line(std::string_view* text) {
    const size_t end = text->find('\n');
    const std::string_view line = text->substr(0, end);
    text->remove_prefix(end == std::string_view::npos ? text->size() : end + 1);
    return line;
}

/* A whole text; writers of C strings send the NUL along. */
static std::string_view without_nul(const char* text, size_t length) {
    return {text, length > 0 && text[length - 1] == '\0' ? length - 1 : length};
}

int32_t pps_next_line(const char** text, size_t* length, pps_line* line) noexcept {
    const char* end = *text + *length;
    std::string_view rest = without_nul(*text, *length);
    bool is_line = false;
    while (!is_line && !rest.empty()) {
        is_line = parse_line(take_line(&rest), line);
    }
    *text = rest.empty() ? end : rest.data();
    *length = static_cast<size_t>(end - *text);
    return is_line ? 1 : 0;
}

static int32_t merge_line(strm_dict* attributes, const pps_line& line) {
    const std::string name(line.name, line.name_length);
    if (line.kind == '-') {
        strm_dict_delete(attributes, name.c_str()); /* missing is fine */
        return 0;
    }
    if (line.kind != '=') {
        return 0; /* the object's own name, as in a text that was read */
    }
    const std::string value(line.value, line.value_length);
    if (strm_dict_set(attributes, name.c_str(), value.c_str()) != 0) {
        return -1;
    }
    return strm_dict_count(attributes) > PPS_ATTRIBUTES_MAX ? fail(EFBIG) : 0;
}

int32_t pps_content_merge(strm_dict* attributes, const char* text, size_t length,
                          pps_strictness strictness) {
    std::string_view rest = without_nul(text, length);
    while (!rest.empty()) {
        pps_line line;
        const std::string_view next = take_line(&rest);
        if (!parse_line(next, &line)) {
            if (strictness == pps_strictness::update && !next.empty()) {
                return fail(EINVAL);
            }
            continue;
        }
        if (merge_line(attributes, line) != 0) {
            return -1;
        }
    }
    return 0;
}

static void append_attribute(std::string* text, const char* name, const char* value) {
    text->append(name);
    text->append(value);
    text->push_back('\n');
}

static void begin_text(std::string* text, const std::string& label) {
    text->assign("@");
    text->append(label);
    text->push_back('\n');
}

void pps_content_format(std::string* text, const std::string& label, const strm_dict* attributes) {
    begin_text(text, label);
    const char* name = nullptr;
    const char* value = nullptr;
    for (int32_t i = 0; strm_dict_at(attributes, i, &name, &value) == 0; ++i) {
        append_attribute(text, name, value);
    }
}

void pps_content_format_change(std::string* text, const std::string& label, const strm_dict* before,
                               const strm_dict* after) {
    begin_text(text, label);
    const size_t start = text->size();
    const char* name = nullptr;
    const char* value = nullptr;
    for (int32_t i = 0; strm_dict_at(before, i, &name, nullptr) == 0; ++i) {
        if (strm_dict_find(after, name) == nullptr) {
            text->append("-").append(name).push_back('\n');
        }
    }
    for (int32_t i = 0; strm_dict_at(after, i, &name, &value) == 0; ++i) {
        const char* earlier = strm_dict_find(before, name);
        if (earlier == nullptr || std::strcmp(earlier, value) != 0) {
            append_attribute(text, name, value);
        }
    }
    if (text->size() == start) {
        pps_content_format(text, label, after);
    }
}
