/* Callbacks into the service, made on request: on threads of the plug-in, one queue each, or from
 * inside a call. */
#ifndef FAKE_EVENTS_H
#define FAKE_EVENTS_H

#include <cstdint>
#include <string>

#include "fake_state.h"
#include "fake_words.h"

struct fake_job {
    fake_words words;       /* the event: KIND first */
    uint64_t session = 0;   /* what session=this means */
    bool automatic = false; /* made by the plug-in itself: dropped when the session has ended */
    bool done = false;      /* guarded by the state's lock, as is result */
    int64_t result = -1;
};

/* Makes an event on the calling thread; its result. */
int64_t events_make_here(const std::string& event, uint64_t session);

/* Has a thread of the plug-in make an event. */
void events_post(const std::string& event, uint64_t session) VEL_REQUIRES(state.lock);

/* Commands, as those of fake_calls.h. */
std::string events_make(const fake_words& words, std::string& fault);
std::string events_join(const fake_words& words, std::string& fault);

/* Reports the sources on a thread of the plug-in; returns when that has been done. */
void events_report_sources();

/* Ends the plug-in's threads; events still queued are dropped. */
void events_end_threads();

#endif
