/* Signals that end the process are held back while a player is open, so that it gets closed.
 *
 * A second signal ends the process at once: the service may be the one that does not answer. */
#ifndef LYRACTL_INTERRUPT_H
#define LYRACTL_INTERRUPT_H

/* From now on the first SIGINT, SIGTERM or SIGHUP only makes interrupt_pending true. */
void interrupt_hold(void);

/* Signals act again; one that was held back acts now. */
void interrupt_release(void);

/* Whether one is held back: what can end early should. */
bool interrupt_pending(void);

/* For commands that wait for signals among other things: the signals that end the process, and
 * SIGWINCH, no longer act; the descriptor is readable when one came. -1 with errno set. */
int interrupt_descriptor(void);

/* Takes what came: 0 when there is nothing more. */
int interrupt_take(int descriptor);

#endif
