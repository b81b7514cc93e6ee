/* What a service takes: descriptors, threads and memory at quiet moments of one life. */
#ifndef TEST_SOAK_WATCH_H
#define TEST_SOAK_WATCH_H

#include "soak.h"

/* A life of so many ms begins. */
void soak_watch_begin(int64_t life);
/* At a quiet moment, so many ms into the life. From the end of the life's first minute (or half, of
 * a short one) on, nothing may grow. */
void soak_watch(soak& soak, int64_t age);
/* The most KiB by which memory was above that of the first minute; -1: not measured. */
int64_t soak_watch_growth();

#endif
