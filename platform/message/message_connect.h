/* Connecting to a socket file. Part of the client library, like message_client.cc. */
#ifndef VELORAN_MESSAGE_CONNECT_H
#define VELORAN_MESSAGE_CONNECT_H

/* Connects by a real path of any length. 0, or -1 with errno set. */
int message_connect_path(int fd, const char* real);

#endif
