/* Names: who serves them, what the files look like, what is left behind. */
#include <cerrno>
#include <cstring>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "channel_thread.h"

TEST(MessageName, TheSocketOfAKilledServerIsReplacedAndNoOtherFile) {
    const std::string path = test_folder() + "/default";
    const pid_t child = fork();
    if (child == 0) {
        _exit(attach(message_channel_create())); /* leaves both files behind, as a kill would */
    }
    int status;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    ASSERT_EQ(access(path.c_str(), F_OK), 0);
    message_client client;
    EXPECT_EQ(message_connect(&client, TEST_NAME), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    {
        channel_thread server;
        test_client replaced;
        EXPECT_EQ(call(&replaced, "alive"), "alive");
    }
    std::ofstream(path) << "no socket";
    message_channel* channel = message_channel_create();
    EXPECT_EQ(attach(channel), EEXIST);
    message_channel_destroy(channel);
    EXPECT_EQ(unlink(path.c_str()), 0);
}

TEST(MessageName, OneServerWhoseFilesHaveExactlyTheRightsAskedForAndGoAtTheEnd) {
    const mode_t mask = umask(0);
    {
        channel_thread server;
        EXPECT_EQ(message_name_claim(TEST_NAME), -1);
        EXPECT_EQ(errno, EEXIST);
        const struct {
            const char* file;
            mode_t mode;
        } cases[] = {{"/default", S_IFSOCK | 0640},
                     {"/.default.lock", S_IFREG | 0600},
                     {"", S_IFDIR | 0755}};
        for (const auto& item : cases) {
            struct stat made;
            ASSERT_EQ(lstat((test_folder() + item.file).c_str(), &made), 0);
            EXPECT_EQ(made.st_mode, item.mode) << item.file;
            EXPECT_EQ(made.st_uid, geteuid()) << item.file;
        }
    }
    EXPECT_EQ(rmdir(test_folder().c_str()), 0) << "something was left in it";
    umask(mask);
}
