/* The scan that keeps the indexes of all sources up to date: its thread and what it has to do. */
#include "files_scan.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <new>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "files_log.h"
#include "files_reader.h"
#include "files_scan_walk.h"
#include "files_unread.h"

/* Changes come in bursts: they are looked at when there was none for so long, in ms, or after so
 * many times as long. */
static constexpr int SETTLE_MS = 400;
static constexpr int SETTLE_ROUNDS = 10;
/* A source of which more folders have changed is looked through as a whole. */
static constexpr size_t FOLDERS_MOST = 4096;
/* Who waits for a scan looks so often whether it is cancelled. */
static constexpr int32_t AWAIT_STEP_MS = 50;
/* Lowest priority but idle, of processor and disk. */
static constexpr int NICE = 15;
static constexpr int DISK_PRIORITY = 2 << 13 | 7;

struct scan_worker {
    vel_mutex lock = {};
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
    std::vector<files_scan_task> tasks VEL_GUARDED_BY(lock);
    bool ended VEL_GUARDED_BY(lock) = false;
    std::atomic<uint32_t> endings = 0; /* 1: it is to end */
    int wake = -1;                     /* readable when there is something to do */
    pthread_t thread = {};
    files_scan_watch watch; /* the thread's alone */
};
/* Shared by the thread, which may be left behind. */
using worker_ref = std::shared_ptr<scan_worker>;

static vel_mutex worker_lock;
/* Not destroyed: see above. */
static worker_ref* current VEL_GUARDED_BY(worker_lock);

/* --- what is to be done --------------------------------------------------------------------- */

static files_scan_task& task_of(scan_worker* worker, const files_source_ref& source,
                                const files_index_ref& index) VEL_REQUIRES(worker->lock) {
    for (files_scan_task& task : worker->tasks) {
        if (task.source == source) {
            return task;
        }
    }
    return worker->tasks.emplace_back(files_scan_task{source, index, false, {}});
}

static void add_folder(scan_worker* worker, const files_source_ref& source,
                       const files_index_ref& index, const std::string& id) {
    vel_lock_guard hold(worker->lock);
    files_scan_task& task = task_of(worker, source, index);
    if (!task.whole) {
        task.folders.insert(id);
        task.whole = task.folders.size() > FOLDERS_MOST;
    }
}

