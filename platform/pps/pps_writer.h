/* The writing side of an object. */
#ifndef VELORAN_PPS_WRITER_H
#define VELORAN_PPS_WRITER_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <sys/uio.h>

#include "pps_content.h"
#include "pps_target.h"

struct pps_place;

struct pps_writer {
    std::string directory; /* relative to "/pps" */
    std::string name;
    uint32_t mode = 0;
    pps_place* place = nullptr; /* the opened directory; one reference */
    int32_t stage = -1;         /* borrowed */
    pps_attributes content;
    std::string incoming; /* kept for their memory */
    std::string outgoing;
};

/* Opens an object for updates, as pps_open tells. */
int32_t pps_writer_init(pps_writer* writer, const pps_target* target, int32_t flags, uint32_t mode);
/* Releases what the writer holds. */
void pps_writer_deinit(pps_writer* writer) noexcept;
/* Publishes one update. */
int32_t pps_writer_update(pps_writer* writer, const struct iovec* pieces, size_t count);

#endif
