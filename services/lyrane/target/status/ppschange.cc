#include "ppschange.h"

#include <atomic>

static std::atomic<uint32_t> changes;

uint32_t ppschange_count(void) noexcept {
    return changes.load();
}

void ppschange_await(uint32_t seen) noexcept {
    changes.wait(seen);
}

void ppschange_raise(void) noexcept {
    changes.fetch_add(1);
    changes.notify_all();
}
