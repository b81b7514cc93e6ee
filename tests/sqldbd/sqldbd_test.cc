/* The database service as a process of its own, beside services that use it. */
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>

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

/* Waits for its end: the exit status, or 128 + a signal's number, and all that it said. */
int end(program& sqldbd, int signal, std::string* said = nullptr) {
    const program_result result = program_end(sqldbd, signal);
    if (said != nullptr) {
        *said = result.out + result.err;
    }
    return result.status;
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

/* Connects where the client library of this process looks; the other root is without clients. */
void build(service& service, const char* player) {
    uint64_t ts_id = 0;
    ASSERT_TRUE(request_connect(service.client, service.daemon.service));
    EXPECT_EQ(request_open(service.client, player), 0);
    EXPECT_EQ(request_create(service.client, 0, "/a", -1, 0, &ts_id), 0);
    request_disconnect(service.client);
}

bool has_session(const service& service, const char* player) {
    return daemon_await_object(service.daemon, player, "trksession", "length", ":n:5");
}

void stop(service& service) {
    fake_close(service.disk);
    EXPECT_EQ(daemon_stop(service.daemon), 0);
    EXPECT_EQ(daemon_log(service.daemon).find("ailed"), std::string::npos)
        << daemon_log(service.daemon);
}

void prepare(service& service, bool own_root) {
    service.daemon.own_root = own_root;
    daemon_prepare(service.daemon);
    service.daemon.options = {"-l"};
    service.daemon.plugins = {{"disk", "source disk", {}}};
}

struct object_closer {
    void operator()(pps_object* object) const { pps_close(object); }
};
using object_owner = std::unique_ptr<pps_object, object_closer>;

bool await_valid(const std::string& name) {
    const object_owner watch(pps_open("/pps/veloran/sqldb/status/.all?delta,wait", O_RDONLY, 0));
    std::string text;
    char bytes[4096];
    ssize_t got = 1;
    while (watch != nullptr && got > 0 &&
           text.find("@" + name + "\nStatus::Valid") == std::string::npos) {
        got = pps_read(watch.get(), bytes, sizeof bytes, -1);
        text.append(bytes, static_cast<size_t>(got < 0 ? 0 : got));
    }
    return watch != nullptr && got > 0;
}

/* How many notes another service of this root has, which keeps them in a database of its own. */
int64_t add_note(const char* text) {
    sqldb_connection* notes = sqldb_connect("/dev/sqldb/notes", 0);
    int64_t count = -1;
    if (sqldb_statement(notes, "INSERT INTO notes(body) VALUES('%q')", text) == 0 &&
        sqldb_statement(notes, "SELECT count(*) FROM notes") == 0) {
        sqldb_result* result = sqldb_getresult(notes);
        count = sqldb_cell_integer(result, 0, 0, -1);
        sqldb_freeresult(result);
    }
    EXPECT_EQ(sqldb_disconnect(notes), 0);
    return count;
}

void ask_for_notes() {
    const std::string text = "Filename::/db/notes.db\nSchemaFile::/db/notes.sql\n";
    const object_owner object(
        pps_open("/pps/veloran/sqldb/config/notes", O_WRONLY | O_CREAT | O_TRUNC, 0644));
    ASSERT_NE(object, nullptr) << strerror(errno);
    ASSERT_EQ(pps_write(object.get(), text.data(), text.size()), 0);
}

} // namespace

TEST(sqldbd, serves_several_services_of_two_roots) {
    service first;
    prepare(first, false);
    service second;
    prepare(second, true);
    for (int run = 0; run < 2; ++run) {
        program ours = spawn(first.daemon);
        program theirs = spawn(second.daemon);
        ASSERT_TRUE(program_await(ours, "serves"));
        ASSERT_TRUE(program_await(theirs, "serves"));
        if (run == 0) {
            fs::create_directories(first.daemon.root + "/state/db");
            std::ofstream(first.daemon.root + "/state/db/notes.sql") << "CREATE TABLE notes(body);";
            ask_for_notes();
        }
        start(first);
        start(second);
        if (run == 0) {
            build(first, "mine");
        }
        EXPECT_TRUE(has_session(first, "mine"));
        ASSERT_TRUE(await_valid("notes"));
        EXPECT_EQ(add_note("a"), run + 1);
        stop(first);
        stop(second);
        std::string said[2];
        EXPECT_EQ(end(ours, SIGTERM, &said[0]), 0);
        EXPECT_EQ(end(theirs, SIGINT, &said[1]), 0);
        EXPECT_EQ(sqldb_connect("/dev/sqldb/notes", 0), nullptr);
        EXPECT_EQ(errno, ENOENT);
        for (const std::string& text : said) {
            EXPECT_EQ(text.find("database lyrane made empty") != std::string::npos, run == 0)
                << text;
        }
    }
    daemon_remove(first.daemon);
    daemon_remove(second.daemon);
}

TEST(sqldbd, may_be_killed_and_started_again_beside_a_service) {
    service service;
    prepare(service, false);
    program sqldbd = spawn(service.daemon);
    ASSERT_TRUE(program_await(sqldbd, "serves"));
    start(service);
    build(service, "before");
    EXPECT_EQ(end(sqldbd, SIGKILL), 128 + SIGKILL);
    build(service, "between");
    EXPECT_TRUE(has_session(service, "before"));
    EXPECT_TRUE(has_session(service, "between"));
    sqldbd = spawn(service.daemon);
    ASSERT_TRUE(program_await(sqldbd, "serves"));
    ASSERT_TRUE(await_valid("lyrane"));
    stop(service);
    /* Killed again, and a service that finds nobody serves itself. */
    EXPECT_EQ(end(sqldbd, SIGKILL), 128 + SIGKILL);
    start(service);
    EXPECT_TRUE(has_session(service, "before"));
    EXPECT_TRUE(has_session(service, "between"));
    sqldbd = spawn(service.daemon);
    std::string said;
    EXPECT_EQ(end(sqldbd, 0, &said), 1);
    EXPECT_NE(said.find("another process serves"), std::string::npos) << said;
    stop(service);
    daemon_remove(service.daemon);
}

TEST(sqldbd, says_what_is_wrong_at_once) {
    test_daemon roots;
    daemon_prepare(roots);
    const std::string file = roots.root + "/file";
    std::ofstream(file) << "x";
    const struct {
        std::vector<std::string> options;
        int status;
        const char* said;
    } cases[] = {
        {{"--help"}, 0, "--schemas"},
        {{"--version"}, 0, "sqldbd 0"},
        {{"--schemas", file}, 2, "file"},
        {{"--unknown"}, 2, "--unknown"},
        {{"more"}, 2, "more"},
    };
    std::string said;
    for (const auto& item : cases) {
        program sqldbd = spawn(roots, item.options);
        EXPECT_EQ(end(sqldbd, 0, &said), item.status) << item.options[0];
        EXPECT_NE(said.find(item.said), std::string::npos) << said;
    }
    test_daemon blocked = roots;
    blocked.run = file;
    program sqldbd = spawn(blocked);
    EXPECT_EQ(end(sqldbd, 0, &said), 1);
    EXPECT_NE(said.find(file + ": Not a directory"), std::string::npos) << said;
    daemon_remove(roots);
}
