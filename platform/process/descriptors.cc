#include <veloran/process.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <memory>

#include <dirent.h>
#include <sys/resource.h>

static std::atomic<int32_t> promised{0};

void process_promise_descriptors(int32_t count) noexcept {
    promised.fetch_add(count, std::memory_order_relaxed);
}

int32_t process_spare_descriptors(void) noexcept {
    rlimit limit = {};
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir("/proc/self/fd"), closedir);
    if (listing == nullptr || getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return errno == EMFILE ? 0 : INT32_MAX;
    }
    int32_t open = -3; /* ".", ".." and the listing's own */
    while (readdir(listing.get()) != nullptr) {
        ++open;
    }
    return static_cast<int32_t>(std::min<rlim_t>(limit.rlim_cur, INT32_MAX)) - open -
           promised.load(std::memory_order_relaxed);
}
