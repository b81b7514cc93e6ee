/* The order in which names are listed. */
#ifndef LYRANE_FILES_ORDER_H
#define LYRANE_FILES_ORDER_H

/* True when `left` stands before `right`: runs of digits compare by their value ("2" before "10"),
 * letters of ASCII without regard to case, all else by bytes; names that are the same that way, by
 * bytes alone, so that no two different names are equal. */
bool files_order_before(const char* left, const char* right) noexcept;

#endif
