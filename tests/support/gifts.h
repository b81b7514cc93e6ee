/* Descriptors that travel with messages, and those that make trouble for who gets them. */
#ifndef TEST_GIFTS_H
#define TEST_GIFTS_H

#include <string>
#include <vector>

/* Sends one message with descriptors, without waiting; the own copies stay. 0, or errno. */
int gift_send(int socket, const std::string& message, const std::vector<int>& gifts);

/* TCP sockets whose last close waits for an hour: data is unsent, and their other ends, which stay
 * open in this process, do not read. */
std::vector<int> gift_lingering(int count);

/* Not the last close: somebody else has them, or a queue. */
void gift_close(std::vector<int>& gifts);

#endif
