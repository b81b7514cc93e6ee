/* nowplayingd ctl: asks a running arbiter. */
#ifndef NOWPLAYINGD_CTL_H
#define NOWPLAYINGD_CTL_H

#include <string>

struct ctl_request {
    std::string command; /* "status", "play", ... as in control.h */
    std::string name;
    std::string kind;
    bool json = false; /* of the status */
};

/* Prints the answer. False with *why when it is no, or there is none. */
bool ctl_run(const ctl_request& request, std::string* why);

#endif
