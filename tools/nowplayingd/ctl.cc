#include "ctl.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <system_error>
#include <vector>

#include <poll.h>

#include <nlohmann/json.hpp>

#include <veloran/lock.h>
#include <veloran/server_object.h>

#include "server.h"
#include "table.h"
#include "text.h"

namespace {

using nlohmann::json;

constexpr int ANSWER_LIMIT = 10000; /* ms */

std::string dump(const json& document) {
    return text_json(document.dump(-1, ' ', false, json::error_handler_t::replace));
}

bool fail(std::string* why, const std::string& what) {
    *why = what;
    return false;
}

bool open_failure(std::string* why) {
    switch (errno) {
    case ENOENT:
    case ECONNREFUSED:
        return fail(why, "no arbiter is running");
    case EACCES:
    case EPERM:
        return fail(why, "no permission to speak to the arbiter");
    default:
        return fail(why, "the arbiter cannot be reached: " + std::system_category().message(errno));
    }
}

/* Waits for one message. */
bool receive(int fd, std::string* text, std::string* why) {
    pollfd answer = {fd, POLLIN, 0};
    int ready;
    do {
        ready = poll(&answer, 1, ANSWER_LIMIT);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) {
        return fail(why, "the arbiter does not answer");
    }
    char* bytes = nullptr;
    const int64_t length = server_object_read(fd, &bytes);
    const vel_text owner(bytes);
    if (length < 0) {
        return fail(why, errno == ECONNRESET ? "the arbiter has ended"
                                             : std::system_category().message(errno));
    }
    text->assign(bytes, static_cast<size_t>(length));
    return true;
}

bool ask(int fd, const json& request, json* answer, std::string* why) {
    const std::string text = dump(request);
    std::string came;
    if (server_object_write(fd, text.data(), text.size()) != 0) {
        return fail(why, errno == EMSGSIZE ? "the name is too long"
                                           : "the arbiter cannot be asked: " +
                                                 std::system_category().message(errno));
    }
    if (!receive(fd, &came, why)) {
        return false;
    }
    *answer = json::parse(came, nullptr, false);
    if (!answer->is_object() || !answer->contains("ok")) {
        return fail(why, "the arbiter gives an answer that makes no sense");
    }
    return answer->at("ok") == true || fail(why, text_printable(answer->value("why", "")));
}

bool ask_members(int fd, json* members, std::string* why) {
    json request = {{"command", "status"}};
    json answer;
    *members = json::array();
    do {
        if (!ask(fd, request, &answer, why)) {
            return false;
        }
        members->insert(members->end(), answer.at("members").begin(), answer.at("members").end());
        request["after"] = answer.value("more", json());
    } while (answer.contains("more"));
    return true;
}

bool has_turn(const json& member) {
    return member.contains("turn");
}

/* Members with a turn, the next one first. */
std::vector<json> turns_of(const json& members) {
    std::vector<json> turns;
    std::copy_if(members.begin(), members.end(), std::back_inserter(turns), has_turn);
    std::sort(turns.begin(), turns.end(), [](const json& left, const json& right) {
        return left.at("turn") < right.at("turn");
    });
    return turns;
}

json holder_of(const json& members) {
    const auto holder = std::find_if(members.begin(), members.end(), [](const json& member) {
        return member.at("focus") == "holds";
    });
    return holder == members.end() ? json() : *holder;
}

std::string time_text(int64_t seconds) {
    const time_t when = seconds;
    tm local = {};
    char text[64];
    localtime_r(&when, &local);
    return std::string(text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local));
}

std::string title(const json& member) {
    return text_printable(member.at("name").get<std::string>()) + " (#" +
           std::to_string(member.at("id").get<uint64_t>()) + ")";
}

std::string status_text(const json& members) {
    const json holder = holder_of(members);
    std::string text = "holder:  " + (holder.is_null() ? "nobody" : title(holder)) + "\nwaiting: ";
    std::string names;
    for (const json& member : turns_of(members)) {
        names += (names.empty() ? "" : ", ") + title(member);
    }
    text += (names.empty() ? "nobody" : names) + "\n";
    table rows{{{"ID", true}, {"NAME"}, {"KIND"}, {"PRIO"}, {"STATE"}, {"FOCUS"}, {"SINCE"}}, {}};
    for (const json& member : members) {
        const bool client = member.at("client");
        rows.rows.push_back({std::to_string(member.at("id").get<uint64_t>()), member.at("name"),
                             member.at("kind"), client ? member.at("prio") : json("-"),
                             client ? member.at("state") : json("-"), member.at("focus"),
                             time_text(member.at("since"))});
    }
    return rows.rows.empty() ? text : text + "\n" + table_text(rows);
}

std::string status_json(const json& members) {
    json waiting = json::array();
    for (const json& member : turns_of(members)) {
        waiting.push_back(member.at("id"));
    }
    const json holder = holder_of(members);
    return dump({{"holder", holder.is_null() ? json() : holder.at("id")},
                 {"waiting", waiting},
                 {"members", members}}) +
           "\n";
}

bool print(const std::string& text, std::string* why) {
    const bool printed = fwrite(text.data(), 1, text.size(), stdout) == text.size();
    return (fflush(stdout) == 0 && printed) || fail(why, "the output cannot be written");
}

} // namespace

bool ctl_run(const ctl_request& request, std::string* why) {
    const vel_fd fd(server_object_open(SERVER_PERSONS));
    if (fd.value < 0) {
        return open_failure(why);
    }
    try {
        json answer;
        if (request.command == "status") {
            return ask_members(fd.value, &answer, why) &&
                   print(request.json ? status_json(answer) : status_text(answer), why);
        }
        const json asked = {
            {"command", request.command}, {"name", request.name}, {"kind", request.kind}};
        return ask(fd.value, asked, &answer, why) &&
               print(text_printable(answer.value("said", "")) + "\n", why);
    } catch (const json::exception&) {
        return fail(why, "the arbiter gives an answer that makes no sense");
    }
}
