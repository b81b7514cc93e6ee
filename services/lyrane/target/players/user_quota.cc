#include "user_quota.h"

#include <cerrno>
#include <map>

#include <unistd.h>

#include "msglog.h"
#include "player.h"

static constexpr uid_t ROOT = 0;

static vel_mutex tracks_lock = {PTHREAD_MUTEX_INITIALIZER}; /* a leaf */
static std::map<uid_t, int64_t> tracks_of VEL_GUARDED_BY(tracks_lock);

uid_t user_quota_own(void) noexcept {
    return geteuid();
}

static bool is_free(uid_t user) noexcept {
    return user == ROOT || user == user_quota_own();
}

bool user_quota_player(const control_block* control, uid_t user, const char* name) noexcept {
    if (is_free(user)) {
        return true;
    }
    int32_t has = 0;
    for (int32_t i = 0; i < control->players.count; ++i) {
        has += static_cast<const player*>(control->players.items[i])->user == user ? 1 : 0;
    }
    if (has < control->players_per_user) {
        return true;
    }
    msglog(3, "Player %s refused: user %u has %d players open", name, user, has);
    errno = EDQUOT;
    return false;
}

bool user_quota_take_tracks(const control_block* control, uid_t user, int32_t tracks) noexcept {
    if (is_free(user)) {
        return true;
    }
    {
        vel_lock_guard guard(tracks_lock);
        int64_t& has = tracks_of[user];
        if (has + tracks <= control->tracks_per_user) {
            has += tracks;
            return true;
        }
    }
    msglog(3, "%d tracks refused: the sessions of user %u would have more than %d", tracks, user,
           control->tracks_per_user);
    errno = EDQUOT;
    return false;
}

void user_quota_give_tracks(uid_t user, int32_t tracks) noexcept {
    if (is_free(user)) {
        return;
    }
    vel_lock_guard guard(tracks_lock);
    const auto found = tracks_of.find(user);
    if (found != tracks_of.end() && (found->second -= tracks) <= 0) {
        tracks_of.erase(found);
    }
}
