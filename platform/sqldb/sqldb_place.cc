#include "sqldb_place.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/paths.h>
#include <veloran/pps.h>
#include <veloran/sqldb.h>

namespace {

constexpr int32_t READ_FLAGS = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

int32_t fail(int32_t error) {
    errno = error;
    return -1;
}

/* The real and absolute path of a path. */
int32_t resolve(std::string* real, std::string_view path, bool platform) {
    char buffer[PATH_MAX];
    real->assign(path);
    if (platform) {
        if (paths_resolve(real->c_str(), buffer, sizeof buffer) < 0) {
            return -1;
        }
        real->assign(buffer);
    }
    if (!real->empty() && real->front() != '/') {
        if (getcwd(buffer, sizeof buffer) == nullptr) {
            return -1;
        }
        real->insert(0, std::string(buffer) + '/');
    }
    return 0;
}

/* The directories of a configuration. */
int32_t resolve_list(std::vector<std::string>* list, std::string_view text) {
    list->clear();
    while (!text.empty()) {
        const size_t comma = text.find(',');
        std::string_view item = text.substr(0, comma);
        text.remove_prefix(comma == std::string_view::npos ? text.size() : comma + 1);
        while (item.size() > 1 && item.back() == '/') {
            item.remove_suffix(1);
        }
        if (!item.empty() && resolve(&list->emplace_back(), item, true) != 0) {
            return -1;
        }
    }
    return 0;
}

/* One more directory, whose path may have commas. */
int32_t resolve_next(std::vector<std::string>* list, std::string_view path) {
    return path.empty() ? 0 : resolve(&list->emplace_back(), path, false);
}

int32_t take_attribute(sqldb_place* place, std::string_view name, std::string_view value,
                       bool platform) {
    const struct {
        std::string_view name;
        std::string* path;
    } paths[] = {{"Filename", &place->file},
                 {"SchemaFile", &place->schema},
                 {"DataSchemaFile", &place->data_schema},
                 {"ClientSchemaFile", &place->client_schema}};
    for (const auto& path : paths) {
        if (name == path.name) {
            return resolve(path.path, value, platform);
        }
    }
    if (name != "BackupDir") {
        return 0;
    }
    return platform ? resolve_list(&place->backups, value) : resolve_next(&place->backups, value);
}

int32_t write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno != EINTR) {
            return -1;
        }
        text.remove_prefix(count < 0 ? 0 : static_cast<size_t>(count));
    }
    return 0;
}

/* Reads an open file whole. */
int32_t read_all(int fd, const struct stat& status, std::string* text, size_t limit) {
    if (!S_ISREG(status.st_mode)) {
        return fail(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    }
    text->clear();
    char buffer[16384];
    for (;;) {
        const ssize_t count = read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return count == 0 ? 0 : -1;
        }
        text->append(buffer, static_cast<size_t>(count));
        if (text->size() > limit) {
            return fail(EFBIG);
        }
    }
}

} // namespace

bool sqldb_place_is_name(std::string_view name) noexcept {
    constexpr std::string_view ALLOWED =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.";
    return !name.empty() && name.size() <= SQLDB_NAME_MAX && name.front() != '.' &&
           name.find_first_not_of(ALLOWED) == std::string_view::npos;
}

std::string sqldb_place_of_name(const std::string& name, bool existing) {
    char real[PATH_MAX];
    const std::string path = "/dev/sqldb/" + name;
    const int32_t length = existing ? paths_resolve_existing(path.c_str(), real, sizeof real)
                                    : paths_resolve(path.c_str(), real, sizeof real);
    return length < 0 ? std::string() : std::string(real);
}

int32_t sqldb_place_parse(sqldb_place* place, std::string_view text, bool platform) {
    const char* at = text.data();
    size_t left = text.size();
    pps_line line;
    while (pps_next_line(&at, &left, &line) != 0) {
        /* Only plain text: the encoding between the colons is empty. */
        if (line.kind == '=' && line.value_length >= 2 && line.value[1] == ':' &&
            take_attribute(place, {line.name, line.name_length},
                           {line.value + 2, line.value_length - 2}, platform) != 0) {
            return -1;
        }
    }
    if (place->file.empty() || (platform && place->schema.empty())) {
        return fail(ENODATA);
    }
    return place->file.size() > SQLDB_PATH_MAX ? fail(ENAMETOOLONG) : 0;
}

int32_t sqldb_place_publish(const sqldb_place& place) {
    std::string text = "Filename::" + place.file + '\n';
    if (!place.client_schema.empty()) {
        text += "ClientSchemaFile::" + place.client_schema + '\n';
    }
    for (const std::string& directory : place.backups) {
        text += "BackupDir::" + directory + '\n';
    }
    const std::string path = sqldb_place_of_name(place.name, false);
    return path.empty() ? -1 : sqldb_place_write(path, text, false);
}

void sqldb_place_withdraw(const std::string& name) {
    const std::string path = sqldb_place_of_name(name, false);
    if (!path.empty()) {
        unlink(path.c_str());
    }
}

int32_t sqldb_place_read(const std::string& path, std::string* text, size_t limit) {
    const vel_fd file(open(path.c_str(), READ_FLAGS));
    struct stat status;
    return file.value < 0 || fstat(file.value, &status) != 0
               ? -1
               : read_all(file.value, status, text, limit);
}

int32_t sqldb_place_read_believed(const std::string& path, std::string* text, size_t limit) {
    const vel_fd file(open(path.c_str(), READ_FLAGS | O_NOFOLLOW));
    struct stat status;
    if (file.value < 0 || fstat(file.value, &status) != 0) {
        return -1;
    }
    const bool is_believed = (status.st_uid == paths_user() || status.st_uid == 0) &&
                             (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
    return is_believed ? read_all(file.value, status, text, limit) : fail(EPERM);
}

int32_t sqldb_place_write(const std::string& path, std::string_view text, bool durable) {
    const std::string aside = path + ".new";
    {
        unlink(aside.c_str());
        const vel_fd file(
            open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
        if (file.value < 0) {
            return -1;
        }
        if (write_all(file.value, text) != 0 || (durable && fsync(file.value) != 0)) {
            const int32_t error = errno;
            unlink(aside.c_str());
            return fail(error);
        }
    }
    if (rename(aside.c_str(), path.c_str()) != 0) {
        const int32_t error = errno;
        unlink(aside.c_str());
        return fail(error);
    }
    return durable ? sqldb_place_sync_directory(path) : 0;
}

int32_t sqldb_place_sync_directory(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string directory = slash == 0 ? "/" : path.substr(0, slash);
    const vel_fd place(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return place.value < 0 ? -1 : fsync(place.value);
}
