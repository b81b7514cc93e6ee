/* A message server with a scripted worker, for tests of the transport. */
#ifndef TESTS_HARNESS_H
#define TESTS_HARNESS_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <lyrane/client.h>

#include "msgserver.h"

/* What the worker makes of a request's first letter; the rest is its argument.
 *   e TEXT  replies TEXT, status 0        s N  replies nothing, status N
 *   b N     replies N bytes of a pattern  t    replies twice; the second time "EINVAL" is counted
 *   n       makes no reply                l    keeps a CSM_PUT for harness_late
 * `connect` refuses with EDOM while `refuse` is set. */
struct harness {
    msgserver* server = nullptr;
    std::vector<std::thread> threads;
    std::atomic<bool> refuse{false};
    std::atomic<int> connects{0};
    std::atomic<int> disconnects{0};
    std::atomic<int> hang_ups{0}; /* disconnects without a context */
    std::atomic<int> refused_replies{0};
    std::atomic<int> inside{0}; /* workers running now */
    std::atomic<int> most_inside{0};

    std::mutex lock;
    std::condition_variable changed;
    struct late {
        osb* connection;
        int64_t rcvid;
        uint32_t tag;
    };
    std::vector<late> kept;
};

constexpr const char* TEST_SERVICE = "harness.sys";

void harness_start(harness* h, int threads = 1, int32_t max_size = 65536,
                   const char* options = "perms=666");
void harness_stop(harness* h);
void harness_await_disconnects(harness* h, int count);
/* Waits for a kept CSM_PUT and answers it with a text. */
void harness_late(harness* h, const char* text);

/* Waits until the server has so many connection records, over all clients: a client hears of the
 * end of its connection before the record is freed. */
void harness_await_connections(harness* h, int32_t count);
/* The service's own count of them. */
int32_t harness_connections_open(harness* h);
/* Bytes in all queues. */
int64_t harness_queued(harness* h);

msgclient_t* harness_open();

/* One synchronous request; the reply's text, "error N" for a result other than 0. */
std::string ask(msgclient_t* client, const std::string& request, size_t capacity = 4096);

char pattern_byte(size_t i);

/* A raw message: a header by hand and any bytes behind. */
struct raw_reply {
    int32_t error = 0; /* error number of an error reply */
    int32_t status = 0;
    msg_header header{};
    std::string body;
    size_t received = 0; /* bytes of data, the header included */
};
raw_reply raw_call(message_client* client, const msg_header& header, const std::string& payload,
                   size_t send_size = SIZE_MAX);
/* Connects and opens; the header of the reply. */
msg_header raw_open(message_client* client);

/* Waits until a thread of this process has said its id and sleeps in one of these system calls.
 * False: it has ended. */
bool await_in(const std::atomic<pid_t>& thread, const std::vector<long>& calls);
extern const std::vector<long> POLL_CALLS;

int descriptor_count();

#endif
