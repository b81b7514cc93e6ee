/* Drives for tests: file systems in files, mounted through loop devices. They are mounted in a
 * mount namespace of the test program's own, so nothing of them outlasts it. For root only. */
#ifndef LYRANE_TEST_STICKS_H
#define LYRANE_TEST_STICKS_H

#include <string>

/* Why drives with this file system (ext4, vfat, ntfs) cannot be had here; empty: they can. The
 * first call takes the program into its namespace, so it comes from the main thread. */
std::string sticks_missing(const std::string& type);

/* Makes a drive of 24 MB in a file. */
void stick_make(const std::string& image, const std::string& type, const std::string& label);

/* Mounts a drive, and makes the folder for it if need be. */
void stick_plug(const std::string& image, const std::string& point);
/* Unmounts what is mounted there; a test failure when it is in use. */
void stick_unplug(const std::string& point);
/* The same, whether it is in use or not. */
void stick_pull(const std::string& point);
/* From now on every file of the drive (ext4) fails to be read, as when the plug was pulled and
 * nobody unmounts it. */
void stick_break(const std::string& point);

/* From now on the loop devices are there (true) or seem to have gone, and the kernel tells of it.
 * Undone by stick_pull of STICK_DEVICES. */
void stick_show_devices(bool there);
constexpr const char* STICK_DEVICES = "/sys/dev/block";

#endif
