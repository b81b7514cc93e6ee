/* What a drive is called, and what tells it from all others. */
#include "files_mounts_identity.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>

#include <blkid.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/msdos_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>

#include <veloran/lock.h>

#include "files_source.h"

static constexpr size_t UUID_MOST = 64;

/* The answer of FS_IOC_GETFSUUID, of Linux 6.9; the headers may be older than the kernel. */
struct uuid_answer {
    uint8_t length;
    uint8_t bytes[16];
};
#ifndef FS_IOC_GETFSUUID
#define FS_IOC_GETFSUUID _IOR(0x15, 0, uuid_answer)
#endif

struct drive_facts {
    std::string uuid;
    std::string label;
};

/* --- the device itself ---------------------------------------------------------------------- */

/* The device's number; 0 when there is no such device here. */
static dev_t device_number(const files_mount& mount) {
    if (major(mount.file_system) != 0) {
        return mount.file_system;
    }
    struct stat facts = {};
    const bool found = stat(mount.device.c_str(), &facts) == 0 && S_ISBLK(facts.st_mode);
    return found ? facts.st_rdev : 0;
}

/* A path of the device, also where the mount table has a name that is none. */
static std::string device_path(const files_mount& mount, dev_t number) {
    struct stat facts = {};
    if (stat(mount.device.c_str(), &facts) == 0 && S_ISBLK(facts.st_mode) &&
        facts.st_rdev == number) {
        return mount.device;
    }
    return "/dev/block/" + std::to_string(major(number)) + ':' + std::to_string(minor(number));
}

struct drop_probe {
    void operator()(blkid_struct_probe* probe) const noexcept { blkid_free_probe(probe); }
};

static std::string probed(blkid_probe probe, const char* name) {
    const char* value = nullptr;
    return blkid_probe_lookup_value(probe, name, &value, nullptr) == 0 ? value : "";
}

static void ask_device(const std::string& path, drive_facts* facts) {
    const std::unique_ptr<blkid_struct_probe, drop_probe> probe(
        blkid_new_probe_from_filename(path.c_str()));
    if (probe == nullptr) {
        return;
    }
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_UUID | BLKID_SUBLKS_LABEL);
    if (blkid_do_safeprobe(probe.get()) == 0) {
        facts->uuid = probed(probe.get(), "UUID");
        facts->label = probed(probe.get(), "LABEL");
    }
}

/* --- what is written down about it ---------------------------------------------------------- */

/* Takes \xHH back to the byte. */
static std::string decoded(const std::string& text) {
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned value = 0;
        if (text.compare(i, 2, "\\x") == 0 && i + 3 < text.size() &&
            std::sscanf(text.c_str() + i + 2, "%2x", &value) == 1 && value != 0) { // NOLINT
            bytes += static_cast<char>(value);
            i += 3;
        } else {
            bytes += text[i];
        }
    }
    return bytes;
}

/* The device manager notes what it has read as root. */
static void ask_device_manager(dev_t number, drive_facts* facts) {
    std::ifstream file("/run/udev/data/b" + std::to_string(major(number)) + ':' +
                       std::to_string(minor(number)));
    for (std::string line; std::getline(file, line);) {
        if (facts->uuid.empty() && line.rfind("E:ID_FS_UUID=", 0) == 0) {
            facts->uuid = line.substr(line.find('=') + 1);
        } else if (facts->label.empty() && line.rfind("E:ID_FS_LABEL_ENC=", 0) == 0) {
            facts->label = decoded(line.substr(line.find('=') + 1));
        }
    }
}

/* --- the file system ------------------------------------------------------------------------ */

static std::string uuid_text(const uint8_t* bytes) {
    std::string text;
    for (size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text += '-';
        }
        text += "0123456789abcdef"[bytes[i] >> 4];
        text += "0123456789abcdef"[bytes[i] & 0xF];
    }
    return text;
}

/* The serial number of a FAT file system is its UUID. */
static std::string serial_text(uint32_t serial) {
    char text[10];
    std::snprintf(text, sizeof text, "%04X-%04X", serial >> 16, serial & 0xFFFFU);
    return serial != 0 ? text : "";
}

static void ask_file_system(const std::string& root, drive_facts* facts) {
    const vel_fd folder(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.value < 0) {
        return;
    }
    uuid_answer uuid = {};
    uint32_t serial = 0;
    if (facts->uuid.empty() && ioctl(folder.value, FAT_IOCTL_GET_VOLUME_ID, &serial) == 0) {
        facts->uuid = serial_text(serial);
    } else if (facts->uuid.empty() && ioctl(folder.value, FS_IOC_GETFSUUID, &uuid) == 0 &&
               uuid.length == sizeof uuid.bytes) {
        facts->uuid = uuid_text(uuid.bytes);
    }
    char label[FSLABEL_MAX + 1] = {};
    if (facts->label.empty() && ioctl(folder.value, FS_IOC_GETFSLABEL, label) == 0) {
        facts->label = label;
    }
}

/* For a file system without a UUID: its kind and its size, and the number that it has made for
 * itself, unless that is the device's, which changes with the socket. */
static std::string likeness(const files_mount& mount, const std::string& label) {
    std::string text = mount.type + '\n' + label;
    struct statfs facts = {};
    if (statfs(mount.root.c_str(), &facts) != 0) {
        return files_source_hash(text);
    }
    text += '\n' + std::to_string(static_cast<uint64_t>(facts.f_blocks) *
                                  static_cast<uint64_t>(facts.f_bsize));
    int number[2] = {};
    static_assert(sizeof number == sizeof facts.f_fsid);
    std::memcpy(number, &facts.f_fsid, sizeof number);
    const bool devices = number[1] == 0 && static_cast<dev_t>(static_cast<unsigned>(number[0])) ==
                                               device_number(mount);
    if (!devices) {
        text += '\n' + std::to_string(number[0]) + ' ' + std::to_string(number[1]);
    }
    return files_source_hash(text);
}

/* --- all together --------------------------------------------------------------------------- */

static bool is_plain(const std::string& uuid) {
    return !uuid.empty() && uuid.size() <= UUID_MOST &&
           uuid.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                  "-_.") == std::string::npos;
}

static std::string trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\n");
    return first == std::string::npos
               ? ""
               : text.substr(first, text.find_last_not_of(" \t\n") - first + 1);
}

files_identity files_mounts_identify(const files_mount& mount) {
    drive_facts facts;
    const dev_t number = device_number(mount);
    if (number != 0) {
        ask_device(device_path(mount, number), &facts);
        if (!is_plain(facts.uuid)) {
            facts.uuid.clear();
            ask_device_manager(number, &facts);
        }
    }
    if (!is_plain(facts.uuid)) {
        facts.uuid.clear();
        ask_file_system(mount.root, &facts);
    }
    const std::string label = trimmed(facts.label);
    return {"drive-" + (is_plain(facts.uuid) ? facts.uuid : likeness(mount, label)),
            label.empty() ? files_source_last_part(mount.root) : label};
}
