/* Opening the player that a command is meant for. All return a connection on which that player is
 * open, or null with the reason in *why. */
#ifndef LYRACTL_ENTER_H
#define LYRACTL_ENTER_H

#include <string>

#include "arguments.h"
#include "connection.h"

/* Whether there is a player of this name. */
bool enter_exists(const std::string& player);

/* The player that is wanted, which must exist. */
connection_owner enter_existing(const arguments& what, std::string* why);

/* The player of the name that is wanted; it is made when it does not exist. */
connection_owner enter_new(const arguments& what, std::string* why);

/* For requests that are made on behalf of a player, whichever: the one that is wanted, else the
 * first there is, else one of our own, which goes when it is closed. */
connection_owner enter_any(const arguments& what, std::string* why);

#endif
