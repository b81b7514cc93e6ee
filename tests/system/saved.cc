#include "saved.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <unistd.h>

#include <veloran/sqldb.h>

#include "daemon.h"

std::string saved_value(const std::string& player, const std::string& expression) {
    sqldb_connection* database = sqldb_connect("/dev/sqldb/lyrane", 0);
    EXPECT_NE(database, nullptr);
    const std::string text = "SELECT CAST(" + expression +
                             " AS TEXT) FROM players NATURAL JOIN trksessions WHERE name='%q'";
    EXPECT_EQ(sqldb_statement(database, text.c_str(), player.c_str()), 0);
    sqldb_result* row = sqldb_getresult(database);
    const char* cell = sqldb_cell(row, 0, 0);
    const std::string value = cell != nullptr ? cell : "";
    sqldb_freeresult(row);
    sqldb_disconnect(database);
    return value;
}

bool saved_await(const std::string& player, const std::string& expression,
                 const std::string& value) {
    constexpr int64_t PAUSE_MS = 5; /* a database tells nobody */
    std::string last;
    for (int64_t waited = 0; waited < DAEMON_LIMIT; waited += PAUSE_MS) {
        last = saved_value(player, expression);
        if (last == value) {
            return true;
        }
        usleep(PAUSE_MS * 1000);
    }
    ADD_FAILURE() << player << ": " << expression << " is not " << value << " but " << last;
    return false;
}

int saved_tracks(const std::string& player) {
    const std::string count = saved_value(
        player, "(SELECT count(*) FROM trksession_medianodes AS track WHERE track.ts_id="
                "trksessions.ts_id)");
    return count.empty() ? 0 : std::stoi(count);
}

int64_t saved_restoring(const test_daemon& daemon) {
    const std::string tasks = "/proc/" + std::to_string(daemon.pid) + "/task";
    int64_t count = 0;
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
        std::ifstream file(task.path() / "comm");
        std::string name;
        std::getline(file, name);
        count += name == "lastmode" ? 1 : 0;
    }
    return count;
}
