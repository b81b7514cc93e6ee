/* Speaking to the scripted plug-in, in the own process or in a daemon; its commands are told in
 * tests/fake/fake.h. */
#ifndef FAKE_CLIENT_H
#define FAKE_CLIENT_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <fake.h>

struct fake_client {
    void* library = nullptr; /* in process */
    const fake_api_table* api = nullptr;
    int fd = -1; /* of a daemon's plug-in; one thread at a time */
};

/* One line of the plug-in's log. */
struct fake_record {
    std::string entry;
    std::map<std::string, std::string> words;
};

/* Opens the image that the service has loaded from this path, or loads it when nobody has. */
bool fake_open(fake_client& client, const std::string& library);
/* Connects to the control socket of a plug-in in another process. */
bool fake_connect(fake_client& client, const std::string& path);
void fake_close(fake_client& client);

/* Executes a command: its result, and its text in `answer`. */
int32_t fake_execute(fake_client& client, const std::string& command, std::string& answer);

/* The same with the command formatted; a refusal fails the test. */
std::string fake_do(fake_client& client, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
/* The same for a command that answers a number. */
int64_t fake_number(fake_client& client, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/* Replaces a tree ("" of every source without an own one). */
void fake_tree(fake_client& client, const std::string& uid, const std::string& text);

/* The log of an entry ("" of all). */
std::vector<fake_record> fake_log(fake_client& client, const std::string& entry);

/* A record's word, or "" when it has none; fake_ids: the "id" of every call of an entry. */
std::string fake_word(const fake_record& record, const std::string& key);
std::vector<std::string> fake_ids(fake_client& client, const std::string& entry);

/* A text as a command takes it behind KEY=. */
std::string fake_quote(const std::string& text);

#endif
