/* The terminal as a screen: keys come one by one, and what it showed before comes back at the end.
 */
#ifndef LYRACTL_TERMINAL_H
#define LYRACTL_TERMINAL_H

#include <cstdint>
#include <string>
#include <vector>

/* Whether the standard input and output are a terminal that can be made a screen. */
bool terminal_there(void);

/* Takes the terminal over. False with errno set. */
bool terminal_begin(void);

/* Gives it back as it was; does nothing when it was not taken. */
void terminal_end(void);

/* Columns and rows at present. */
void terminal_size(int32_t* columns, int32_t* rows);

/* Shows these lines from the top and nothing else. False when the terminal has gone. */
bool terminal_show(const std::vector<std::string>& lines);

/* The next key that was pressed, 0 when there is none, -1 when the terminal has gone. Keys that
 * send several bytes are passed over. */
int32_t terminal_key(void);

#endif
