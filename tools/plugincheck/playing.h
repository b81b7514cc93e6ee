/* What the groups that play begin with: a session whose first playable track is attached. */
#ifndef PLUGINCHECK_PLAYING_H
#define PLUGINCHECK_PLAYING_H

#include "host.h"
#include "listing.h"

/* A session with both halves on a source that this plug-in plays, and its tracks; or null, and why
 * (a literal). */
struct playing_setup {
    const host_source* source = nullptr;
    host_session* session = nullptr;
    listing_tree tree;
    const char* why = nullptr;
};
playing_setup playing_prepare(const host_options& options);

/* Attaches the first track that can be. False when none can. */
bool playing_attach(host_session* session, const listing_tree& tree);
bool playing_attach_locked(host_session* session, const listing_tree& tree)
    VEL_REQUIRES(session->player_lock);

/* Attaches and plays, and waits for a report. False when one of them fails. */
bool playing_begin(const playing_setup& setup, host_session* session);

/* Reports so far. */
int32_t playing_reports(host_session* session);
/* Waits until there are more reports than `before`. */
bool playing_await(host_session* session, int32_t before);

#endif
