/* A channel with one thread that echoes what it receives, for tests of message passing. */
#ifndef TESTS_CHANNEL_THREAD_H
#define TESTS_CHANNEL_THREAD_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <veloran/message.h>

constexpr const char* TEST_NAME = "/sys/csm/test/default";

/* Every program of these tests has a runtime root of its own, made before main. */
const std::string& test_root();

struct channel_thread {
    message_channel* channel = nullptr;
    std::thread thread;
    std::atomic<bool> stop{false};
    std::atomic<int> ended{0};    /* disconnect pulses */
    std::atomic<int> received{0}; /* messages */
    std::mutex lock;
    std::condition_variable changed;
};

/* Serves TEST_NAME. A message "size N" is answered with N bytes of a pattern in many pieces, "event
 * TEXT" takes the event channel and sends an event on it with each message (status: errno), any
 * other message with itself and the status 7. */
void channel_thread_start(channel_thread* server);
void channel_thread_stop(channel_thread* server);

/* Waits until a counter of the server has reached a value. */
void channel_thread_await(channel_thread* server, const std::atomic<int>& counter, int value);

/* Byte `i` of the pattern. */
inline unsigned char pattern(size_t i) {
    return static_cast<unsigned char>(i * 131 + i / 251);
}

/* One call with text; the reply's text or "error N". */
std::string call(message_client* client, const std::string& text, size_t capacity = 256,
                 int32_t* status = nullptr, int descriptor = -1);

/* A plain socket that is connected to TEST_NAME. */
int plain_socket();

/* Open descriptors of this process. */
int descriptor_count();

#endif
