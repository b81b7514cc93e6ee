/* Names: who serves them, what the files look like, what is left behind. */
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "channel_thread.h"

static std::string socket_path() {
    return test_root() + TEST_NAME;
}

TEST(MessageName, OneServerAtATime) {
    channel_thread server;
    channel_thread_start(&server);
    EXPECT_EQ(message_name_claim(TEST_NAME), -1);
    EXPECT_EQ(errno, EEXIST);
    channel_thread_stop(&server);
    const int32_t lock = message_name_claim(TEST_NAME);
    EXPECT_GE(lock, 0);
    close(lock);
}

TEST(MessageName, TheSocketOfAKilledServerIsReplaced) {
    const pid_t child = fork();
    if (child == 0) {
        message_channel* channel = message_channel_create();
        const bool good =
            message_name_attach(channel, TEST_NAME, message_name_claim(TEST_NAME), 0600,
                                static_cast<uid_t>(-1), static_cast<gid_t>(-1)) >= 0;
        _exit(good ? 0 : 1); /* leaves socket and lock file behind, as a kill would */
    }
    int status;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    ASSERT_EQ(access(socket_path().c_str(), F_OK), 0);
    message_client client;
    EXPECT_EQ(message_connect(&client, TEST_NAME), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    channel_thread server;
    channel_thread_start(&server);
    ASSERT_EQ(message_connect(&client, TEST_NAME), 0);
    EXPECT_EQ(call(&client, "alive"), "alive");
    message_disconnect(&client);
    channel_thread_stop(&server);
}

TEST(MessageName, FilesHaveExactlyTheRightsAskedForAndGoAtTheEnd) {
    const mode_t mask = umask(0);
    channel_thread server;
    channel_thread_start(&server);
    struct stat made;
    ASSERT_EQ(lstat(socket_path().c_str(), &made), 0);
    EXPECT_TRUE(S_ISSOCK(made.st_mode));
    EXPECT_EQ(made.st_mode & 07777, 0640u);
    EXPECT_EQ(made.st_uid, geteuid());
    const std::string folder = test_root() + "/sys/csm/test";
    ASSERT_EQ(stat((folder + "/.default.lock").c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0600u);
    ASSERT_EQ(stat(folder.c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0755u);
    channel_thread_stop(&server);
    EXPECT_EQ(rmdir(folder.c_str()), 0) << "something was left in it";
    umask(mask);
}

TEST(MessageName, WhatIsNoSocketIsLeftAlone) {
    const int32_t lock = message_name_claim(TEST_NAME);
    const int file = open(socket_path().c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    message_channel* channel = message_channel_create();
    EXPECT_EQ(message_name_attach(channel, TEST_NAME, lock, 0600, static_cast<uid_t>(-1),
                                  static_cast<gid_t>(-1)),
              -1);
    EXPECT_EQ(errno, EEXIST);
    message_channel_destroy(channel);
    EXPECT_EQ(unlink(socket_path().c_str()), 0);
    close(file);
}
