#include "gifts.h"

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int LINGER_SECONDS = 3600;

int lingering(const sockaddr* listener, socklen_t size) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd, listener, size), 0);
    const std::vector<char> much(1 << 20);
    while (send(fd, much.data(), much.size(), MSG_DONTWAIT) > 0) {
    }
    const linger wait = {1, LINGER_SECONDS};
    EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_LINGER, &wait, sizeof wait), 0);
    return fd;
}

} // namespace

int gift_send(int socket, const std::string& message, const std::vector<int>& gifts) {
    const size_t bytes = gifts.size() * sizeof(int);
    std::vector<char> control(CMSG_SPACE(bytes));
    iovec piece = {const_cast<char*>(message.data()), message.size()};
    msghdr packet = {};
    packet.msg_iov = &piece;
    packet.msg_iovlen = 1;
    packet.msg_control = control.data();
    packet.msg_controllen = control.size();
    cmsghdr* part = CMSG_FIRSTHDR(&packet);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(bytes);
    std::memcpy(CMSG_DATA(part), gifts.data(), bytes);
    return sendmsg(socket, &packet, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0 ? 0 : errno;
}

std::vector<int> gift_lingering(int count) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* name = reinterpret_cast<sockaddr*>(&address);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int small = 4096;
    setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    EXPECT_EQ(bind(listener, name, size), 0);
    EXPECT_EQ(listen(listener, count), 0);
    getsockname(listener, name, &size);
    std::vector<int> gifts;
    for (int i = 0; i < count; ++i) {
        gifts.push_back(lingering(name, size));
        EXPECT_GE(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), 0);
    }
    close(listener);
    return gifts;
}

void gift_close(std::vector<int>& gifts) {
    for (const int fd : gifts) {
        close(fd);
    }
    gifts.clear();
}
