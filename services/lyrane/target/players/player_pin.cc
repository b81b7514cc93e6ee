#include "player_pin.h"

#include <cstdlib>

#include <unistd.h>

#include "msglog.h"

/* Nobody else knows the player any more, so its lock is not taken. */
void player_free(player* player) noexcept VEL_NO_TSA {
    free(player->name);
    free(player->ms_sessions.items);
    vel_mutex_destroy(&player->lock);
    vel_mutex_destroy(&player->np_lock);
    pthread_cond_destroy(&player->np_cond);
    if (player->np_wake >= 0) {
        close(player->np_wake);
    }
    free(player);
}

void player_pin(player* player) noexcept {
    vel_lock_guard guard(player->control->players_lock);
    ++player->pins;
}

void player_unpin(player* player) noexcept {
    if (player == nullptr) {
        return;
    }
    int32_t left = 0;
    {
        vel_lock_guard guard(player->control->players_lock);
        left = --player->pins;
    }
    if (left == 0) {
        player_free(player);
    }
}

player* player_pin_registered(control_block* control, const void* candidate,
                              uint32_t* changes) noexcept {
    vel_lock_guard guard(control->players_lock);
    for (int32_t i = 0; i < control->players.count; ++i) {
        if (control->players.items[i] == candidate) {
            player* found = static_cast<player*>(control->players.items[i]);
            player_of(found, control);
            ++found->pins;
            if (changes != nullptr) {
                *changes = found->changes;
            }
            return found;
        }
    }
    return nullptr;
}

player** players_pin_all(control_block* control, int32_t* count) noexcept {
    vel_lock_guard guard(control->players_lock);
    const int32_t n = control->players.count;
    /* One entry more, so that an empty registry is not taken for a lack of memory. */
    player** list = static_cast<player**>(calloc(static_cast<size_t>(n) + 1, sizeof(player*)));
    if (list == nullptr) {
        msglog(1, "Cannot allocate memory");
        *count = 0;
        return nullptr;
    }
    for (int32_t i = 0; i < n; ++i) {
        list[i] = static_cast<player*>(control->players.items[i]);
        player_of(list[i], control);
        ++list[i]->pins;
    }
    *count = n;
    return list;
}

void players_unpin(player** players, int32_t count) noexcept {
    for (int32_t i = 0; i < count; ++i) {
        player_unpin(players[i]);
    }
    free(players);
}