static void wake_up(const scan_worker& worker) noexcept {
    const uint64_t one = 1;
    while (write(worker.wake, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

/* --- the thread ----------------------------------------------------------------------------- */

/* Takes up what the system tells of changes. */
static void note_changes(scan_worker* worker) {
    bool lost = false;
    for (const files_scan_watched& folder : files_scan_watch_read(&worker->watch, &lost)) {
        const files_index_ref index = files_index_of(*folder.source);
        if (!folder.source->gone && index != nullptr) {
            add_folder(worker, folder.source, index, folder.id);
        }
    }
    if (!lost) {
        return;
    }
    std::vector<files_source_ref> sources;
    for (const auto& [number, folder] : worker->watch.folders) {
        if (std::find(sources.begin(), sources.end(), folder.source) == sources.end()) {
            sources.push_back(folder.source);
        }
    }
    for (const files_source_ref& source : sources) {
        vel_lock_guard hold(worker->lock);
        task_of(worker, source, files_index_of(*source)).whole = true;
    }
}

/* Waits for something to do, and until changes have settled. */
static void wait(scan_worker* worker) {
    int rounds = 0;
    for (;;) {
        std::array<pollfd, 2> wanted = {{{worker->wake, POLLIN, 0}, {worker->watch.fd, POLLIN, 0}}};
        const int ready = poll(wanted.data(), wanted.size(), rounds > 0 ? SETTLE_MS : -1);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (wanted[0].revents != 0) {
            uint64_t count = 0;
            (void)!read(worker->wake, &count, sizeof count);
            return;
        }
        if (ready <= 0 || ++rounds > SETTLE_ROUNDS) {
            return;
        }
        note_changes(worker);
    }
}

static bool take_task(scan_worker* worker, files_scan_task* task) {
    vel_lock_guard hold(worker->lock);
    std::erase_if(worker->tasks,
                  [](const files_scan_task& each) { return each.source->gone.load(); });
    if (worker->tasks.empty()) {
        return false;
    }
    *task = std::move(worker->tasks.front());
    worker->tasks.erase(worker->tasks.begin());
    return true;
}

/* What is not to be read of the sources that wait is known before the first of them is looked
 * through: listeners ask for their files meanwhile. */
static void load_unread(scan_worker* worker) {
    std::vector<files_index_ref> indexes;
    {
        vel_lock_guard hold(worker->lock);
        for (const files_scan_task& task : worker->tasks) {
            indexes.push_back(task.index);
        }
    }
    for (const files_index_ref& index : indexes) {
        files_unread_load(index.get());
    }
}

static void work(scan_worker* worker) {
    files_scan_task task;
    while (worker->endings == 0) {
        files_scan_watch_purge(&worker->watch);
        load_unread(worker);
        if (!take_task(worker, &task)) {
            task = {};
            files_reader_rest();
            wait(worker);
            continue;
        }
        const files_cancel cancel = {&worker->endings, 0, &task.source->gone};
        files_scan_walk(task, cancel, &worker->watch);
    }
}

static void* run(void* handed) noexcept {
    const std::unique_ptr<worker_ref> own(static_cast<worker_ref*>(handed));
    scan_worker* worker = own->get();
    const auto thread = static_cast<id_t>(syscall(SYS_gettid));
    setpriority(PRIO_PROCESS, thread, NICE);
    syscall(SYS_ioprio_set, 1, 0, DISK_PRIORITY);
    while (worker->endings == 0) {
        try {
            work(worker);
        } catch (...) {
            files_log(3, "no memory to look through the sources");
            vel_lock_guard hold(worker->lock);
            worker->tasks.clear();
        }
    }
    vel_lock_guard hold(worker->lock);
    worker->tasks.clear();
    worker->ended = true;
    pthread_cond_broadcast(&worker->changed);
    return nullptr;
}

/* --- start and stop ------------------------------------------------------------------------- */

static void destroy_worker(scan_worker* worker) noexcept {
    files_scan_watch_close(&worker->watch);
    if (worker->wake >= 0) {
        close(worker->wake);
    }
    vel_mutex_destroy(&worker->lock);
    delete worker;
}

static worker_ref start() {
    worker_ref worker(new scan_worker, destroy_worker);
    vel_mutex_init(&worker->lock);
    worker->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    files_scan_watch_open(&worker->watch);
    auto handed = std::make_unique<worker_ref>(worker);
    if (worker->wake < 0 || pthread_create(&worker->thread, nullptr, run, handed.get()) != 0) {
        return nullptr;
    }
    pthread_setname_np(worker->thread, "files-scan");
    (void)handed.release();
    return worker;
}

/* The worker, which is started if there is none and one is wanted. */
static worker_ref worker_now(bool wanted) {
    vel_lock_guard hold(worker_lock);
    if (current == nullptr) {
        current = new worker_ref;
    }
    if (*current == nullptr && wanted) {
        *current = start();
    }
    return *current;
}

void files_scan_add(const files_source_ref& source) noexcept {
    try {
        const files_index_ref index = files_index_of(*source);
        const worker_ref worker = index != nullptr ? worker_now(true) : nullptr;
        if (worker == nullptr) {
            return;
        }
        {
            vel_lock_guard hold(worker->lock);
            task_of(worker.get(), source, index).whole = true;
        }
        wake_up(*worker);
    } catch (...) {
        files_log(3, ("no memory to look through " + source->uid).c_str());
    }
}

void files_scan_noticed(const files_source_ref& source, const files_index_ref& index,
                        const char* id, const timespec& changed) noexcept {
    try {
        {
            vel_lock_guard hold(index->times_lock);
            const auto known = index->times.find(files_scan_key(id));
            const bool same = known != index->times.end() &&
                              known->second == files_index_time(changed.tv_sec, changed.tv_nsec);
            if (!index->complete || same) {
                return;
            }
        }
        const worker_ref worker = worker_now(false);
        if (worker != nullptr) {
            add_folder(worker.get(), source, index, id);
            wake_up(*worker);
        }
    } catch (...) {
        return; /* it is noticed again */
    }
}

void files_scan_remember(const files_source_ref& source, const files_index_ref& index) noexcept {
    try {
        const worker_ref worker =
            index != nullptr && files_unread_waiting(*source) ? worker_now(false) : nullptr;
        if (worker == nullptr) {
            return;
        }
        {
            vel_lock_guard hold(worker->lock);
            task_of(worker.get(), source, index);
        }
        wake_up(*worker);
    } catch (...) {
        return; /* the next scan does it */
    }
}

void files_scan_await(const files_source& source, int32_t most, const files_cancel& cancel) {
    const files_index_ref index = files_index_of(source);
    if (index == nullptr) {
        return;
    }
    vel_lock_guard hold(index->times_lock);
    for (int32_t waited = 0; !index->complete && waited < most && !files_cancelled(cancel);
         waited += AWAIT_STEP_MS) {
        (void)vel_wait_until(&index->completed, &index->times_lock, vel_deadline(AWAIT_STEP_MS));
    }
}

void files_scan_stop() noexcept {
    worker_ref worker;
    {
        vel_lock_guard hold(worker_lock);
        if (current != nullptr) {
            worker.swap(*current);
        }
    }
    if (worker == nullptr) {
        return;
    }
    worker->endings = 1;
    wake_up(*worker);
    const timespec limit = vel_deadline(int64_t{FILES_SCAN_END_MOST} * 1000);
    bool ended = false;
    {
        vel_lock_guard hold(worker->lock);
        while (!worker->ended && vel_wait_until(&worker->changed, &worker->lock, limit)) {
        }
        ended = worker->ended;
    }
    if (ended) {
        pthread_join(worker->thread, nullptr);
    } else {
        files_log(3, "the scan hangs and is left behind");
        pthread_detach(worker->thread);
    }
}
