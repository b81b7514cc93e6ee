#include "fake_client.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fake_stream.h>
#include <fake_words.h>

namespace {

int32_t execute_remote(int fd, std::string command, std::string& answer) {
    uint32_t length = static_cast<uint32_t>(command.size());
    int32_t result = -1;
    if (!transfer(fd, &length, sizeof length, false) ||
        !transfer(fd, command.data(), length, false) ||
        !transfer(fd, &result, sizeof result, true) ||
        !transfer(fd, &length, sizeof length, true)) {
        answer = "the plug-in has gone";
        return -1;
    }
    answer.resize(length);
    return transfer(fd, answer.data(), length, true) ? result : -1;
}

std::string formatted(const char* format, va_list arguments) {
    char* text = nullptr;
    if (vasprintf(&text, format, arguments) < 0) {
        std::abort();
    }
    std::string result = text;
    std::free(text);
    return result;
}

std::string execute_or_fail(fake_client& client, const std::string& command) {
    std::string answer;
    if (fake_execute(client, command, answer) != 0) {
        ADD_FAILURE() << command << ": " << answer;
        return "";
    }
    return answer;
}

} // namespace

bool fake_open(fake_client& client, const std::string& library) {
    client.library = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (client.library == nullptr) {
        ADD_FAILURE() << dlerror();
        return false;
    }
    client.api = static_cast<const fake_api_table*>(dlsym(client.library, "fake_api"));
    return client.api != nullptr;
}

bool fake_connect(fake_client& client, const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return false;
    }
    path.copy(address.sun_path, path.size());
    client.fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return client.fd >= 0 &&
           connect(client.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

void fake_close(fake_client& client) {
    if (client.library != nullptr) {
        dlclose(client.library);
    }
    if (client.fd >= 0) {
        close(client.fd);
    }
    client = {};
}

int32_t fake_execute(fake_client& client, const std::string& command, std::string& answer) {
    if (client.api == nullptr) {
        return execute_remote(client.fd, command, answer);
    }
    char* text = nullptr;
    const int32_t result = client.api->command(command.c_str(), &text);
    answer = text != nullptr ? text : "";
    std::free(text);
    return result;
}

std::string fake_do(fake_client& client, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string command = formatted(format, arguments);
    va_end(arguments);
    return execute_or_fail(client, command);
}

int64_t fake_number(fake_client& client, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string command = formatted(format, arguments);
    va_end(arguments);
    return words_to_number(execute_or_fail(client, command)).value_or(INT64_MIN);
}

void fake_tree(fake_client& client, const std::string& uid, const std::string& text) {
    execute_or_fail(client, "tree uid=" + words_quote(uid) + '\n' + text);
}

std::vector<fake_record> fake_log(fake_client& client, const std::string& entry) {
    std::istringstream lines(execute_or_fail(client, "log " + entry));
    std::vector<fake_record> records;
    for (std::string line; std::getline(lines, line);) {
        fake_words words;
        words_parse(line, words);
        fake_record& record = records.emplace_back();
        record.entry = words_at(words, 0);
        for (const fake_option& option : words.options) {
            record.words[option.key] = option.value;
        }
    }
    return records;
}

std::string fake_word(const fake_record& record, const std::string& key) {
    const auto found = record.words.find(key);
    return found == record.words.end() ? "" : found->second;
}

std::vector<std::string> fake_ids(fake_client& client, const std::string& entry) {
    std::vector<std::string> ids;
    for (const fake_record& record : fake_log(client, entry)) {
        ids.push_back(fake_word(record, "id"));
    }
    return ids;
}

std::string fake_quote(const std::string& text) {
    return words_quote(text);
}
