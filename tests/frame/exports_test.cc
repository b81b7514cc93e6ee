/* The names that the service shows to its plug-ins, and those that it takes. */
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>

#include "child_run.h"
#include "daemon.h"

TEST(exports, each_name_is_the_services_and_no_library_of_the_shipped_plugins_has_it) {
    const std::string list = read_whole_file(EXPORTS_LIST);
    const std::regex name("(\\w+);");
    std::string names;
    int count = 0;
    for (std::sregex_iterator at(list.begin(), list.end(), name), end; at != end; ++at, ++count) {
        names += at->str(1) + ","; /* a blank could fall on the border of two pieces of the file */
    }
    ASSERT_GT(count, 100);
    test_daemon daemon;
    daemon.own_root = true;
    daemon_prepare(daemon);
    daemon.plugins.push_back(
        {"probe", "", {{"names", names}, {"libraries", SHIPPED_PLUGINS}}, false, EXPORTS_PROBE});
    EXPECT_TRUE(daemon_start(daemon));
    EXPECT_EQ(daemon_stop(daemon), 0);
    const std::string log = daemon_log(daemon);
    EXPECT_EQ(log.find("wrong: "), std::string::npos) << log;
    EXPECT_NE(log.find("checked: " + std::to_string(count) + " names"), std::string::npos) << log;
    daemon_remove(daemon);
}

TEST(imports, no_bounded_wait_goes_by_a_clock_that_can_be_set) {
    FILE* list = popen("nm -D -u " LYRANE_EXECUTABLE " " SHIPPED_PLUGINS, "r");
    ASSERT_NE(list, nullptr);
    std::string names;
    char piece[4096];
    for (size_t n = 0; (n = fread(piece, 1, sizeof piece, list)) > 0;) {
        names.append(piece, n);
    }
    EXPECT_EQ(pclose(list), 0);
    EXPECT_NE(names.find("pthread_cond_clockwait"), std::string::npos) << names;
    for (const char* name :
         {"pthread_mutex_timedlock", "pthread_cond_timedwait", "sem_timedwait"}) {
        EXPECT_EQ(names.find(name), std::string::npos) << name;
    }
}
