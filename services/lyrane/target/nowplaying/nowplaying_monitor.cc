/* The thread of a player that speaks with the arbiter. */
#include "nowplaying.h"

#include <cerrno>
#include <cstdlib>

#include <poll.h>
#include <unistd.h>

#include <veloran/process.h>
#include <veloran/server_object.h>

#include "media.h"
#include "msglog.h"
#include "nowplaying_text.h"
#include "trksession.h"

static constexpr int CONNECT_AGAIN_MS = 1000; /* between two looks for the arbiter */
static constexpr int BUSY_AGAIN_MS = 20;      /* the same while it is there but accepts nobody */
static constexpr int READ_AGAIN_MS = 100;     /* after a failed read */
static constexpr int LOCK_AGAIN_MS = 10;      /* between two tries to get the player lock */
static constexpr int32_t COMMANDS_MAX = 64;   /* that wait for the player lock */
static constexpr int32_t READS_MAX = 32;      /* before commands get their turn */

/* What the arbiter told, until the player lock is free. */
struct order {
    int32_t command;  /* NOWPLAYING_DO_* */
    uint32_t revokes; /* np_revokes when it was read; a revoke counts itself */
};

/* The thread with one arbiter: what that one told and the player has not done ends with it. */
struct monitor {
    player* owner;
    int32_t thread;
    int32_t fd; /* the same as np_fd, which nobody else changes */
    order queue[COMMANDS_MAX];
    int32_t queued;
    bool failed; /* the last read did; wait before the next one */
};

/* Waits for the arbiter, for nowplaying_end or for the time. False when the player is closed. */
static bool wait_for(const player* player, int32_t fd, int timeout) noexcept {
    pollfd waiting[] = {{player->np_wake, POLLIN, 0}, {fd, POLLIN, 0}};
    const nfds_t count = fd >= 0 ? 2 : 1;
    return poll(waiting, count, timeout) <= 0 || waiting[0].revents == 0;
}

static void set_connection(player* player, int32_t fd) noexcept VEL_REQUIRES(player->np_lock) {
    if (player->np_fd >= 0) {
        close(player->np_fd);
    }
    player->np_fd = fd;
    player->np_busy = 0;
    player->np_acquired = 0;
    player->np_lost = 1;
    player->np_unanswered = 0;
    player->np_waiting = 0; /* whoever waits asks nobody any more */
    pthread_cond_broadcast(&player->np_cond);
}

static void disconnect(player* player) noexcept {
    vel_lock_guard guard(player->np_lock);
    set_connection(player, -1);
}

/* Lets those wait who ask an arbiter that accepts nobody at the moment, or go on. */
static void set_busy(player* player, bool busy) noexcept {
    vel_lock_guard guard(player->np_lock);
    player->np_busy = busy ? 1 : 0;
    pthread_cond_broadcast(&player->np_cond);
}

/* Drops the queued revokes that were read before the acquire that is granted was sent: the focus is
 * the player's again. */
static void drop_revokes(monitor* self, uint32_t asked) noexcept {
    int32_t kept = 0;
    for (int32_t i = 0; i < self->queued; ++i) {
        const order& order = self->queue[i];
        if (order.command != NOWPLAYING_DO_REVOKE || order.revokes > asked) {
            self->queue[kept++] = order;
        }
    }
    self->queued = kept;
}

/* A player that plays already has no use for a grant. */
static void take_grant(player* player) noexcept VEL_REQUIRES(player->np_lock) {
    msglog(7, "monitorNowPlayingPPS: received an Acquire cmd from nowplaying");
    const bool playing = player->status == LYR_STATUS_PLAYING;
    player->np_acquired = playing ? 0 : 1;
    if (playing) {
        msglog(7,
               "monitorNowPlayingPPS: set DISALLOW_ACQUIRE state since player:%s already in "
               "play state",
               player->name);
    } else {
        msglog(7,
               "monitorNowPlayingPPS: set ALLOW_ACQUIRE state since player:%s not in play "
               "state",
               player->name);
    }
    player->np_state = NOWPLAYING_ACQUIRED;
}

/* The answer to an acquire. With several unanswered it may be an earlier one's, which says nothing
 * of revokes in between. */
static void take_answer(monitor* self, bool refused) noexcept {
    player* player = self->owner;
    vel_lock_guard guard(player->np_lock);
    player->np_waiting = 0;
    if (!refused) {
        take_grant(player);
        if (player->np_unanswered == 1) {
            drop_revokes(self, player->np_asked);
        }
    }
    if (player->np_unanswered > 0) {
        --player->np_unanswered;
    }
    pthread_cond_broadcast(&player->np_cond);
}

