/* Which mounts of a table are drives. */
#include <gtest/gtest.h>

#include "files_mounts.h"
#include "media_files.h"

namespace {

/* What a table shows for the places, "path id[ whole] ..." in order. */
std::string drives_in(const std::string& text, const std::vector<std::string>& places) {
    const temporary_folder folder;
    write_file(folder.path + "/table", text);
    std::vector<files_mount> drives;
    EXPECT_TRUE(files_mounts_read((folder.path + "/table").c_str(), places, &drives));
    std::string shown;
    for (const files_mount& drive : drives) {
        shown += drive.root + ' ' + std::to_string(drive.id) + (drive.whole ? "" : " part") + '\n';
    }
    return shown;
}

constexpr const char* SYSTEM = "20 1 8:1 / / rw shared:1 - ext4 /dev/root rw\n"
                               "21 20 0:5 / /dev rw - devtmpfs udev rw\n"
                               "22 20 0:25 / /nomedia/run rw - tmpfs tmpfs rw\n";

} // namespace

TEST(files_mounts, drives_are_told_from_everything_else) {
    struct {
        const char* line; /* of the table, behind the system's own */
        const char* drives;
    } const cases[] = {
        {"30 20 8:17 / /nomedia/usb rw - vfat /dev/sdb1 rw", "/nomedia/usb 30\n"},
        {"30 20 8:17 / /nomedia rw - vfat /dev/sdb1 rw", "/nomedia 30\n"},
        {"30 20 8:17 / /nomedia/a/b/c rw shared:7 master:2 - vfat /dev/sdb1 rw",
         "/nomedia/a/b/c 30\n"},
        {"30 20 8:17 / /nomedia/MY\\040STICK\\134 rw - exfat /dev/sdb1 rw",
         "/nomedia/MY STICK\\ 30\n"},
        {"30 20 0:44 / /nomedia/usb rw - fuseblk /dev/sdb1 rw", "/nomedia/usb 30\n"},
        {"30 20 0:44 / /nomedia/usb rw - btrfs /dev/sdb1 rw", "/nomedia/usb 30\n"},
        {"30 20 0:44 /sub /nomedia/usb rw - btrfs /dev/sdb1 rw,subvol=/sub",
         "/nomedia/usb 30 part\n"},
        {"30 20 8:17 /folder /nomedia/usb rw - vfat /dev/sdb1 rw", "/nomedia/usb 30 part\n"},
        {"30 20 8:17 / /nomediaX rw - vfat /dev/sdb1 rw", ""},
        {"30 20 8:17 / /home rw - vfat /dev/sdb1 rw", ""},
        {"30 20 8:1 / /nomedia/system rw - ext4 /dev/root rw", ""},
        {"30 20 8:1 /srv/music /nomedia/music rw - ext4 /dev/root rw", ""},
        {"30 20 0:44 / /nomedia/ann rw - tmpfs /dev/sdb1 rw", ""},
        {"30 20 0:44 / /nomedia/nas rw - nfs4 nas:/music rw", ""},
        {"30 20 0:44 / /nomedia/phone rw - fuse.mtp /dev/fuse rw", ""},
        {"30 20 0:44 / /nomedia/auto rw - autofs systemd-1 rw", ""},
        {"30 20 8:17 / /home rw - ext4 /dev/sdb1 rw\n"
         "31 20 8:17 /ann /nomedia/ann rw - ext4 /dev/sdb1 rw",
         ""},
        {"30 20 8:17 /x /nomedia/part rw - ext4 /dev/sdb1 rw\n"
         "31 20 8:33 /y /nomedia/alone rw - ext4 /dev/sdc1 rw\n"
         "32 20 8:17 / /nomedia/all rw - ext4 /dev/sdb1 rw",
         "/nomedia/all 32\n/nomedia/alone 31 part\n"},
        {"30 20 8:17 / /nomedia/a rw - vfat /dev/sdb1 rw\n"
         "31 30 8:33 / /nomedia/a rw - vfat /dev/sdc1 rw\n"
         "32 31 8:17 / /nomedia/a/b rw - vfat /dev/sdb1 rw",
         "/nomedia/a 30\n/nomedia/a 31\n/nomedia/a/b 32\n"},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(drives_in(std::string(SYSTEM) + test.line + '\n', {"/nowhere", "/nomedia"}),
                  test.drives)
            << test.line;
    }
    EXPECT_EQ(drives_in(SYSTEM, {"/"}), "") << "the system is no drive of its own";
    EXPECT_EQ(drives_in("", {"/nomedia"}), "");
    std::vector<files_mount> none;
    EXPECT_FALSE(files_mounts_read("/nonexistent", {"/nomedia"}, &none));
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
