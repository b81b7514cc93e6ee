/* Getting a database ready to be opened: made when it is missing, replaced when it is damaged. */
#ifndef VELORAN_SQLDB_STORE_H
#define VELORAN_SQLDB_STORE_H

#include <cstdint>
#include <string>

#include "sqldb_place.h"

/* Who is told what happened; see sqldb_service_options. */
struct sqldb_reporter {
    void (*say)(void* user, int32_t severity, const char* text) noexcept = nullptr;
    void* user = nullptr;
    std::string defaults; /* directory of the default schema files */
};

/* Says one line; nothing without somebody to tell. */
void sqldb_report(const sqldb_reporter& reporter, int32_t severity, const std::string& text);

/* Gets the database of a place ready. 0, or -1 with the reason said and in *reason, and nothing of
 * the listener's changed. */
int32_t sqldb_store_prepare(const sqldb_place& place, const sqldb_reporter& reporter,
                            std::string* reason);

#endif
