/* Working below the roots as the user that a process started as root goes on as later. */
#include "paths_owner.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <grp.h>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <veloran/paths.h>

namespace {

struct group_list {
    gid_t* ids; /* owned */
    size_t count;
};

/* Written by paths_set_owner, before any other thread exists. */
paths_owner owner;
group_list owner_groups;
group_list own_groups; /* of the process itself */

/* The function of the C library would change all threads. */
int32_t set_groups_of_thread(const group_list& groups) {
#if defined(SYS_setgroups32)
    return static_cast<int32_t>(syscall(SYS_setgroups32, groups.count, groups.ids));
#else
    return static_cast<int32_t>(syscall(SYS_setgroups, groups.count, groups.ids));
#endif
}

bool make_list(group_list* list, size_t count) {
    free(list->ids);
    list->ids = static_cast<gid_t*>(malloc((count + 1) * sizeof(gid_t)));
    list->count = list->ids == nullptr ? 0 : count;
    return list->ids != nullptr;
}

} // namespace

const paths_owner& paths_owner_of_roots() noexcept {
    return owner;
}

extern "C" {

int32_t paths_set_owner(uid_t uid, gid_t gid, const gid_t* groups, size_t count) noexcept {
    owner.is_set = false;
    if (geteuid() != 0 || uid == 0) {
        return 0;
    }
    const int own = getgroups(0, nullptr);
    if (own < 0 || !make_list(&own_groups, static_cast<size_t>(own)) ||
        getgroups(own, own_groups.ids) != own || !make_list(&owner_groups, count)) {
        return -1;
    }
    if (count > 0) {
        memcpy(owner_groups.ids, groups, count * sizeof(gid_t));
    }
    owner = {true, uid, gid};
    return 0;
}

int32_t paths_act_as_owner(void) noexcept {
    if (!owner.is_set || geteuid() != 0) {
        return 0;
    }
    if (set_groups_of_thread(owner_groups) != 0) {
        return -1;
    }
    /* Neither tells a failure: what counts is what they find when asked again. */
    setfsgid(owner.gid);
    setfsuid(owner.uid);
    if (static_cast<gid_t>(setfsgid(owner.gid)) == owner.gid &&
        static_cast<uid_t>(setfsuid(owner.uid)) == owner.uid) {
        return 0;
    }
    paths_act_as_self();
    errno = EPERM;
    return -1;
}

uid_t paths_user(void) noexcept {
    /* An identity that cannot be is not taken, and the present one is told. */
    return owner.is_set ? owner.uid : static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1)));
}

void paths_act_as_self(void) noexcept {
    if (owner.is_set && geteuid() == 0) {
        setfsuid(geteuid());
        setfsgid(getegid());
        (void)set_groups_of_thread(own_groups);
    }
}
}
