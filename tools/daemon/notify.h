/* Tells the service manager that started us how far we are. */
#ifndef TOOLS_NOTIFY_H
#define TOOLS_NOTIFY_H

#include <string>

/* Sends a text such as "READY=1" to the socket that $NOTIFY_SOCKET names: a path, or a name in the
 * abstract name space behind '@'. Nothing happens without one, or when nobody listens. */
void notify_manager(const std::string& text);

#endif
