/* Handing a descriptor to another process beside a packet. C++ only. */
#ifndef VELORAN_HANDOVER_H
#define VELORAN_HANDOVER_H

#include <cstring>

#include <sys/socket.h>

/* Room for one descriptor; lives as long as the packet is being sent. */
struct vel_handover {
    alignas(cmsghdr) unsigned char bytes[CMSG_SPACE(sizeof(int))] = {};
};

/* Makes `packet` carry a copy of the descriptor, which stays the caller's. Nothing when it is
 * negative. */
inline void vel_handover_attach(msghdr* packet, vel_handover* room, int descriptor) noexcept {
    if (descriptor < 0) {
        return;
    }
    packet->msg_control = room->bytes;
    packet->msg_controllen = sizeof room->bytes;
    cmsghdr* part = CMSG_FIRSTHDR(packet);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(part), &descriptor, sizeof descriptor);
}

#endif
