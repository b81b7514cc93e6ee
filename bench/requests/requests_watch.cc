/* A watcher of an object: a thread of its own, which says when it has read something new. */
#include <cerrno>

#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <veloran/pps.h>

#include "measure.h"

struct watch_bench {
    pps_object* object = nullptr;
    msgclient_t* client = nullptr;
    pthread_t thread = {};
    sem_t seen = {};
    double when = 0; /* handed over by the semaphore */
    int stop = -1;
    int32_t mode = 0;
};

static void* watch_body(void* argument) {
    auto* bench = static_cast<watch_bench*>(argument);
    char text[4096];
    while (pps_read(bench->object, text, sizeof text, bench->stop) > 0) {
        bench->when = bench_now();
        sem_post(&bench->seen);
    }
    return nullptr;
}

static void await_news(watch_bench* bench) {
    while (sem_wait(&bench->seen) != 0) {
        if (errno != EINTR) {
            bench_give_up("no semaphore");
        }
    }
}

/* One change, and how long it took until it was seen. */
static double watch_round(watch_bench* bench) {
    struct {
        lyr_request head;
        int32_t mode;
    } request = {{LYR_MSG_REPEAT, {}}, bench->mode ^= LYR_REPEAT_ALL};
    int32_t result = -1;
    const double begin = bench_now();
    if (msgclient_putget(bench->client, &request, sizeof request, &result, sizeof result, nullptr,
                         0) != 0 ||
        result != 0) {
        bench_give_up("repeat failed");
    }
    await_news(bench);
    return bench->when - begin;
}

watch_bench* watch_begin(const char* object, msgclient_t* client) {
    auto* bench = new watch_bench;
    bench->client = client;
    bench->object = pps_open(object, O_RDONLY, 0);
    bench->stop = eventfd(0, EFD_CLOEXEC);
    sem_init(&bench->seen, 0, 0);
    if (bench->object == nullptr || bench->stop < 0 ||
        pthread_create(&bench->thread, nullptr, watch_body, bench) != 0) {
        bench_give_up("no watcher");
    }
    await_news(bench); /* the present content */
    return bench;
}

double watch_seconds(watch_bench* bench, int rounds) {
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        times.push_back(watch_round(bench));
    }
    return bench_median(std::move(times));
}

void watch_end(watch_bench* bench) {
    eventfd_write(bench->stop, 1);
    pthread_join(bench->thread, nullptr);
    pps_close(bench->object);
    close(bench->stop);
    sem_destroy(&bench->seen);
    delete bench;
}
