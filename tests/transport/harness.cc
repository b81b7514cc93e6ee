#include "harness.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/syscall.h>

static const std::string root = [] {
    char name[] = "/tmp/transport-test-XXXXXX";
    static const std::string made = mkdtemp(name);
    setenv("VELORAN_RUN", made.c_str(), 1);
    atexit([] { std::filesystem::remove_all(made); });
    return made;
}();

char pattern_byte(size_t i) {
    return static_cast<char>(i * 7 + i / 256);
}

namespace {

harness* owner_of(osb* connection) {
    return static_cast<harness*>(connection->server->user_data);
}

void reply_big(osb* connection, recv_context* context, size_t size) {
    std::string body(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        body[i] = pattern_byte(i);
    }
    const iovec pieces[3] = {
        {body.data(), size / 3}, {nullptr, 0}, {body.data() + size / 3, size - size / 3}};
    connection->server->replyv(connection, context, 0, pieces, 3);
}

void keep(harness* h, osb* connection, recv_context* context) {
    std::lock_guard<std::mutex> guard(h->lock);
    const auto* header = reinterpret_cast<const msg_header*>(context->buffer);
    h->kept.push_back({connection, context->rcvid, header->tag});
    h->changed.notify_all();
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
    const int now = ++h->inside;
    int most = h->most_inside;
    while (most < now && !h->most_inside.compare_exchange_weak(most, now)) {
    }
    const auto* header = reinterpret_cast<const msg_header*>(context->buffer);
    serve(connection, context,
          std::string(reinterpret_cast<const char*>(context->payload),
                      static_cast<size_t>(header->length)));
    --h->inside;
}

int32_t on_connect(osb* connection, recv_context*, service*) {
    harness* h = owner_of(connection);
    ++h->connects;
    return h->refuse ? EDOM : 0;
}

void on_disconnect(osb* connection, recv_context* context, service*) {
    harness* h = owner_of(connection);
    std::lock_guard<std::mutex> guard(h->lock);
    ++h->disconnects;
    h->hang_ups += context == nullptr ? 1 : 0;
    h->changed.notify_all();
}

} // namespace

void harness_start(harness* h, int threads, int32_t max_size, const char* options) {
    h->server = msgserver_create(max_size, 5, MSGSERVER_BY_PATH);
    ASSERT_NE(h->server, nullptr);
    h->server->user_data = h;
    ASSERT_EQ(msgserver_add(h->server, TEST_SERVICE, nullptr, options, 0, worker, on_connect,
                            on_disconnect),
              0)
        << strerror(errno);
    for (int i = 0; i < threads; ++i) {
        h->threads.emplace_back(msgserver_thread_loop, h->server);
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
    std::unique_lock<std::mutex> guard(h->lock);
    h->changed.wait(guard, [&] { return h->disconnects >= count; });
}

void harness_late(harness* h, const char* text) {
    harness::late late;
    {
        std::unique_lock<std::mutex> guard(h->lock);
        h->changed.wait(guard, [&] { return !h->kept.empty(); });
        late = h->kept.front();
        h->kept.erase(h->kept.begin());
    }
    const iovec body{const_cast<char*>(text), strlen(text)};
    EXPECT_EQ(h->server->reply2(late.connection, late.rcvid, late.tag, 3, &body, 1), 0);
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

int32_t harness_connections_open(harness* h) {
    vel_lock_guard guard(h->server->lock);
    return static_cast<service*>(_array_get(&h->server->services, 0))->connections_open;
}

int64_t harness_queued(harness* h) {
    vel_lock_guard guard(h->server->lock);
    return h->server->queued_bytes;
}

msgclient_t* harness_open() {
    msgclient_t* client = msgclient_open(TEST_SERVICE, nullptr, 0);
    EXPECT_NE(client, nullptr) << strerror(errno);
    return client;
}

std::string ask(msgclient_t* client, const std::string& request, size_t capacity) {
    std::string reply(capacity, '\0');
    int32_t length = -1;
    const int32_t result =
        msgclient_putget(client, request.data(), static_cast<int32_t>(request.size()), reply.data(),
                         static_cast<int32_t>(capacity), &length, 0);
    if (result != 0) {
        return "error " + std::to_string(result);
    }
    reply.resize(static_cast<size_t>(length));
    return reply;
}

raw_reply raw_call(message_client* client, const msg_header& header, const std::string& payload,
                   size_t send_size) {
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
    bytes += payload;
    bytes.resize(std::min(send_size, bytes.size()));
    raw_reply reply;
    reply.body.resize(200000);
    const iovec out{bytes.data(), bytes.size()};
    const iovec in[2] = {{&reply.header, sizeof reply.header},
                         {reply.body.data(), reply.body.size()}};
    message_result result;
    reply.error = message_call(client, &out, 1, -1, in, 2, &result);
    reply.status = result.status;
    reply.received = result.received;
    reply.body.resize(result.received > sizeof header ? result.received - sizeof header : 0);
    return reply;
}

msg_header raw_open(message_client* client) {
    EXPECT_EQ(
        message_connect(client, (std::string("/sys/csm/") + TEST_SERVICE + "/default").c_str()), 0);
    msg_header header{};
    header.type = CSM_OPEN;
    const raw_reply reply = raw_call(client, header, std::string(TEST_SERVICE) + '\0');
    EXPECT_EQ(reply.error, 0);
    return reply.header;
}

const std::vector<long> POLL_CALLS = {
#ifdef SYS_poll
    SYS_poll,
#endif
    SYS_ppoll,
};

bool await_in(const std::atomic<pid_t>& thread, const std::vector<long>& calls) {
    while (thread == 0) {
        std::this_thread::yield();
    }
    const std::string path = "/proc/self/task/" + std::to_string(thread) + "/syscall";
    for (;;) {
        std::ifstream file(path);
        std::string number;
        if (!(file >> number)) {
            return false;
        }
        for (const long call : calls) {
            if (number == std::to_string(call)) {
                return true;
            }
        }
        std::this_thread::yield();
    }
}

int descriptor_count() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return static_cast<int>(std::distance(begin(folder), end(folder)));
}
