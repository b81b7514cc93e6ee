// The user that sqldbd goes on as.
#ifndef TOOLS_SQLDBD_USER_H
#define TOOLS_SQLDBD_USER_H

#include <string>
#include <vector>

#include <sys/types.h>

struct user_identity {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
};

/* Reads "USER[:GROUP,...]", of names or numbers, as lyrane's -U does. False with the reason.
 * [main], before any other thread */
bool user_read(const std::string& text, user_identity* user, std::string* why);

/* Names the user as the owner of the roots; false with the reason, when the process is not root's
 * for instance. [main], before any other thread */
bool user_own_roots(const user_identity& user, std::string* why);

/* Changes the whole process to the user. False with the reason. [main] */
bool user_become(const user_identity& user, std::string* why);

#endif
