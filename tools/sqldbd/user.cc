#include "user.h"

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <system_error>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <veloran/paths.h>

namespace {

/* A number as an id; the largest one is the system's "no id". */
bool read_number(const std::string& text, uint32_t* id) {
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, *id);
    return result.ec == std::errc() && result.ptr == end && *id != UINT32_MAX;
}

bool refuse(const std::string& what, std::string* why) {
    *why = "-U: " + what;
    return false;
}

bool failed(const char* call, std::string* why) {
    return refuse(std::string(call) + ": " + std::system_category().message(errno), why);
}

/* The groups of the user database. */
bool read_groups_of(const passwd& entry, user_identity* user, std::string* why) {
    auto count = static_cast<int>(sysconf(_SC_NGROUPS_MAX));
    user->groups.resize(static_cast<size_t>(count));
    if (getgrouplist(entry.pw_name, entry.pw_gid, user->groups.data(), &count) < 0) {
        return refuse("the user is in too many groups", why);
    }
    user->gid = entry.pw_gid;
    user->groups.resize(static_cast<size_t>(count));
    return true;
}

bool read_group(const std::string& text, user_identity* user, std::string* why) {
    const group* entry = getgrnam(text.c_str());
    gid_t gid = entry != nullptr ? entry->gr_gid : 0;
    if (entry == nullptr && !read_number(text, &gid)) {
        return refuse("there is no group " + text, why);
    }
    user->groups.push_back(gid);
    return true;
}

} // namespace

bool user_read(const std::string& text, user_identity* user, std::string* why) {
    const size_t colon = text.find(':');
    const std::string name = text.substr(0, colon);
    const passwd* entry = getpwnam(name.c_str());
    if (entry != nullptr) {
        user->uid = entry->pw_uid;
        user->groups.push_back(entry->pw_gid);
    } else if (!read_number(name, &user->uid)) {
        return refuse("there is no user " + name, why);
    }
    if (colon == std::string::npos) {
        return entry != nullptr ? read_groups_of(*entry, user, why)
                                : refuse("a user by number needs a group", why);
    }
    for (size_t begin = colon + 1; begin <= text.size();) {
        const size_t end = text.find(',', begin);
        if (!read_group(text.substr(begin, end - begin), user, why)) {
            return false;
        }
        begin = end == std::string::npos ? text.size() + 1 : end + 1;
    }
    user->gid = user->groups.front();
    return true;
}

bool user_own_roots(const user_identity& user, std::string* why) {
    if (geteuid() != 0) {
        return refuse("only root can go on as another user", why);
    }
    return paths_set_owner(user.uid, user.gid, user.groups.data(), user.groups.size()) == 0 ||
           failed("getgroups()", why);
}

bool user_become(const user_identity& user, std::string* why) {
    if (setgroups(user.groups.size(), user.groups.data()) != 0) {
        return failed("setgroups()", why);
    }
    if (setgid(user.gid) != 0) {
        return failed("setgid()", why);
    }
    return setuid(user.uid) == 0 || failed("setuid()", why);
}
