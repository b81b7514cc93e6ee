#include "soak_watch.h"

#include <algorithm>

#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SOAK_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SOAK_SANITIZED 1
#endif
#endif

namespace {

#ifdef SOAK_SANITIZED
constexpr bool MEMORY_TELLS = false; /* freed memory stays in quarantine */
#else
constexpr bool MEMORY_TELLS = true;
#endif

constexpr int64_t FIRST_MINUTE = 60000; /* ms */
constexpr int64_t WARM = 10000;         /* ms; what is made at a first use is there after it */
constexpr int64_t MEMORY_MORE = 1024;   /* KiB */
constexpr int64_t SETTLE_LIMIT = 20000; /* ms */
constexpr int64_t SAME_FOR = 4000;      /* ms; an output that is not used is closed after 3 s */

struct measure {
    int64_t descriptors = 0;
    int64_t threads = 0;
    int64_t memory = 0; /* KiB */
};

int64_t first_minute;
int64_t same_for; /* ms */
bool has_base;
measure base;
int64_t growth = -1;

measure take(const soak& soak) {
    return {daemon_descriptors(soak.daemon), daemon_threads(soak.daemon),
            daemon_resident(soak.daemon)};
}

/* Nothing tells of another process's descriptors, so this looks until they have been the same for a
 * while, or are down to the base. */
measure settle(const soak& soak) {
    const int64_t limit = soak_now() + SETTLE_LIMIT;
    measure last = take(soak);
    int64_t since = soak_now();
    while (soak_now() < limit) {
        if (has_base ? last.descriptors <= base.descriptors && last.threads <= base.threads
                     : soak_now() - since >= same_for) {
            break;
        }
        usleep(20000);
        const measure now = take(soak);
        if (now.descriptors != last.descriptors || now.threads != last.threads) {
            since = soak_now();
        }
        last = now;
    }
    return last;
}

} // namespace

void soak_watch_begin(int64_t life) {
    first_minute = std::min(FIRST_MINUTE, life / 2);
    same_for = std::min(SAME_FOR, life / 10);
    has_base = false;
}

int64_t soak_watch_growth() {
    return growth;
}

void soak_watch(soak& soak, int64_t age) {
    if (age < first_minute) {
        return;
    }
    const measure now = settle(soak);
    if (!has_base) {
        has_base = true;
        base = now;
    }
    if (first_minute >= WARM &&
        (now.descriptors > base.descriptors || now.threads > base.threads)) {
        soak_differ(soak, "%lld descriptors and %lld threads, %lld and %lld after the first minute",
                    static_cast<long long>(now.descriptors), static_cast<long long>(now.threads),
                    static_cast<long long>(base.descriptors), static_cast<long long>(base.threads));
    }
    if (MEMORY_TELLS && first_minute == FIRST_MINUTE) {
        growth = std::max(growth, now.memory - base.memory);
        if (now.memory > base.memory + MEMORY_MORE) {
            soak_differ(soak, "%lld KiB, %lld after the first minute",
                        static_cast<long long>(now.memory), static_cast<long long>(base.memory));
        }
    }
    printf("soak: life %lld, %lld s: %lld commands compared, %lld descriptors, %lld threads, "
           "%lld KiB, %lld differences\n",
           static_cast<long long>(soak.counts[SOAK_LIVES]), static_cast<long long>(age / 1000),
           static_cast<long long>(soak.counts[SOAK_COMMANDS]),
           static_cast<long long>(now.descriptors), static_cast<long long>(now.threads),
           static_cast<long long>(now.memory), static_cast<long long>(soak.differences));
    fflush(stdout);
}
