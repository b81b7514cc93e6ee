/* An arbiter that comes and goes. */
#include <csignal>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "soak.h"
#include "soak_model.h"

namespace {

constexpr int64_t FOCUS_LIMIT = 20000; /* ms */
constexpr int64_t WORD_LIMIT = 2000;   /* ms; a player that was closed meanwhile says nothing */

void start_arbiter(soak& soak) {
    soak.arbiter_epoch += 1;
    soak.arbiter_mark = daemon_log_mark(soak.daemon);
    soak.arbiter = fork();
    if (soak.arbiter == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (freopen("/dev/null", "w", stderr) != nullptr) {
            execl(NOWPLAYINGD_EXECUTABLE, "nowplayingd", nullptr);
        }
        _exit(127);
    }
    soak_add(soak, SOAK_ARBITERS);
}

/* Whether the last that a player's thread said of the arbiter is that it has lost it. */
bool has_lost(const std::string& log, const std::string& player) {
    const size_t found = log.rfind("service now available for player:" + player);
    return found == std::string::npos ||
           log.find("for player:" + player + " monitorNowPlayingPPS: lost", found) !=
               std::string::npos;
}

/* Everything that the arbiter said is done once the players have seen it go. */
void end_arbiter(soak& soak) {
    kill(soak.arbiter, soak.arbiter_epoch % 4 == 1 ? SIGKILL : SIGTERM);
    waitpid(soak.arbiter, nullptr, 0);
    soak.arbiter = -1;
    const int64_t limit = soak_now() + WORD_LIMIT;
    for (unsigned i = 0; i < SOAK_MODELS;) {
        const std::string log = daemon_log(soak.daemon).substr(soak.arbiter_mark);
        if (has_lost(log, "model" + std::to_string(i)) || soak_now() > limit || soak.is_dying) {
            ++i;
        } else {
            usleep(5000);
        }
    }
    soak.arbiter_epoch += 1;
}

int playing(const soak& soak) {
    int count = 0;
    for (unsigned i = 0; i < SOAK_MODELS; ++i) {
        const auto state = daemon_object(soak.daemon, "model" + std::to_string(i), "state");
        const auto status = state.find("status");
        count += status != state.end() && status->second == "::playing" ? 1 : 0;
    }
    return count;
}

} // namespace

void soak_arbiter(soak& soak, unsigned number) {
    std::mt19937 random(soak.seed * 100 + 70 + number);
    while (soak_turn(soak)) {
        if (soak.arbiter < 0) {
            start_arbiter(soak);
        }
        /* A life of its own, in pieces so that a quiet moment does not wait for it. */
        for (unsigned left = 50 + random() % 200; left > 0 && soak_turn(soak); --left) {
            usleep(10000);
        }
        soak_end_arbiter(soak, false);
        for (unsigned left = 50 + random() % 200; left > 0 && soak_turn(soak); --left) {
            usleep(10000);
        }
    }
    soak_end_arbiter(soak, false);
}

void soak_end_arbiter(soak& soak, bool is_quiet) {
    if (soak.arbiter < 0) {
        return;
    }
    if (is_quiet) { /* nobody asks for anything: there is one holder at most */
        const int64_t limit = soak_now() + FOCUS_LIMIT;
        while (playing(soak) > 1 && soak_now() < limit) {
            usleep(5000);
        }
        if (playing(soak) > 1) {
            soak_differ(soak, "%d players play beside an arbiter", playing(soak));
        }
    }
    end_arbiter(soak);
}
