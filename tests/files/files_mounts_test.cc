/* Which mounts of a table are drives. */
#include <gtest/gtest.h>

#include "files_mounts.h"
#include "media_files.h"

namespace {

constexpr const char* SYSTEM = "20 1 8:1 / / rw shared:1 - ext4 /dev/root rw\n"
                               "21 20 0:5 / /dev rw - devtmpfs udev rw\n"
                               "22 20 0:25 / /nomedia/run rw - tmpfs tmpfs rw\n";

} // namespace

TEST(files_mounts, drives_are_told_from_everything_else) {
    const temporary_folder folder;
    const std::string table = folder.path + "/table";
    const std::string mounts =
        /* Drives, whole or in part. */
        "30 20 8:17 / /nomedia/usb rw - vfat /dev/sdb1 rw\n"
        "31 20 8:18 / /nomedia/a/b/c rw shared:7 master:2 - vfat /dev/sdb2 rw\n"
        "32 20 8:19 / /nomedia/MY\\040STICK\\134 rw - exfat /dev/sdb3 rw\n"
        "33 20 0:44 / /nomedia/fuse rw - fuseblk /dev/sdc1 rw\n"
        "34 20 0:45 / /nomedia/btrfs rw - btrfs /dev/sdd1 rw\n"
        "35 20 0:46 /sub /nomedia/sub rw - btrfs /dev/sde1 rw,subvol=/sub\n"
        "36 20 8:20 /folder /nomedia/part rw - vfat /dev/sdb4 rw\n"
        /* Elsewhere, of the system, or not on a block device. */
        "40 20 8:21 / /nomediaX rw - vfat /dev/sdb5 rw\n"
        "41 20 8:22 / /home rw - vfat /dev/sdb6 rw\n"
        "42 20 8:1 / /nomedia/system rw - ext4 /dev/root rw\n"
        "43 20 8:1 /srv/music /nomedia/music rw - ext4 /dev/root rw\n"
        "44 20 0:47 / /nomedia/ann rw - tmpfs /dev/sdf1 rw\n"
        "45 20 0:48 / /nomedia/nas rw - nfs4 nas:/music rw\n"
        /* Parts of what is there as a whole. */
        "50 20 8:33 / /srv rw - ext4 /dev/sdc1 rw\n"
        "51 20 8:33 /ann /nomedia/ann rw - ext4 /dev/sdc1 rw\n"
        "52 20 8:34 /x /nomedia/x rw - ext4 /dev/sdc2 rw\n"
        "53 20 8:34 / /nomedia/all rw - ext4 /dev/sdc2 rw\n"
        /* Over and in one another. */
        "60 20 8:49 / /nomedia/o rw - vfat /dev/sdd1 rw\n"
        "61 60 8:50 / /nomedia/o rw - vfat /dev/sdd2 rw\n"
        "62 61 8:49 / /nomedia/o/b rw - vfat /dev/sdd1 rw\n"
        /* The place itself. */
        "70 20 8:51 / /nomedia rw - vfat /dev/sdd3 rw\n";
    write_file(table, SYSTEM + mounts);
    std::vector<files_mount> drives;
    EXPECT_TRUE(files_mounts_read(table.c_str(), {"/nowhere", "/nomedia"}, &drives));
    std::string shown;
    for (const files_mount& drive : drives) {
        shown += std::to_string(drive.id) + ' ' + drive.root + (drive.whole ? "\n" : " part\n");
    }
    EXPECT_EQ(shown, "30 /nomedia/usb\n31 /nomedia/a/b/c\n32 /nomedia/MY STICK\\\n"
                     "33 /nomedia/fuse\n34 /nomedia/btrfs\n53 /nomedia/all\n60 /nomedia/o\n"
                     "61 /nomedia/o\n62 /nomedia/o/b\n70 /nomedia\n"
                     "35 /nomedia/sub part\n36 /nomedia/part part\n");

    drives.clear();
    write_file(table, SYSTEM);
    EXPECT_TRUE(files_mounts_read(table.c_str(), {"/"}, &drives));
    EXPECT_EQ(drives.size(), 0U) << "the system is no drive of its own";
    EXPECT_FALSE(files_mounts_read("/nonexistent", {"/nomedia"}, &drives));
}

TEST(files_mounts, what_is_planned_and_not_mounted_is_awaited) {
    const temporary_folder folder;
    const std::string plan = folder.path + "/plan";
    const std::string table = folder.path + "/table";
    write_file(plan, "# what is mounted\n"
                     "UUID=1 / ext4 defaults 0 1\n"
                     "/dev/sda2 none swap sw 0 0\n"
                     "nas:/music /nosrv/music\\040share nfs _netdev 0 0\n"
                     "nas:/films /nosrv/films nfs noauto,_netdev 0 0\n"
                     "nas:/here /nosrv/here/ nfs defaults 0 0\n");
    write_file(table, std::string(SYSTEM) + "30 20 0:44 / /nosrv/here rw - nfs4 nas:/here rw\n");
    struct {
        const char* folder;
        bool awaited;
    } const cases[] = {{"/nosrv/music share", true},
                       {"/nosrv/music share/a/b", true},
                       {"/nosrv", false},
                       {"/nosrv/music share2", false},
                       {"/nosrv/films", false},
                       {"/nosrv/here/a", false},
                       {"/home/ann", false}};
    for (const auto& test : cases) {
        EXPECT_EQ(files_mounts_awaited(plan.c_str(), table.c_str(), test.folder), test.awaited)
            << test.folder;
    }
    EXPECT_FALSE(files_mounts_awaited("/nonexistent", table.c_str(), "/nosrv/music share"));
}
