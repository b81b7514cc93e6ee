/* A channel with one thread that echoes what it receives, for tests of message passing. */
#ifndef TESTS_CHANNEL_THREAD_H
#define TESTS_CHANNEL_THREAD_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include <veloran/message.h>

constexpr const char* TEST_NAME = "/sys/csm/test/default";

/* Every program of these tests has a runtime root of its own, made before main; the folder of
 * TEST_NAME. */
const std::string& test_root();
std::string test_folder();

/* Serves TEST_NAME while it lives. A message "size N" is answered with N bytes of the pattern in
 * many pieces, "event" takes the event channel (status: errno), any other message is answered with
 * itself and the status 7, and then sends an event. */
struct channel_thread {
    message_channel* channel = nullptr;
    std::thread thread;
    std::atomic<bool> is_ending{false};
    std::atomic<int> ended{0};    /* disconnect pulses */
    std::atomic<int> received{0}; /* messages */
    std::mutex lock;
    std::condition_variable changed;

    channel_thread();
    ~channel_thread();
    /* Ends serving before the end of its life. */
    void stop();
    /* Waits until a counter has reached a value. */
    void await(const std::atomic<int>& counter, int value);
};

/* A client that is connected to TEST_NAME while it lives. */
struct test_client : message_client {
    test_client();
    ~test_client();
};

/* Claims TEST_NAME and serves it with a channel: 0, or errno. */
int attach(message_channel* channel);

/* `size` bytes, each of which tells its place. */
std::string pattern(size_t size);

/* One call with text; the reply's text or "error N". */
std::string call(message_client* client, const std::string& text, size_t capacity = 256,
                 int32_t* status = nullptr, int descriptor = -1);

/* A plain socket that is connected to TEST_NAME. */
int plain_socket();

#endif
