/* Start and end of the service. */
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <grp.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/paths.h>
#include <veloran/process.h>
#include <veloran/slog.h>

#include "config.h"
#include "control.h"
#include "crash.h"
#include "lastmode.h"
#include "mediasource.h"
#include "msglog.h"
#include "msgserver.h"
#include "options.h"
#include "player_registry.h"
#include "plugin_load.h"
#include "ppsdir.h"
#include "service.h"
#include "signals.h"

#if defined(__SANITIZE_ADDRESS__)
#define LYRANE_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LYRANE_ADDRESS_SANITIZER 1
#endif
#endif
#if defined(LYRANE_ADDRESS_SANITIZER)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

constexpr const char* SOURCE = "services/lyrane/target/main";
constexpr const char* VARIANT = "default";
constexpr int32_t MAX_QUEUE = 5; /* replies that wait for one connection */

/* Descriptors wanted: what the 16-bit connection index of the transport can name. */
constexpr rlim_t DESCRIPTORS_WANTED = 32768;

/* One line of the shape that failed system calls have; `error` is an error number. */
#define LOG_FAILED_CALL(level, what, error)                                                        \
    msglog(level, "%s:%d:%s(): " what " failed (%s)", SOURCE, __LINE__, __func__,                  \
           msglog_error_text(error))

void read_command_line(int argc, char** argv) {
    options(argc, argv, &mmcontrol);
    if (mmcontrol.verbosity == 0) {
        mmcontrol.verbosity = msglog_level();
    } else {
        msglog_set_level(mmcontrol.verbosity);
    }
    background = mmcontrol.background;
}

/* Nothing lasting is open and no thread exists yet; the logger opens again in the child. */
void detach() {
    if (mmcontrol.background == 0) {
        umask(0);
        return;
    }
    uint32_t flags = PROCMGR_DAEMON_NOCHDIR;
    if (msglog_level() > 0) {
        flags |= PROCMGR_DAEMON_NODEVNULL;
    }
    slog_close();
    if (procmgr_daemon(EXIT_SUCCESS, flags) != 0) {
        LOG_FAILED_CALL(2, "procmgr_daemon()", errno);
    }
}

void raise_descriptor_limit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= DESCRIPTORS_WANTED) {
        return;
    }
    limit.rlim_cur = limit.rlim_max < DESCRIPTORS_WANTED ? limit.rlim_max : DESCRIPTORS_WANTED;
    setrlimit(RLIMIT_NOFILE, &limit);
}

/* The name at the start of a copy of -U's text, without the blanks around it. */
const char* name_of_user(char* copy) {
    return nextfield(&copy, ':');
}

bool has_groups() {
    return strchr(mmcontrol.user, ':') != nullptr;
}

/* Names the user that is changed to later, and the groups, as the owner of the roots. */
int32_t set_owner() {
    if (has_groups()) {
        return paths_set_owner(mmcontrol.uid, mmcontrol.gid, mmcontrol.groups,
                               static_cast<size_t>(mmcontrol.ngroups));
    }
    const vel_text copy(strdup(mmcontrol.user));
    const char* name = name_of_user(copy.get());
    int count = static_cast<int>(sysconf(_SC_NGROUPS_MAX));
    const std::unique_ptr<gid_t, vel_free> groups(
        static_cast<gid_t*>(calloc(static_cast<size_t>(count), sizeof(gid_t))));
    if (name == nullptr || groups == nullptr ||
        getgrouplist(name, mmcontrol.gid, groups.get(), &count) < 0) {
        return -1;
    }
    return paths_set_owner(mmcontrol.uid, mmcontrol.gid, groups.get(), static_cast<size_t>(count));
}

/* Takes a step below the roots with the file identity of the user that is changed to later: root's
 * power would follow what that user has put there. */
void as_user(void (*step)()) {
    if (paths_act_as_owner() != 0) {
        LOG_FAILED_CALL(2, "setgroups()", errno);
    }
    step();
    paths_act_as_self();
}

void claim_roots() {
    if (mmcontrol.user != nullptr && set_owner() != 0) {
        LOG_FAILED_CALL(2, "getgrouplist()", errno);
    }
    if (paths_umask_refused() != nullptr) {
        msglog(3, "VELORAN_UMASK=%s is no octal number up to 077; modes lose 022",
               paths_umask_refused());
    }
    char why[PATH_MAX + 128];
    if (paths_make_roots(why, sizeof why) != 0) {
        msglog(2, "cannot use the directory %s", why);
    }
}

/* The name is taken first of all: a second service of that name must not touch what the first one
 * works with. */
void claim_name() {
    if (msgserver_claim(mmcontrol.service_name, VARIANT) != 0) {
        LOG_FAILED_CALL(1, "msgserver_add()", errno);
    }
}

void create_root() {
    ppsdir_initialize(&mmcontrol);
}

void restore_lastmode() {
    if (mmcontrol.lastmode == 1) {
        lastmode_database_start(&mmcontrol);
        (void)lastmode_restore(&mmcontrol);
    }
}

/* Saves once, on whatever thread comes first: the main one, or the signal thread when the main one
 * hangs in a plug-in. False when another thread is at it. */
