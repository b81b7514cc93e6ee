/* Path names of objects taken apart, and directories opened without following a link. Private to
 * this folder, as are the other headers here: functions set errno, and those without `noexcept`
 * may throw std::bad_alloc. */
#ifndef VELORAN_PPS_TARGET_H
#define VELORAN_PPS_TARGET_H

#include <climits>
#include <cstdint>

/* The name that means every object of a directory. */
constexpr const char* PPS_TARGET_ALL = ".all";

constexpr uint32_t PPS_OPTION_NOPERSIST = 0x1;
constexpr uint32_t PPS_OPTION_WAIT = 0x2;
constexpr uint32_t PPS_OPTION_DELTA = 0x4;
constexpr uint32_t PPS_OPTION_DEEP = 0x8;

/* A path "/pps/DIRECTORY/NAME?options". */
struct pps_target {
    char directory[PATH_MAX]; /* relative to "/pps", may be empty */
    char name[NAME_MAX + 1];
    uint32_t options; /* PPS_OPTION_* */
};

/* Takes a path apart. -1 with EINVAL for one that is not below "/pps", has an empty part or one
 * that starts with '.' (but for PPS_TARGET_ALL at the end), or an unknown option; ENAMETOOLONG. */
int32_t pps_target_parse(pps_target* target, const char* path) noexcept;

/* Opens the directory (relative to "/pps") as a place to create and rename in: a descriptor that
 * the caller closes. "/pps" and its directory of the path are made when missing. */
int32_t pps_target_open_to_write(const char* directory) noexcept;
/* The same to list and watch it, wherever a service may have made it; nothing is made. */
int32_t pps_target_open_to_read(const char* directory) noexcept;
/* Opens "/pps" itself to create in, making it when missing. */
int32_t pps_target_open_base(void) noexcept;

#endif
