/* The text of objects: files read whole, lines merged into attribute sets, sets written as text
 * and compared. An attribute's value is the text from its first ':' on (":n:12"). */
#ifndef VELORAN_PPS_CONTENT_H
#define VELORAN_PPS_CONTENT_H

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include <sys/types.h>
#include <veloran/dict.h>
#include <veloran/pps.h>

struct pps_dict_release {
    void operator()(strm_dict* dict) const noexcept { strm_dict_destroy(dict); }
};
using pps_attributes = std::unique_ptr<strm_dict, pps_dict_release>;

/* What tells one version of an object's file from the next, where their texts do not. Not the time
 * of the last status change: a file gets a new one when another takes its place. */
struct pps_identity {
    dev_t device = 0;
    ino_t inode = 0;
    timespec written = {};
};
bool pps_identity_equal(const pps_identity& one, const pps_identity& other) noexcept;

/* Reads an object's file. -1 with ENOENT when there is none, EINVAL when what is there is no
 * object (a link, a directory, a pipe), EFBIG, or the error of the system. */
int32_t pps_content_load(int32_t place, const char* name, std::string* text,
                         pps_identity* identity);

/* How strictly lines are taken. */
enum class pps_strictness {
    update, /* an update of ours: a line that is none is EINVAL */
    file,   /* a file anybody may have written: such lines are passed over */
};
/* Merges lines into a set. -1 with EINVAL, EFBIG (too many attributes) or ENOMEM. */
int32_t pps_content_merge(strm_dict* attributes, const char* text, size_t length,
                          pps_strictness strictness);

/* Writes "@label" and the attributes as the whole text. */
void pps_content_format(std::string* text, const std::string& label, const strm_dict* attributes);
/* Writes "@label" and what turns `before` into `after`; all of `after` when nothing does. */
void pps_content_format_change(std::string* text, const std::string& label, const strm_dict* before,
                               const strm_dict* after);

#endif
