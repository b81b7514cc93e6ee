/* Roots of the test program's own, a service side, and what is needed to ask it for databases. */
#ifndef TESTS_SQLDB_ROOT_H
#define TESTS_SQLDB_ROOT_H

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <veloran/pps.h>
#include <veloran/sqldb.h>

/* Made before the first test, removed at the end of the program. */
struct sqldb_root : ::testing::EmptyTestEventListener {
    std::string path;
    pid_t owner = getpid();
    sqldb_root() {
        char name[] = "/tmp/lyrane,sqldb-XXXXXX"; /* commas separate nothing in real paths */
        path = mkdtemp(name);
        std::filesystem::create_directory(path + "/defaults");
        setenv("VELORAN_RUN", (path + "/run").c_str(), 1);
        setenv("VELORAN_STATE", (path + "/state").c_str(), 1);
        setenv("VELORAN_SQLDB_DEFAULTS", (path + "/defaults").c_str(), 1);
    }
    ~sqldb_root() override {
        if (getpid() == owner) {
            std::filesystem::remove_all(path);
        }
    }
};

inline const sqldb_root* make_root() {
    auto* root = new sqldb_root; /* the test framework owns it */
    ::testing::UnitTest::GetInstance()->listeners().Append(root);
    return root;
}
inline const sqldb_root* const the_root = make_root();

inline void plant_file(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::string file_text(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline std::string state_path(const std::string& below) {
    return the_root->path + "/state" + below;
}

struct pps_closer {
    void operator()(pps_object* object) const { pps_close(object); }
};
using pps_owner = std::unique_ptr<pps_object, pps_closer>;
struct result_freer {
    void operator()(sqldb_result* result) const { sqldb_freeresult(result); }
};
using result_owner = std::unique_ptr<sqldb_result, result_freer>;

/* A service side over empty state, and what it said. */
struct sqldb_test : ::testing::Test {
    sqldb_service* service = nullptr;
    std::string own_name; /* empty: the test program wants no database for itself */
    std::string own_text;
    std::mutex said_lock;
    std::string said;

    static void say(void* user, int32_t, const char* text) noexcept {
        auto* test = static_cast<sqldb_test*>(user);
        const std::lock_guard<std::mutex> guard(test->said_lock);
        test->said += std::string(text) + "\n";
    }
    void start() {
        const sqldb_service_options options = {nullptr,          say,    this, own_name.c_str(),
                                               own_text.c_str(), nullptr};
        service = sqldb_service_start(&options);
        ASSERT_NE(service, nullptr) << strerror(errno);
    }
    void stop() {
        sqldb_service_stop(service);
        service = nullptr;
    }
    void SetUp() override {
        std::filesystem::remove_all(the_root->path + "/run");
        std::filesystem::remove_all(the_root->path + "/state");
        plant_file(the_root->path + "/defaults/music.sql",
                   "CREATE TABLE songs (id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT UNIQUE, "
                   "number INTEGER, rate REAL);");
    }
    void TearDown() override { stop(); }
};

inline std::string config_text(const std::string& name, const std::string& more = "") {
    return "Filename::/db/" + name + ".db\nSchemaFile::/db/music.sql\n" + more;
}

/* Writes a configuration object, anew or with other flags more of it. */
inline void configure(const std::string& name, const std::string& text,
                      int32_t flags = O_CREAT | O_TRUNC) {
    const std::string path = "/pps/veloran/sqldb/config/" + name + "?nopersist";
    std::filesystem::create_directories(the_root->path + "/run/pps/veloran/sqldb/config");
    const pps_owner object(pps_open(path.c_str(), O_WRONLY | flags, 0777));
    ASSERT_NE(object, nullptr) << strerror(errno);
    ASSERT_EQ(pps_write(object.get(), text.data(), text.size()), 0) << strerror(errno);
}

/* The status object of a database: its file, and what it holds; empty when there is none. */
inline std::string status_path(const std::string& name) {
    return the_root->path + "/run/pps/veloran/sqldb/status/" + name;
}
inline std::string status_of(const std::string& name) {
    return file_text(status_path(name));
}

/* Waits until the status object of a database holds this text, or with an empty one is gone. */
inline bool await_status(const std::string& name, const std::string& wanted) {
    const pps_owner watch(pps_open("/pps/veloran/sqldb/status/.all?delta,wait", O_RDONLY, 0));
    char buffer[4096];
    while (watch != nullptr &&
           (wanted.empty() ? access(status_path(name).c_str(), F_OK) == 0
                           : status_of(name).find(wanted) == std::string::npos)) {
        if (pps_read(watch.get(), buffer, sizeof buffer, -1) <= 0) {
            return false;
        }
    }
    return watch != nullptr;
}

/* Writes it and waits until the database can be had. */
inline void configure_valid(const std::string& name, const std::string& text,
                            int32_t flags = O_CREAT | O_TRUNC) {
    configure(name, text, flags);
    ASSERT_TRUE(await_status(name, "Status::Valid"));
}

inline sqldb_connection* connect(const std::string& name) {
    return sqldb_connect(("/dev/sqldb/" + name).c_str(), 0);
}

/* The songs by name, in the order of their keys; "(error N)" without an answer. */
inline std::string songs(sqldb_connection* connection) {
    if (sqldb_statement(connection, "SELECT name FROM songs ORDER BY id") != 0) {
        return "(error " + std::to_string(errno) + ")";
    }
    const result_owner result(sqldb_getresult(connection));
    std::string names;
    for (int64_t row = 0; row < sqldb_rows(result.get()); ++row) {
        const char* name = sqldb_cell(result.get(), row, 0);
        names += std::string(row == 0 ? "" : " ") + (name == nullptr ? "NULL" : name);
    }
    return names;
}

/* The same through a connection of its own. */
inline std::string songs_of(const std::string& name) {
    sqldb_connection* connection = connect(name);
    const std::string names =
        connection == nullptr ? "(error " + std::to_string(errno) + ")" : songs(connection);
    sqldb_disconnect(connection);
    return names;
}

inline int32_t add_song(sqldb_connection* connection, const std::string& name) {
    return sqldb_statement(connection, "INSERT INTO songs(name) VALUES('%q')", name.c_str());
}

#endif