bool save_lastmode() {
    static std::atomic<bool> begun;
    if (mmcontrol.lastmode != 1) {
        return true;
    }
    if (begun.exchange(true)) {
        return false;
    }
    lastmode_end();
    lastmode_checkpoints_stop();
    (void)players_save_state(&mmcontrol);
    lastmode_database_stop();
    return true;
}

/* Before an end that is cut short. A save that the main thread is in does not come to its end. */
void save_at_last() noexcept {
    (void)save_lastmode();
}

void create_service() {
    mmcontrol.server = msgserver_create(mmcontrol.max_msg_size, MAX_QUEUE, MSGSERVER_BY_PATH);
    if (mmcontrol.server == nullptr) {
        LOG_FAILED_CALL(1, "msgserver_create()", errno);
    }
    msgserver_limit_replies(mmcontrol.server, int64_t{mmcontrol.reply_memory} << 20);
    mmcontrol.server->user_data = &mmcontrol;
    msglog(4, "lyrane creating service: %s", mmcontrol.service_name);
    mmcontrol.service_id =
        msgserver_add(mmcontrol.server, mmcontrol.service_name, nullptr, "perms=666", 0,
                      service_worker, service_connect, service_disconnect);
    if (mmcontrol.service_id < 0) {
        LOG_FAILED_CALL(1, "msgserver_add()", errno);
    }
}

/* The group list of a user given by name alone is the one of the user database. */
int32_t use_groups_of_user() {
    const vel_text copy(strdup(mmcontrol.user));
    const char* name = name_of_user(copy.get());
    return name != nullptr ? initgroups(name, mmcontrol.gid) : -1;
}

/* The functions of the C library change all threads; a bare system call would change one. */
void drop_privileges() {
    if (mmcontrol.user == nullptr) {
        return;
    }
    if (has_groups()) {
        if (setgroups(static_cast<size_t>(mmcontrol.ngroups), mmcontrol.groups) != 0) {
            LOG_FAILED_CALL(2, "setgroups()", errno);
        }
    } else if (use_groups_of_user() != 0) {
        LOG_FAILED_CALL(2, "initgroups()", errno);
    }
    if (setgid(mmcontrol.gid) != 0) {
        LOG_FAILED_CALL(2, "setgid()", errno);
    }
    if (setuid(mmcontrol.uid) != 0) {
        LOG_FAILED_CALL(2, "setuid()", errno);
    }
}

void start_signal_thread() {
    int32_t error = signals_block_termination();
    if (error != 0) {
        LOG_FAILED_CALL(2, "pthread_sigmask()", error);
    }
    signals_set_last_words(save_at_last);
    pthread_t thread;
    error = process_thread_start("signal catcher", 1, signal_thread, nullptr, &thread);
    if (error != 0) {
        LOG_FAILED_CALL(2, "signal thread creation", error);
    }
}

/* Each thread would get a heap of its own, up to eight a processor, and what players, builds and
 * plug-ins leave behind in them adds up over months. Their small pieces come from caches of their
 * own as before, so they do not wait for each other. What is large, a long listing and its reply,
 * never lives long: it comes from the system and goes back to it, and leaves no holes among what
 * stays. By itself the limit would grow with the largest piece ever given back. */
void keep_heap_small() {
    constexpr int LARGE = 32 * 1024; /* bytes */
    (void)mallopt(M_ARENA_MAX, 1);
    (void)mallopt(M_MMAP_THRESHOLD, LARGE);
}

void start(int argc, char** argv) {
    keep_heap_small();
    slog_open(msglog_program());
    read_command_line(argc, argv);
    detach();
    setprio(0, mmcontrol.priority);
    raise_descriptor_limit();
    msglog(4, "lyrane initializing");
    claim_roots();
    as_user(claim_name);
    as_user(create_root);
    load_config(&mmcontrol, mmcontrol.config_file);
    as_user(restore_lastmode);
    signals_install_verbosity();
    as_user(create_service);
    drop_privileges();
    start_signal_thread();
    if (mmcontrol.lastmode == 1) {
        lastmode_checkpoints_start(&mmcontrol);
    }
    mediasource_detection_start(&mmcontrol);
    msglog(4, "lyrane starting");
    process_thread_name("csm");
}

void shut_down() {
    /* Who comes now is refused by the system at once instead of waiting for an answer that nobody
     * will give. The lock of the name stays until the process is gone. */
    msgserver_withdraw(mmcontrol.server);
    msglog(4, "lyrane terminating ...");
    while (!save_lastmode()) {
        /* What a save is about must not be closed under it. The signal thread is at it, and ends
         * the process. */
        pause();
    }
    players_force_close(&mmcontrol);
    mediasource_detection_stop(&mmcontrol);
    plugins_unload(&mmcontrol);
    msglog(4, "lyrane terminated");
}

/* The leak check of a sanitizer build, which no exit handler starts here. */
void check_for_leaks() {
#if defined(LYRANE_ADDRESS_SANITIZER)
    __lsan_do_leak_check();
#endif
}

} // namespace

int main(int argc, char** argv) {
    signals_prepare();
    process_fill_standard_descriptors();
    crash_prepare();
    start(argc, argv);
    msgserver_thread_loop(mmcontrol.server);
    signals_loop_ended();
    shut_down();
    check_for_leaks();
    /* The signal thread still waits, and threads of libraries may live: nothing that belongs to
     * the process may be taken apart beside them. */
    process_end(EXIT_SUCCESS);
}
