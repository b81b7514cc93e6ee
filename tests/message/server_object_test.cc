/* Server objects: messages come whole and in order, ends are seen, and nobody waits. */
#include <veloran/server_object.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <veloran/lock.h>

#include "gifts.h"

static constexpr const char* PATH = "/pps/services/test/control";

namespace {

/* A served object and one client on it. */
struct pair {
    server_object* object = server_object_create(PATH, 0666);
    vel_fd client{server_object_open("/pps/services/test/control?wait,delta")};
    vel_fd server{server_object_accept(object)};
    ~pair() { server_object_destroy(object); }
};

/* The next message, or the error's number in brackets. */
std::string next(const vel_fd& fd) {
    char* text = nullptr;
    const int64_t length = server_object_read(fd.value, &text);
    const vel_text owner(text);
    return length < 0 ? "[" + std::to_string(errno) + "]"
                      : std::string(text, static_cast<size_t>(length));
}

int write_text(const vel_fd& fd, const std::string& text) {
    return server_object_write(fd.value, text.data(), text.size()) == 0 ? 0 : errno;
}

std::string error(int number) {
    return "[" + std::to_string(number) + "]";
}

} // namespace

TEST(ServerObject, MessagesComeWholeAndInOrder) {
    pair p;
    ASSERT_NE(p.object, nullptr);
    EXPECT_EQ(server_object_create(PATH, 0666), nullptr);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(server_object_accept(p.object), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(next(p.server), error(EAGAIN));
    const std::string large(SERVER_OBJECT_MESSAGE_MAX, 'x');
    const std::string texts[] = {"msg::acquire\nid::1", std::string("a\0b", 3), large};
    for (const std::string& text : texts) {
        EXPECT_EQ(write_text(p.client, text), 0);
    }
    EXPECT_EQ(write_text(p.client, large + "x"), EMSGSIZE);
    for (const std::string& text : texts) {
        EXPECT_EQ(next(p.server), text);
    }
    /* A sender of our own kind cannot send more; another can. */
    const std::string huge(SERVER_OBJECT_MESSAGE_MAX + 1, 'y');
    EXPECT_EQ(write(p.client.value, huge.data(), huge.size()), static_cast<ssize_t>(huge.size()));
    EXPECT_EQ(write_text(p.client, "after"), 0);
    EXPECT_EQ(next(p.server), error(EMSGSIZE));
    EXPECT_EQ(next(p.server), "after");
}

/* A descriptor cannot be sent; where the system does not see to that, its message is not taken. */
TEST(ServerObject, NoDescriptors) {
    constexpr int PASSRIGHTS = 83;
    pair p;
    const int refused = gift_send(p.client.value, "take this", {p.client.value});
    const int on = 1;
    if (setsockopt(p.server.value, SOL_SOCKET, PASSRIGHTS, &on, sizeof on) == 0) {
        EXPECT_EQ(refused, EPERM);
        EXPECT_EQ(gift_send(p.client.value, "take this", {p.client.value}), 0);
    }
    EXPECT_EQ(next(p.server), error(ECONNRESET));
    EXPECT_EQ(next(p.server), error(ECONNRESET)) << "it was taken, and dropped by this thread";
}

TEST(ServerObject, TheOtherEndDoesNotReadOrIsGone) {
    pair p;
    const std::string text(1000, 'z');
    int result = 0;
    while ((result = write_text(p.server, text)) == 0) {
    }
    EXPECT_EQ(result, EAGAIN);
    EXPECT_EQ(next(p.client), text);
    EXPECT_EQ(write_text(p.server, text), 0);
    close(p.client.release());
    EXPECT_EQ(write_text(p.server, text), ECONNRESET);
    EXPECT_EQ(next(p.server), error(ECONNRESET));

    /* The object goes, the clients live on until their own descriptor is closed. */
    const vel_fd client(server_object_open(PATH));
    vel_fd server(server_object_accept(p.object));
    const vel_fd left(server_object_open(PATH)); /* never accepted */
    server_object_destroy(p.object);
    p.object = nullptr;
    EXPECT_EQ(server_object_open(PATH), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(next(left), error(ECONNRESET));
    EXPECT_EQ(write_text(server, "last"), 0);
    close(server.release());
    EXPECT_EQ(next(client), "last");
    EXPECT_EQ(next(client), error(ECONNRESET));
}
