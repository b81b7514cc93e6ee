/* What one user's clients may make the service keep: so many players, so many tracks in the
 * sessions that they ask for. What users other than root and the service's own have is counted;
 * those two are free. */
#ifndef LYRANE_USER_QUOTA_H
#define LYRANE_USER_QUOTA_H

#include <cstdint>

#include <sys/types.h>

#include "control.h"

/* The user that the service runs as, whose the players are that nobody asked for. */
uid_t user_quota_own(void) noexcept;

/* False when the user has as many players open as one may have: logged, with errno EDQUOT. */
bool user_quota_player(const control_block* control, uid_t user, const char* name) noexcept
    VEL_REQUIRES(control->players_lock);

/* Counts tracks that are added to a session of the user. False when they would be more than one
 * user may have: logged, with errno EDQUOT. [any thread] */
bool user_quota_take_tracks(const control_block* control, uid_t user, int32_t tracks) noexcept;
void user_quota_give_tracks(uid_t user, int32_t tracks) noexcept;

#endif
