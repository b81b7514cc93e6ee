/* What the status objects of the database service say, whoever writes them. */
#ifndef LYRANE_DATABASE_STATUS_H
#define LYRANE_DATABASE_STATUS_H

#include <cstddef>

enum class database_status { unknown, valid, unusable };

/* What a whole text of status objects says of our database; of several states the last counts. */
database_status database_read_status(const char* text, size_t length) noexcept;

#endif
