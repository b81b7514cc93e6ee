/* What is looked at to find out why a service does not do what it should. */
#ifndef LYRACTL_DOCTOR_H
#define LYRACTL_DOCTOR_H

#include <string>
#include <vector>

#include "arguments.h"

enum class verdict { good, notice, bad };

/* One thing that was looked at, and what to do about it when it is not good. */
struct finding {
    verdict is = verdict::good;
    std::string about;
    std::string says;
};

/* Looks at everything in the order in which a service needs it. Changes nothing. */
std::vector<finding> doctor_look(const arguments& what);

#endif
