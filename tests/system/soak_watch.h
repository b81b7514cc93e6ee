/* What a service takes: descriptors, threads and memory at quiet moments of one life. */
#ifndef TEST_SOAK_WATCH_H
#define TEST_SOAK_WATCH_H

#include "soak.h"

/* A life of so many ms begins. */
void soak_watch_begin(int64_t life);
/* At a quiet moment, so many ms after the load of the life began. From the end of the first minute
 * (or half, of a short life) on, descriptors and threads may not grow. */
void soak_watch(soak& soak, int64_t age);
/* At the end of a life, whose memory must be near that of its first minute: an hour's rush leaves
 * holes of some hundred KiB in the heap that come and go. */
void soak_watch_end(soak& soak);
/* The most KiB by which memory was above that of the first minute; -1: not measured. */
int64_t soak_watch_growth();

#endif
