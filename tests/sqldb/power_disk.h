/* A disk that loses, at a cut of its power, what was not synchronised.
 *
 * Below one directory, every change is made in the real files and noted: what SQLite does through a
 * VFS that lies over the ordinary one, and what the code under test does by itself through the
 * linker's wraps of open, write, fsync, rename and unlink. At the cut an image of the directory is
 * written that holds what was synchronised, and by chance some of the rest: each write since the
 * last synchronisation of its file is dropped, torn at bounds of 512 bytes, or kept, in any order;
 * the names of a directory are those of its last synchronisation, with some of the later changes.
 * Directories themselves stay. */
#ifndef TESTS_SQLDB_POWER_DISK_H
#define TESTS_SQLDB_POWER_DISK_H

#include <cstdint>
#include <string>

/* Puts the VFS before all others of this process; it only passes on until disk_begin. Once. */
void disk_install();

/* Begins to note what happens below a directory, whose present content counts as synchronised. The
 * power is cut before change number `cut_at` (from 1), counting with `names_only` those of
 * directories only: the image is written into the directory `image`, and the process ends with
 * DISK_CUT. */
void disk_begin(const std::string& directory, const std::string& image, uint32_t seed,
                int64_t cut_at, bool names_only);

/* Cuts the power now. */
[[noreturn]] void disk_cut();

constexpr int DISK_CUT = 77; /* exit status */

#endif
