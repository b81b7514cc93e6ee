#include "harness.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>

static const std::string root = [] {
    char name[] = "/tmp/transport-test-XXXXXX";
    static const std::string made = mkdtemp(name);
    setenv("VELORAN_RUN", made.c_str(), 1);
    atexit([] { std::filesystem::remove_all(made); });
    return made;
}();

std::string pattern(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>(i * 7 + i / 256);
    }
    return text;
}

namespace {

harness* owner_of(osb* connection) {
    return static_cast<harness*>(connection->server->user_data);
}

void reply_big(osb* connection, recv_context* context, size_t size) {
    std::string body = pattern(size);
    const iovec pieces[3] = {
        {body.data(), size / 3}, {nullptr, 0}, {body.data() + size / 3, size - size / 3}};
    connection->server->replyv(connection, context, 0, pieces, 3);
}

void keep(harness* h, osb* connection, recv_context* context) {
    const auto* header = reinterpret_cast<const msg_header*>(context->buffer);
    h->kept = {connection, context->rcvid, header->tag};
    h->keeps = true;
}

void serve(osb* connection, recv_context* context, const std::string& request) {
    harness* h = owner_of(connection);
    const std::string rest = request.size() > 2 ? request.substr(2) : "";
    switch (request.empty() ? 'e' : request[0]) {
    case 'b':
        reply_big(connection, context, strtoul(rest.c_str(), nullptr, 10));
        break;
    case 's':
        connection->server->reply(connection, context, atoi(rest.c_str()), nullptr, 0);
        break;
    case 't':
        connection->server->reply(connection, context, 0, "one", 3);
        if (connection->server->reply(connection, context, 0, "two", 3) == -1) {
            ++h->refused_replies;
        }
        break;
    case 'n':
        break;
    case 'l':
        keep(h, connection, context);
        break;
    default:
        connection->server->reply(connection, context, 0, rest.data(),
                                  static_cast<int32_t>(rest.size()));
    }
}

void worker(osb* connection, recv_context* context, service*) {
    harness* h = owner_of(connection);
    if (++h->inside > 1) {
        h->overlaps = true;
    }
    const auto* header = reinterpret_cast<const msg_header*>(context->buffer);
    serve(connection, context,
          std::string(reinterpret_cast<const char*>(context->payload),
                      static_cast<size_t>(header->length)));
    --h->inside;
}

int32_t on_connect(osb* connection, recv_context*, service*) {
    return owner_of(connection)->refuse ? EDOM : 0;
}

void on_disconnect(osb* connection, recv_context* context, service*) {
    harness* h = owner_of(connection);
    h->hang_ups += context == nullptr ? 1 : 0;
    ++h->disconnects;
}

} // namespace

harness::harness(int count, int32_t max_size, const char* options)
    : server(msgserver_create(max_size, 5, MSGSERVER_BY_PATH)) {
    server->user_data = this;
    EXPECT_EQ(
        msgserver_add(server, TEST_SERVICE, nullptr, options, 0, worker, on_connect, on_disconnect),
        0)
        << strerror(errno);
    for (int i = 0; i < count; ++i) {
        threads.emplace_back(msgserver_thread_loop, server);
    }
}

harness::~harness() {
    if (server != nullptr) {
        harness_stop(this);
    }
}

void harness_stop(harness* h) {
    EXPECT_EQ(msgserver_stop(h->server), 0);
    for (std::thread& thread : h->threads) {
        thread.join();
    }
    msgserver_withdraw(h->server);
    msgserver_destroy(h->server);
    h->server = nullptr;
}

void harness_await_disconnects(harness* h, int count) {
    while (h->disconnects < count) {
        std::this_thread::yield();
    }
}

void harness_late(harness* h, const char* text) {
    while (!h->keeps) {
        std::this_thread::yield();
    }
    h->keeps = false;
    const iovec body{const_cast<char*>(text), strlen(text)};
    EXPECT_EQ(
        h->server->reply2(h->kept.connection, h->kept.rcvid, h->kept.tag, LATE_STATUS, &body, 1),
        0);
}

static int32_t connections(harness* h) {
    vel_lock_guard guard(h->server->lock);
    auto* first = static_cast<service*>(_array_get(&h->server->services, 0));
    int32_t count = 0;
    for (int32_t i = 0; i < first->connections.count; ++i) {
        count += _array_get(&first->connections, i) != nullptr ? 1 : 0;
    }
    EXPECT_LE(first->connections_open, count);
    return count;
}

void harness_await_connections(harness* h, int32_t count) {
    while (connections(h) != count) {
        std::this_thread::yield();
    }
}

int64_t harness_queued(harness* h) {
    vel_lock_guard guard(h->server->lock);
    return h->server->queued_bytes;
}

scoped_client::scoped_client() : record(msgclient_open(TEST_SERVICE, nullptr, 0)) {
    EXPECT_NE(record, nullptr) << strerror(errno);
}

std::string ask(msgclient_t* client, const std::string& request, size_t capacity) {
    std::string reply(capacity, '\0');
    int32_t length = -1;
    const int32_t result =
        msgclient_putget(client, request.data(), static_cast<int32_t>(request.size()), reply.data(),
                         static_cast<int32_t>(capacity), &length, 0);
    if (result != 0) {
        return error(result);
    }
    reply.resize(static_cast<size_t>(length));
    return reply;
}

std::string error(int number) {
    return "error " + std::to_string(number);
}

int32_t put(msgclient_t* client, uint32_t tag, const std::string& request) {
    return msgclient_put(client, tag, request.data(), static_cast<int32_t>(request.size()), 0);
}

void in_threads(int count, const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back(body, i);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

wire_client raw_client(bool opens) {
    wire_client client;
    EXPECT_TRUE(wire_connect(client, root + "/sys/csm/" + TEST_SERVICE + "/default"));
    EXPECT_TRUE(!opens || wire_open(client, TEST_SERVICE));
    return client;
}
