/* The database service as a process of its own, beside services that use it. */
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veloran/pps.h>
#include <veloran/sqldb.h>

#include "daemon.h"
#include "program.h"
#include "requests.h"

namespace fs = std::filesystem;

namespace {

/* Starts a database service over the roots of a service. */
program spawn(const test_daemon& roots,
              const std::vector<std::string>& options = {"--schemas", SCHEMA_FILES}) {
    std::vector<std::string> words = {SQLDBD_EXECUTABLE};
    words.insert(words.end(), options.begin(), options.end());
    return program_start(words, {{"VELORAN_RUN", roots.run},
                                 {"VELORAN_STATE", roots.root + "/state"},
                                 {"VELORAN_SQLDB_DEFAULTS", "/nonexistent"}});
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

struct service {
    test_daemon daemon;
    fake_client disk;
    request_client client;
};

void start(service& service) {
    ASSERT_TRUE(daemon_start(service.daemon));
    service.disk = daemon_fake(service.daemon, "disk");
    fake_tree(service.disk, "", "/a|tracks:5\n");
}

bool has_session(const service& service, const char* player) {
    return daemon_await_object(service.daemon, player, "trksession", "length", ":n:5");
}

void build(service& service, const char* player) {
    uint64_t ts_id = 0;
    ASSERT_TRUE(request_connect(service.client, service.daemon.service));
    EXPECT_EQ(request_open(service.client, player), 0);
    EXPECT_EQ(request_create(service.client, 0, "/a", -1, 0, &ts_id), 0);
    EXPECT_TRUE(has_session(service, player)); /* a save takes what is there */
    request_disconnect(service.client);
}

void stop(service& service) {
    fake_close(service.disk);
    EXPECT_EQ(daemon_stop(service.daemon), 0);
    EXPECT_FALSE(contains(daemon_log(service.daemon), "ailed")) << daemon_log(service.daemon);
}

bool await_valid(const std::string& name) {
    pps_object* watch = pps_open("/pps/veloran/sqldb/status/.all?delta,wait", O_RDONLY, 0);
    std::string text;
    char bytes[4096];
    ssize_t got = 1;
    while (watch != nullptr && got > 0 && !contains(text, "@" + name + "\nStatus::Valid")) {
        got = pps_read(watch, bytes, sizeof bytes, -1);
        text.append(bytes, static_cast<size_t>(got < 0 ? 0 : got));
    }
    pps_close(watch);
    return watch != nullptr && got > 0;
}

} // namespace

TEST(sqldbd, may_be_ended_killed_and_started_again_beside_a_service) {
    service service;
    daemon_prepare(service.daemon);
    service.daemon.options = {"-l"};
    service.daemon.plugins = {{"disk", "source disk", {}}};
    program sqldbd = spawn(service.daemon);
    ASSERT_TRUE(program_await(sqldbd, "serves"));
    start(service);
    build(service, "before");
    program_result ended = program_end(sqldbd, SIGKILL);
    EXPECT_EQ(ended.status, 128 + SIGKILL);
    EXPECT_TRUE(contains(ended.out + ended.err, "database lyrane made empty")) << ended.err;
    build(service, "between");
    EXPECT_TRUE(has_session(service, "before"));
    EXPECT_TRUE(has_session(service, "between"));
    sqldbd = spawn(service.daemon);
    ASSERT_TRUE(program_await(sqldbd, "serves"));
    ASSERT_TRUE(await_valid("lyrane"));
    stop(service);
    /* Killed again, and a service that finds nobody serves itself. */
    EXPECT_EQ(program_end(sqldbd, SIGKILL).status, 128 + SIGKILL);
    start(service);
    EXPECT_TRUE(has_session(service, "before"));
    EXPECT_TRUE(has_session(service, "between"));
    sqldbd = spawn(service.daemon);
    ended = program_end(sqldbd);
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(contains(ended.out + ended.err, "another process serves")) << ended.err;
    stop(service);
    /* Ended in order, it withdraws what it served, and keeps it. */
    sqldbd = spawn(service.daemon);
    ASSERT_TRUE(program_await(sqldbd, "serves"));
    start(service);
    EXPECT_TRUE(has_session(service, "before"));
    stop(service);
    ended = program_end(sqldbd, SIGTERM);
    EXPECT_EQ(ended.status, 0);
    EXPECT_FALSE(contains(ended.out + ended.err, "made empty")) << ended.err;
    EXPECT_EQ(sqldb_connect("/dev/sqldb/lyrane", 0), nullptr);
    EXPECT_EQ(errno, ENOENT);
    daemon_remove(service.daemon);
}

/* As root, for a service that becomes another user: that user is believed, a third one is not. */
TEST(sqldbd, serves_the_user_that_it_becomes) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    service service;
    daemon_prepare(service.daemon);
    fs::permissions(fs::path(service.daemon.root).parent_path(), fs::perms::others_exec,
                    fs::perm_options::add);
    service.daemon.options = {"-l", "-U12345:12346"};
    service.daemon.plugins = {{"disk", "source disk", {}}};
    program sqldbd = spawn(service.daemon, {"--schemas", SCHEMA_FILES, "-U", "12345:12346"});
    ASSERT_TRUE(program_await(sqldbd, "serves"));
    start(service);
    build(service, "mine");
    stop(service);
    const fs::path configs = service.daemon.run + "/pps/veloran/sqldb/config";
    const fs::path foreign = configs.parent_path() / "foreign";
    std::ofstream(foreign) << "@foreign\nFilename::/db/foreign.db\nSchemaFile::/db/lyrane.sql\n";
    ASSERT_EQ(chown(foreign.c_str(), 12347, 12346), 0);
    fs::rename(foreign, configs / "foreign");
    EXPECT_TRUE(program_await(sqldbd, "not believed"));
    start(service);
    EXPECT_TRUE(has_session(service, "mine"));
    stop(service);
    EXPECT_EQ(program_end(sqldbd, SIGTERM).status, 0);
    struct stat status = {};
    const std::string folder = service.daemon.root + "/state/db";
    EXPECT_EQ(stat((folder + "/lyrane.db").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 12345u);
    EXPECT_FALSE(fs::exists(folder + "/foreign.db"));
    daemon_remove(service.daemon);
}

TEST(sqldbd, says_what_is_wrong_at_once) {
    test_daemon roots;
    daemon_prepare(roots);
    const std::string file = roots.root + "/file";
    std::ofstream(file) << "x";
    test_daemon blocked = roots;
    blocked.run = file;
    const struct {
        const test_daemon& roots;
        std::vector<std::string> options;
        int status;
        std::string said;
    } cases[] = {
        {roots, {"--help"}, 0, "--schemas"},
        {roots, {"--version"}, 0, "sqldbd 0"},
        {roots, {"--schemas", file}, 2, "file"},
        {roots, {"--unknown"}, 2, "--unknown"},
        {roots, {"more"}, 2, "more"},
        {roots, {"-U", "12345"}, 1, "needs a group"},
        {roots, {"-U", "no such user"}, 1, "there is no user"},
        {blocked, {"--schemas", SCHEMA_FILES}, 1, file + "\" (Not a directory)"},
    };
    for (const auto& item : cases) {
        program sqldbd = spawn(item.roots, item.options);
        const program_result result = program_end(sqldbd);
        EXPECT_EQ(result.status, item.status) << item.said;
        EXPECT_TRUE(contains(result.out + result.err, item.said)) << result.out << result.err;
    }
    daemon_remove(roots);
}
