#include "channel_thread.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include <gtest/gtest.h>

const std::string& test_root() {
    static const std::string root = [] {
        char name[] = "/tmp/message-test-XXXXXX";
        static const std::string top = mkdtemp(name);
        atexit([] { std::filesystem::remove_all(top); });
        /* Deep enough that no socket address could hold a path below it. */
        const std::string made = top + "/" + std::string(100, 'd');
        setenv("VELORAN_RUN", made.c_str(), 1);
        return made;
    }();
    return root;
}
static const std::string& root_before_main = test_root();

std::string test_folder() {
    return test_root() + "/sys/csm/test";
}

namespace {

void answer_size(channel_thread* server, int64_t rcvid, size_t size) {
    std::string data = pattern(size);
    std::vector<iovec> pieces;
    const size_t step = size / 40 + 1;
    for (size_t at = 0; at < size; at += step) {
        pieces.push_back({data.data() + at, std::min(step, size - at)});
        pieces.push_back({nullptr, 0});
    }
    message_reply(server->channel, rcvid, 7, pieces.data(), static_cast<int32_t>(pieces.size()));
}

void answer(channel_thread* server, int64_t rcvid, std::string text) {
    if (text.rfind("size ", 0) == 0) {
        answer_size(server, rcvid, strtoul(text.c_str() + 5, nullptr, 10));
        return;
    }
    int32_t status = 7;
    if (text == "event") {
        status = message_take_event_channel(server->channel, rcvid) == 0 ? 0 : errno;
    }
    const iovec echo{text.data(), text.size()};
    message_reply(server->channel, rcvid, status, &echo, 1);
    if (text != "event") {
        message_event event{MESSAGE_EVENT_PULSE, 1, 42, 0, 0};
        (void)message_deliver_event(server->channel, rcvid, &event);
    }
}

void count(channel_thread* server, std::atomic<int>* counter) {
    std::lock_guard<std::mutex> guard(server->lock);
    ++*counter;
    server->changed.notify_all();
}

void run(channel_thread* server) {
    std::vector<char> buffer(70000);
    while (!server->is_ending) {
        const iovec area{buffer.data(), buffer.size()};
        message_info info;
        const int64_t rcvid = message_receive(server->channel, &area, 1, &info);
        ASSERT_GE(rcvid, 0);
        if (rcvid > 0) {
            answer(server, rcvid,
                   std::string(buffer.data(),
                               std::min(buffer.size(), static_cast<size_t>(info.msglen))));
            message_done(server->channel, rcvid);
            count(server, &server->received);
        } else if (info.pulse == MESSAGE_PULSE_DISCONNECT) {
            message_detach(server->channel, info.scoid);
            count(server, &server->ended);
        }
    }
}

} // namespace

channel_thread::channel_thread() : channel(message_channel_create()) {
    EXPECT_EQ(attach(channel), 0);
    thread = std::thread(run, this);
}

channel_thread::~channel_thread() {
    stop();
}

void channel_thread::stop() {
    if (thread.joinable()) {
        is_ending = true;
        message_wake(channel);
        thread.join();
        message_channel_destroy(channel);
    }
}

void channel_thread::await(const std::atomic<int>& counter, int value) {
    std::unique_lock<std::mutex> guard(lock);
    changed.wait(guard, [&] { return counter >= value; });
}

test_client::test_client() {
    EXPECT_EQ(message_connect(this, TEST_NAME), 0) << strerror(errno);
}

test_client::~test_client() {
    message_disconnect(this);
}

int attach(message_channel* channel) {
    const int32_t lock = message_name_claim(TEST_NAME);
    return lock >= 0 && message_name_attach(channel, TEST_NAME, lock, 0640, static_cast<uid_t>(-1),
                                            static_cast<gid_t>(-1)) >= 0
               ? 0
               : errno;
}

std::string pattern(size_t size) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        data[i] = static_cast<char>(i * 131 + i / 251);
    }
    return data;
}

std::string call(message_client* client, const std::string& text, size_t capacity, int32_t* status,
                 int descriptor) {
    std::string reply(capacity, '\0');
    const iovec out{const_cast<char*>(text.data()), text.size()};
    const iovec in{reply.data(), reply.size()};
    message_result result;
    const int32_t error = message_call(client, &out, 1, descriptor, &in, 1, &result);
    if (status != nullptr) {
        *status = result.status;
    }
    reply.resize(result.received);
    return error != 0 ? "error " + std::to_string(error) : reply;
}

int plain_socket() {
    message_client client;
    EXPECT_EQ(message_connect(&client, TEST_NAME), 0) << strerror(errno);
    return client.fd;
}
