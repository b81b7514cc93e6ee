/* The log that the host offers to the plug-in, for programs that use one of these functions. */
#ifndef LYRANE_TEST_HOST_LOG_H
#define LYRANE_TEST_HOST_LOG_H

#include <string>

/* How many lines so far contain the text. */
int32_t host_log_count(const std::string& text);
/* Waits until at least so many lines contain the text; false after a generous time. */
bool host_log_wait(const std::string& text, int32_t least);
/* Forgets the lines. */
void host_log_forget();

#endif
