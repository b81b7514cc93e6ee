/* Where a folder stands. */
#include "files_place.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

/* Of Linux 6.8; the headers may be older than the kernel. */
static constexpr unsigned UNIQUE_ID = 0x4000U;

static bool ask(int fd, unsigned mask, struct statx* facts) noexcept {
    return statx(fd, "", AT_EMPTY_PATH | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC, mask, facts) == 0;
}

bool files_place_of(int fd, files_place* place) noexcept {
    struct statx facts = {};
    if (!ask(fd, UNIQUE_ID | STATX_MNT_ID, &facts)) {
        return false;
    }
    place->unique = (facts.stx_mask & UNIQUE_ID) != 0;
    const bool told = place->unique || (facts.stx_mask & STATX_MNT_ID) != 0;
    place->mount = told ? facts.stx_mnt_id : 0;
    place->device = makedev(facts.stx_dev_major, facts.stx_dev_minor);
    return true;
}

bool files_place_same(const files_place& left, const files_place& right) noexcept {
    return left.mount == right.mount && left.unique == right.unique && left.device == right.device;
}

uint64_t files_place_table_id(int fd) noexcept {
    struct statx facts = {};
    return ask(fd, STATX_MNT_ID, &facts) && (facts.stx_mask & STATX_MNT_ID) != 0 ? facts.stx_mnt_id
                                                                                 : 0;
}
