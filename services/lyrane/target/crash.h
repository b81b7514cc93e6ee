/* What a crash leaves in the log. */
#ifndef LYRANE_CRASH_H
#define LYRANE_CRASH_H

/* From here on a fatal signal writes lines of severity 2: the signal, the call into a plug-in that
 * the thread was in, and the frames of its stack, each with its library and the place in it for
 * addr2line(1). The process then ends by the signal as it would have without. What is being opened
 * is noted first, see plugin_opening.h. Where a sanitizer reports, that is all, and for SIGABRT
 * alone. [main], before other threads */
void crash_prepare(void) noexcept;

#endif
