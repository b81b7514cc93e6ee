#include "exchange.h"

#include <cerrno>
#include <ctime>
#include <system_error>

#include <veloran/lock.h>
#include <veloran/server_object.h>

#include "control.h"
#include "log.h"
#include "message.h"

namespace {

constexpr int MESSAGES_AT_ONCE = 16; /* of one peer, before the others are looked at */

std::string error_text(int32_t error) {
    return std::system_category().message(error);
}

/* A peer as the log names it. */
std::string title(const exchange& exchange, uint64_t id) {
    const auto member = exchange.focus.members.find(id);
    const std::string number = "#" + std::to_string(id);
    return member == exchange.focus.members.end() ? number
                                                  : member->second.words.name + " (" + number + ")";
}

void log_order(const exchange& exchange, const arbiter_message& message) {
    constexpr const char* WORDS[] = {
        "has the focus",  "may not have the focus", "is told: revoked", "is told: play",
        "is told: pause", "is told: next",          "is told: previous"};
    log_line(LOG_EVENT, title(exchange, message.to) + " " + WORDS[message.order]);
}

void drop(exchange* exchange, uint64_t id, const std::string& why, arbiter_messages* out) {
    const peer* leaving = peer_find(&exchange->peers, id);
    if (leaving == nullptr) {
        return;
    }
    if (!leaving->person) {
        log_line(LOG_EVENT, title(*exchange, id) + " leaves: " + why);
    }
    peer_remove(&exchange->peers, id);
    arbiter_leave(&exchange->focus, id, out);
}

/* Sends what the arbiter says. Whoever does not take its message is dropped, which may give others
 * theirs. */
void deliver(exchange* exchange, arbiter_messages* out) {
    for (size_t i = 0; i < out->size(); i++) {
        const arbiter_message message = (*out)[i];
        const peer* to = peer_find(&exchange->peers, message.to);
        if (to == nullptr) {
            continue;
        }
        log_order(*exchange, message);
        const std::string text = message_text(message.order);
        if (server_object_write(to->fd, text.data(), text.size()) != 0) {
            drop(exchange, message.to,
                 errno == EAGAIN ? "it does not read what it is told" : error_text(errno), out);
        }
    }
    out->clear();
}

void join(exchange* exchange, uint64_t id, const arbiter_words& words) {
    if (!arbiter_join(&exchange->focus, id, words)) {
        log_line(LOG_ODD, title(*exchange, id) + " registers again; ignored");
        return;
    }
    log_line(LOG_EVENT, title(*exchange, id) + " registers: kind " + words.kind + ", priority " +
                            words.priority);
}

/* A request of who has not registered cannot be judged, but whoever waits must have an answer. */
void refuse_stranger(exchange* exchange, uint64_t id, message_verb verb, arbiter_messages* out) {
    log_line(LOG_ODD, title(*exchange, id) + " has not registered; its message is ignored");
    if (verb == MESSAGE_ACQUIRE) {
        out->push_back({id, ARBITER_REFUSE});
    }
}

void serve_client(exchange* exchange, uint64_t id, const std::string& text) {
    arbiter_messages out;
    message came;
    std::string why;
    if (!message_parse(text, &came, &why)) {
        log_line(LOG_ODD, title(*exchange, id) + " sends a text that is ignored: " + why);
        return;
    }
    if (came.verb == MESSAGE_REGISTER) {
        join(exchange, id, came.words);
    } else if (!exchange->focus.members.contains(id)) {
        refuse_stranger(exchange, id, came.verb, &out);
    } else if (came.verb == MESSAGE_ACQUIRE) {
        arbiter_acquire(&exchange->focus, id, &out);
    } else if (came.verb == MESSAGE_RELEASE) {
        arbiter_release(&exchange->focus, id, &out);
    } else {
        arbiter_report(&exchange->focus, id, came.state, &out);
    }
    deliver(exchange, &out);
}

void serve_person(exchange* exchange, uint64_t id, const std::string& text) {
    arbiter_messages out;
    const std::string answer =
        control_answer(&exchange->focus, text, ++exchange->peers.last_id, &out);
    deliver(exchange, &out);
    const peer* to = peer_find(&exchange->peers, id);
    if (to != nullptr && server_object_write(to->fd, answer.data(), answer.size()) != 0) {
        drop(exchange, id, "it does not read its answers", &out);
    }
}

/* Takes one message; false when there is no more, or the peer is gone. */
bool serve_message(exchange* exchange, uint64_t id, peer* from) {
    char* bytes = nullptr;
    const int64_t length = server_object_read(from->fd, &bytes);
    const vel_text owner(bytes);
    exchange->focus.now = time(nullptr);
    if (length < 0 && errno == EMSGSIZE) {
        log_line(LOG_ODD, title(*exchange, id) + " sends a message that is too long; ignored");
        return true;
    }
    if (length < 0) {
        if (errno != EAGAIN) {
            arbiter_messages out;
            drop(exchange, id, errno == ECONNRESET ? "its connection has ended" : error_text(errno),
                 &out);
            deliver(exchange, &out);
        }
        return false;
    }
    const std::string text(bytes, static_cast<size_t>(length));
    from->person ? serve_person(exchange, id, text) : serve_client(exchange, id, text);
    return true;
}

} // namespace

void exchange_serve(exchange* exchange, uint64_t id, bool ended) {
    for (int count = 0; count < MESSAGES_AT_ONCE; count++) {
        peer* from = peer_find(&exchange->peers, id);
        if (from == nullptr) {
            return;
        }
        if (!from->muted && peer_spend(&exchange->peers, id, from)) {
            if (!serve_message(exchange, id, from)) {
                return;
            }
        } else if (ended) {
            /* epoll tells the end without being asked; what was not read is of no use now. */
            arbiter_messages out;
            drop(exchange, id, "its connection has ended", &out);
            deliver(exchange, &out);
        } else {
            return;
        }
    }
}
