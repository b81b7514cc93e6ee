/* Drives for tests. */
#include "sticks.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <veloran/lock.h>

#include "media_files.h"

namespace fs = std::filesystem;

/* Ends an ext4 file system at once, without writing anything. */
static constexpr unsigned long SHUT_DOWN = _IOR('X', 125, uint32_t);
static constexpr uint32_t WITHOUT_FLUSHING = 2;

/* The command that makes a file system, without its label and the file. */
static std::string make_command(const std::string& type) {
    return type == "ext4"   ? "mkfs.ext4 -q -F -O ^has_journal "
           : type == "ntfs" ? "mkfs.ntfs -q -F -s512 -p0 -S63 -H16 "
                            : "mkfs." + type + ' ';
}

/* A file of a size for a file system. */
static void make_image(const std::string& image, uintmax_t size) {
    std::ofstream(image).close();
    fs::resize_file(image, size);
}

/* True when a small drive of a kind can be made and mounted. */
static bool try_out(const std::string& type) {
    const temporary_folder folder;
    const std::string image = folder.path + "/image";
    make_image(image, 4 << 20);
    const std::string command = '(' + make_command(type) + image + " && mount -o loop " + image +
                                ' ' + folder.path + ") >/dev/null 2>&1";
    const bool works = std::system(command.c_str()) == 0; // NOLINT: our own words
    umount(folder.path.c_str());
    return works;
}

std::string sticks_missing(const std::string& type) {
    static const bool entered =
        unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    if (!entered) {
        return "only root can mount, in a namespace of the program's own";
    }
    static std::map<std::string, bool> tried;
    const auto [entry, fresh] = tried.try_emplace(type);
    entry->second = fresh ? try_out(type) : entry->second;
    return entry->second ? "" : "no mkfs." + type + ", or no mounting it through a loop device";
}

void stick_make(const std::string& image, const std::string& type, const std::string& label) {
    make_image(image, 24 << 20);
    run_tool(
        {"sh", "-c", make_command(type) + (type == "vfat" ? "-n " : "-L ") + label + ' ' + image});
    if (type == "ntfs") {
        /* Its serial number is of the second in which it was made. */
        std::fstream boot(image, std::ios::in | std::ios::out | std::ios::binary);
        const uint64_t serial = std::hash<std::string>()(image);
        boot.seekp(0x48).write(reinterpret_cast<const char*>(&serial), sizeof serial);
    }
}

void stick_plug(const std::string& image, const std::string& point) {
    fs::create_directories(point);
    run_tool({"mount", "-o", "loop", image, point});
}

void stick_unplug(const std::string& point) {
    EXPECT_EQ(umount(point.c_str()), 0) << point << ": " << strerror(errno);
}

void stick_pull(const std::string& point) {
    EXPECT_EQ(umount2(point.c_str(), MNT_DETACH), 0) << point << ": " << strerror(errno);
}

void stick_break(const std::string& point) {
    const vel_fd folder(open(point.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    uint32_t how = WITHOUT_FLUSHING;
    EXPECT_EQ(ioctl(folder.value, SHUT_DOWN, &how), 0) << strerror(errno);
}

/* The list of devices is a folder of ours from the first call on, so that it changes without
 * anything being mounted. */
void stick_show_devices(bool there) {
    const std::string mark = std::string(STICK_DEVICES) + "/ours";
    if (!fs::exists(mark)) {
        EXPECT_EQ(mount("none", STICK_DEVICES, "tmpfs", 0, nullptr), 0) << strerror(errno);
        std::ofstream(mark).close();
    }
    for (int number = 0; number < 256; ++number) {
        const std::string device = std::string(STICK_DEVICES) + "/7:" + std::to_string(number);
        if (there) {
            std::ofstream(device).close();
        } else {
            fs::remove(device);
        }
    }
    std::ofstream("/sys/block/loop0/uevent") << "change";
}
