/* What the last-mode database of a running daemon holds; it is one of this process's runtime root.
 */
#ifndef TEST_SAVED_H
#define TEST_SAVED_H

#include <string>

/* An SQL expression over the columns of a player's two rows, as text; "" when it has none. */
std::string saved_value(const std::string& player, const std::string& expression);

/* Waits until it has that value; a wait that comes to its limit fails the test. */
bool saved_await(const std::string& player, const std::string& expression,
                 const std::string& value);

/* Tracks that are saved of a player; 0 when none of it is. */
int saved_tracks(const std::string& player);

/* The restore threads of a daemon that are still at work. */
int64_t saved_restoring(const struct test_daemon& daemon);

#endif
