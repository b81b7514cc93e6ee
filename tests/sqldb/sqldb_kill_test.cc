/* Savers that are killed: the earlier or the later state is there, never a mixture. */
#include <csignal>
#include <sys/wait.h>

#include "sqldb_root.h"

namespace {

constexpr int SONGS = 40; /* of one save */

void step(int fd) {
    const char mark = '.';
    if (write(fd, &mark, 1) != 1) {
        _exit(1);
    }
}

/* Saves generation after generation, each with SONGS songs of its number and a backup, and writes
 * a mark after each step. */
[[noreturn]] void save_for_ever(int fd, int generation) {
    configure("music", config_text("music", "BackupDir::/var/db/a\n"));
    const sqldb_service* service = sqldb_service_start(nullptr);
    step(fd);
    if (service == nullptr || !await_status("music", "Status::Valid")) {
        _exit(1);
    }
    step(fd);
    for (;; ++generation) {
        sqldb_connection* music = connect("music");
        bool is_good = music != nullptr && sqldb_statement(music, "DELETE FROM songs") == 0;
        for (int i = 0; i < SONGS; ++i) {
            is_good = is_good && sqldb_statement(music, "INSERT INTO songs(number) VALUES(%d)",
                                                 generation) == 0;
            step(fd);
        }
        is_good = is_good && sqldb_backup(music, SQLDB_SCOPE_ALL) == 0;
        step(fd);
        if (!is_good || sqldb_disconnect(music) != 0) {
            _exit(1);
        }
        step(fd);
    }
}

/* Lets a saver go on for some steps and kills it. */
void kill_after(int steps, int generation) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        save_for_ever(ends[1], generation);
    }
    close(ends[1]);
    char mark = 0;
    for (int i = 0; i < steps; ++i) {
        ASSERT_EQ(read(ends[0], &mark, 1), 1) << "after " << i << " steps";
    }
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    close(ends[0]);
}

struct sqldb_kill_test : sqldb_test {
    /* The generation that is saved; 0 for none, -1 for a mixture. */
    static int64_t generation_saved() {
        sqldb_connection* music = connect("music");
        int64_t generation = -1;
        if (sqldb_statement(music, "SELECT count(*), min(number), max(number) FROM songs") == 0) {
            const result_owner result(sqldb_getresult(music));
            const int64_t count = sqldb_cell_integer(result.get(), 0, 0, -1);
            const int64_t least = sqldb_cell_integer(result.get(), 0, 1, 0);
            const int64_t most = sqldb_cell_integer(result.get(), 0, 2, 0);
            if (least == most && (count == SONGS || (count == 0 && most == 0))) {
                generation = most;
            }
        }
        sqldb_disconnect(music);
        return generation;
    }
};

} // namespace

TEST_F(sqldb_kill_test, leaves_one_state_whole) {
    constexpr int ROUND = SONGS + 2; /* steps of a save */
    int64_t before = 0;
    for (const int steps : {0, 1, 2, 3, 20, ROUND, ROUND + 1, ROUND + 2, ROUND + 3, ROUND + 20,
                            2 * ROUND, 2 * ROUND + 1, 3 * ROUND + 2}) {
        SCOPED_TRACE(steps);
        const auto next = static_cast<int>(before + 1);
        kill_after(steps, next);
        const int64_t committed = steps < ROUND + 1 ? before : next + (steps - ROUND - 1) / ROUND;
        configure("music", config_text("music", "BackupDir::/var/db/a\n"));
        start();
        ASSERT_TRUE(await_status("music", "Status::Valid"));
        const int64_t after = generation_saved();
        EXPECT_GE(after, committed); /* the saver may have come further than it was watched */
        /* The backup is whole as well. */
        stop();
        EXPECT_EQ(said.find("damaged"), std::string::npos) << said;
        plant_file(state_path("/db/music.db"), "");
        start();
        ASSERT_TRUE(await_status("music", "Status::Valid"));
        before = generation_saved();
        EXPECT_GE(before, committed);
        EXPECT_LE(before, after);
        stop();
        said.clear();
    }
}
