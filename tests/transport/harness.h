/* A message server with a scripted worker, for tests of the transport. */
#ifndef TESTS_HARNESS_H
#define TESTS_HARNESS_H

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <lyrane/client.h>

#include "msgserver.h"
#include "wire.h"

/* What the worker makes of a request's first letter; the rest is its argument.
 *   e TEXT  replies TEXT, status 0        s N  replies nothing, status N
 *   b N     replies N bytes of a pattern  t    replies twice; the second time "EINVAL" is counted
 *   n       makes no reply                l    keeps a CSM_PUT for harness_late
 * `connect` refuses with EDOM while `refuse` is set. */
struct harness {
    explicit harness(int threads = 1, int32_t max_size = 65536, const char* options = "perms=666");
    ~harness();

    msgserver* server;
    std::vector<std::thread> threads;
    std::atomic<bool> refuse{false};
    std::atomic<int> disconnects{0};
    std::atomic<int> hang_ups{0}; /* disconnects without a context */
    std::atomic<int> refused_replies{0};
    std::atomic<int> inside{0};        /* workers running now */
    std::atomic<bool> overlaps{false}; /* two did at once */

    struct late {
        osb* connection;
        int64_t rcvid;
        uint32_t tag;
    };
    late kept{};
    std::atomic<bool> keeps{false};
};

constexpr const char* TEST_SERVICE = "harness.sys";

/* What the end of a harness does, ahead of it. */
void harness_stop(harness* h);
void harness_await_disconnects(harness* h, int count);
constexpr int32_t LATE_STATUS = 3;
/* Waits for a kept CSM_PUT and answers it with that status and a text. */
void harness_late(harness* h, const char* text);

/* Waits until the server has so many connection records, over all clients: a client hears of the
 * end of its connection before the record is freed. */
void harness_await_connections(harness* h, int32_t count);
/* Bytes in all queues. */
int64_t harness_queued(harness* h);

/* A client of that service, closed at the end of its scope. */
struct scoped_client {
    scoped_client();
    scoped_client(const scoped_client&) = delete;
    ~scoped_client() { msgclient_close(record); }
    operator msgclient_t*() const { return record; }

    msgclient_t* record;
};

/* One synchronous request; the reply's text, error(N) for a result other than 0. */
std::string ask(msgclient_t* client, const std::string& request, size_t capacity = 4096);
std::string error(int number);
int32_t put(msgclient_t* client, uint32_t tag, const std::string& request);

/* Runs it in so many threads at once, with the number of each; waits for their end. */
void in_threads(int count, const std::function<void(int)>& body);

std::string pattern(size_t size);

/* A client that speaks raw bytes; it has opened the service unless it should not. */
wire_client raw_client(bool opens = true);

#endif