static void take_revoke(player* player) noexcept {
    msglog(7, "monitorNowPlayingPPS: received a Revoke cmd from nowplaying");
    vel_lock_guard guard(player->np_lock);
    player->np_acquired = 0;
    player->np_state = NOWPLAYING_REVOKED;
    player->np_waiting = 0;
    ++player->np_revokes;
    pthread_cond_broadcast(&player->np_cond);
}

static uint32_t revokes_read(player* player) noexcept {
    vel_lock_guard guard(player->np_lock);
    return player->np_revokes;
}

/* A revoke always finds room: in the place of one right before it, or of the last command. */
static void enqueue(monitor* self, int32_t command) noexcept {
    const bool revokes = command == NOWPLAYING_DO_REVOKE;
    const bool again = revokes && self->queued > 0 &&
                       self->queue[self->queued - 1].command == NOWPLAYING_DO_REVOKE;
    const bool full = self->queued == COMMANDS_MAX;
    if (full && !again) {
        msglog(3, "NowPlaying commands faster than player:%s can follow; one is dropped",
               self->owner->name);
    }
    if (full && !revokes) {
        return;
    }
    self->queued -= full || again ? 1 : 0;
    self->queue[self->queued++] = {command, revokes_read(self->owner)};
}

/* Takes what must not wait at once, and puts the rest into the queue. */
static void take_message(monitor* self, const nowplaying_message& message, bool refused) noexcept {
    if (message.command == NOWPLAYING_DO_REVOKE) {
        take_revoke(self->owner);
    }
    if (message.command != NOWPLAYING_DO_NOTHING) {
        enqueue(self, message.command);
    }
    if (message.answer) {
        take_answer(self, refused);
    }
}

/* A refusal anywhere in the text refuses; only its beginning can tell, with true as the result,
 * that the control object is gone. */
static bool take_text(monitor* self, const char* text) noexcept {
    nowplaying_message message;
    const char* next = nowplaying_read(text, &message);
    const bool lost = message.lost;
    bool refused = message.refused;
    while (next != nullptr) {
        next = nowplaying_read(next, &message);
        refused = refused || message.refused;
    }
    for (next = text; next != nullptr;) {
        next = nowplaying_read(next, &message);
        take_message(self, message, refused);
    }
    return lost;
}

/* Reads what has come. True when the connection is at its end. */
static bool read_messages(monitor* self) noexcept {
    const char* name = self->owner->name;
    for (int32_t i = 0; i < READS_MAX; ++i) {
        char* text = nullptr;
        const int64_t length = server_object_read(self->fd, &text);
        if (length < 0) {
            const int error = errno;
            if (error == EAGAIN) {
                return false;
            }
            msglog(3,
                   "fd#%d Thread#%d for player:%s monitorNowPlayingPPS: failed to read NowPlaying "
                   "control file %s",
                   self->fd, self->thread, name, msglog_error_text(error));
            const bool lost = error == ECONNRESET || error == EBADF;
            self->failed = !lost;
            return lost;
        }
        msglog(7,
               "fd#%d Thread#%d for player:%s monitorNowPlayingPPS: read %s in %d bytes from "
               "control file",
               self->fd, self->thread, name, text, static_cast<int>(length));
        const bool lost = take_text(self, text);
        free(text);
        if (lost) {
            return true;
        }
    }
    return false;
}

/* The arbiter's last word is that of an order unless a revoke came after it. */
static void set_state(player* player, const order& order, int32_t state) noexcept {
    if (revokes_read(player) == order.revokes) {
        player->np_state = state;
    }
}

/* The arbiter's play brings its own grant, which only the play can use. */
static void play(player* player) noexcept VEL_REQUIRES(player->lock) {
    {
        vel_lock_guard guard(player->np_lock);
        player->np_acquired = 1;
    }
    (void)player->np_commands->play(player);
    vel_lock_guard guard(player->np_lock);
    player->np_acquired = 0;
}

/* Silences the player by what its source could do when the session was made. Where a pause fails, a
 * stop is tried: the focus is another's, a call's perhaps. After a later word of the arbiter's, a
 * grant for instance, it is told of the silence. */
static void revoke(player* player) noexcept VEL_REQUIRES(player->lock) {
    const trksession* session = player->trksession;
    if (session == nullptr) {
        return;
    }
    const nowplaying_commands* commands = player->np_commands;
    const uint64_t can = session->ms_session->capabilities;
    if ((can & (LYR_CAP_PAUSE | LYR_CAP_STOP)) == 0) {
        msglog(3,
               "monitorNowPlayingPPS: Cannot Pause/Stop since player:%s does not have either "
               "capability",
               player->name);
        return;
    }
    const bool pauses = (can & LYR_CAP_PAUSE) != 0;
    int32_t result = pauses ? commands->pause(player) : commands->stop(player);
    if (pauses && result != 0 && player->status == LYR_STATUS_PLAYING) {
        result = commands->stop(player);
    }
    if (result != 0 && player->status == LYR_STATUS_PLAYING) {
        msglog(3,
               "Player:%s plays on without the audio focus: its source would not be silenced "
               "(result %d); stop it at the source",
               player->name, result);
    }
}

