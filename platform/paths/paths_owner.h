/* Who the roots belong to when that is not the user that the process starts as. */
#ifndef VELORAN_PATHS_OWNER_H
#define VELORAN_PATHS_OWNER_H

#include <sys/types.h>

struct paths_owner {
    bool is_set;
    uid_t uid;
    gid_t gid;
};

/* Constant once another thread exists. */
const paths_owner& paths_owner_of_roots() noexcept;

#endif