static void execute(player* player, const order& order) noexcept VEL_REQUIRES(player->lock) {
    switch (order.command) {
    case NOWPLAYING_DO_PLAY:
        set_state(player, order, NOWPLAYING_PLAY);
        play(player);
        break;
    case NOWPLAYING_DO_PAUSE:
        set_state(player, order, NOWPLAYING_PAUSE);
        (void)player->np_commands->pause(player);
        break;
    case NOWPLAYING_DO_NEXT:
        (void)player->np_commands->next(player);
        break;
    case NOWPLAYING_DO_PREVIOUS:
        (void)player->np_commands->previous(player);
        break;
    default: /* NOWPLAYING_DO_REVOKE */
        revoke(player);
        break;
    }
}

/* Does what is queued as long as the player lock is free. */
static void work_off(monitor* self) noexcept {
    player* player = self->owner;
    int32_t done = 0;
    while (done < self->queued && vel_mutex_try_lock(&player->lock)) {
        if (player->closed == 0) {
            execute(player, self->queue[done]);
        }
        ++done;
        vel_mutex_unlock(&player->lock);
    }
    self->queued -= done;
    for (int32_t i = 0; i < self->queued; ++i) {
        self->queue[i] = self->queue[i + done];
    }
}

/* Speaks with one arbiter until it goes; false when the player is closed. */
static bool monitor_connection(monitor* self) noexcept {
    for (;;) {
        int timeout = self->queued > 0 ? LOCK_AGAIN_MS : -1;
        if (self->failed) {
            timeout = READ_AGAIN_MS;
        }
        if (!wait_for(self->owner, self->failed ? -1 : self->fd, timeout)) {
            return false;
        }
        self->failed = false;
        const bool lost = read_messages(self);
        work_off(self);
        if (lost) {
            msglog(3,
                   "Thread#%d for player:%s monitorNowPlayingPPS: lost NowPlaying control file; "
                   "terminating",
                   self->thread, self->owner->name);
            return true;
        }
    }
}

extern "C" {

int32_t config_nowplaying(player* player) noexcept {
    disconnect(player);
    int32_t fd = server_object_open(NOWPLAYING_CONTROL);
    while (fd < 0) {
        const bool busy = errno == EAGAIN;
        set_busy(player, busy);
        if (!wait_for(player, -1, busy ? BUSY_AGAIN_MS : CONNECT_AGAIN_MS)) {
            return -1;
        }
        fd = server_object_open(NOWPLAYING_CONTROL);
    }
    const int32_t thread = player->np_thread;
    const vel_text text(nowplaying_register_text(player->name, "low", "general", "plain"));
    {
        vel_lock_guard guard(player->np_lock);
        set_connection(player, fd);
        msglog(4, "fd#%d Thread#%d - NowPlaying service now available for player:%s", fd, thread,
               player->name);
        nowplaying_send(player, text.get()); /* before anybody else can see the descriptor */
    }
    if (player->status == LYR_STATUS_PLAYING) {
        msglog(7, "fd#%d Thread#%d - Sending Acquire request since player:%s is already playing",
               fd, thread, player->name);
        {
            vel_lock_guard guard(player->np_lock);
            nowplaying_ask(player);
        }
        nowplaying_state(player, "playing");
    }
    return 0;
}

void* monitor_nowplaying_pps(void* argument) noexcept {
    auto* player = static_cast<struct player*>(argument);
    player->np_thread = process_thread_id();
    while (config_nowplaying(player) == 0) {
        monitor self = {};
        self.owner = player;
        self.thread = player->np_thread;
        {
            vel_lock_guard guard(player->np_lock);
            self.fd = player->np_fd;
        }
        msglog(4, "fd#%d Thread#%d for player:%s monitorNowPlayingPPS: starting", self.fd,
               self.thread, player->name);
        if (!monitor_connection(&self)) {
            break;
        }
    }
    disconnect(player);
    const nowplaying_commands* commands = player->np_commands;
    {
        vel_lock_guard guard(player->np_lock);
        player->np_running = 0;
        pthread_cond_broadcast(&player->np_cond);
    }
    commands->unpin(player);
    return nullptr;
}
}
