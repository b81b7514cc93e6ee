/* Message passing: a server receives on a channel, its clients send and wait for the reply.
 *
 * A channel is an epoll set over listening sockets and the sockets of its clients. A client's
 * connection is one AF_UNIX SOCK_SEQPACKET socket, so a message arrives whole or not at all.
 *
 * What travels on the socket, all integers in native byte order:
 *
 *   client to server: one packet a message. Its bytes are the message, without anything in front
 *   or behind. A packet may carry one descriptor (SCM_RIGHTS): the client's event channel.
 *
 *   server to client: one reply for each packet received, in the order of the packets. A reply is
 *   one or more packets, each a message_frame (16 bytes) followed by a piece of the reply's data.
 *   All but the last have MESSAGE_FRAME_MORE; a packet has at most MESSAGE_PACKET_SIZE bytes with
 *   its frame. `sequence` is the number of the packet that is answered, counted by both sides from
 *   1 for each connection (it wraps), so that no reply is ever taken for another's. An error reply
 *   has MESSAGE_FRAME_ERROR, the error number in the place of the status, and no data. A server
 *   that has no room for a newcomer sends one error reply with sequence 1 and closes.
 *
 *   server to event channel: packets of MESSAGE_EVENT_SIZE bytes, the event as registered with its
 *   third 32-bit word replaced.
 *
 * A connection's messages are handled one at a time: from the receive of one to its message_done
 * nothing else of that connection is received, its end included. While a reply waits for a client
 * that does not read, nothing is read from that client either.
 *
 * A message of no bytes is a message like any other, except behind the client's end of sending:
 * empty packets that have no other message behind them are then part of the end.
 *
 * C++ only, C linkage. Functions return 0 or a documented value, or -1 with errno set, unless they
 * say otherwise. No function raises SIGPIPE or returns because of a signal; descriptors are
 * close-on-exec. [any thread] unless stated. */
#ifndef VELORAN_MESSAGE_H
#define VELORAN_MESSAGE_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include <sys/types.h>
#include <sys/uio.h>

struct message_channel;

/* --- The wire ----------------------------------------------------------------------------------
 */

constexpr uint32_t MESSAGE_FRAME_ERROR = 0x1; /* `status` is an error number, there is no data */
constexpr uint32_t MESSAGE_FRAME_MORE = 0x2;  /* the reply goes on in the next packet */

/* In front of every packet from the server to a client. */
struct message_frame {
    uint32_t sequence; /* number of the packet that is answered, from 1 */
    int32_t status;    /* the reply's status, or the error number */
    uint32_t flags;    /* MESSAGE_FRAME_* */
    uint32_t length;   /* bytes of data in the whole reply, the same in each of its packets */
};
static_assert(sizeof(message_frame) == 16);
static_assert(std::is_trivially_copyable_v<message_frame>);

constexpr size_t MESSAGE_PACKET_SIZE = 65536; /* most bytes of one packet to a client */
constexpr size_t MESSAGE_EVENT_SIZE = 16;     /* bytes of an event */

/* An event as it is registered and delivered. Servers treat it as opaque but for `value`. */
struct message_event {
    int32_t kind; /* MESSAGE_EVENT_PULSE */
    int32_t coid; /* the client's descriptor of the event channel's sending end */
    uint32_t value;
    int16_t code;
    int16_t priority;
};
static_assert(sizeof(message_event) == MESSAGE_EVENT_SIZE);
constexpr int32_t MESSAGE_EVENT_PULSE = 4;

/* --- Bounds ------------------------------------------------------------------------------------
 *
 * A channel has at most MESSAGE_CONNECTIONS_MAX connections, fewer when the process may not open
 * that many descriptors (two a connection, and a reserve for the rest of the process). One client
 * process has at most a quarter of them, one user other than root at most three quarters. So it is
 * with the bytes of replies that are not read. */

constexpr int32_t MESSAGE_CONNECTIONS_MAX = 2048;
constexpr int32_t MESSAGE_NAMES_MAX = 16; /* names of one channel */
/* Unsent replies of all connections together, bytes, unless message_set_output_max says otherwise:
 * above it a reply of more than MESSAGE_OUTPUT_SMALL bytes is answered ENOMEM instead, and a client
 * that leaves a smaller one unread is put out. The reply that goes past the bound is kept whole. */
constexpr size_t MESSAGE_OUTPUT_MAX = size_t{32} << 20;
constexpr size_t MESSAGE_OUTPUT_SMALL = size_t{64} << 10;

/* --- Channels ----------------------------------------------------------------------------------
 */

/* Codes of pulses. */
constexpr int32_t MESSAGE_PULSE_WAKE = -32;       /* somebody called message_wake */
constexpr int32_t MESSAGE_PULSE_DISCONNECT = -33; /* the connection `scoid` has ended */

/* Describes what was received. */
struct message_info {
    int32_t scoid;  /* id of the client's connection, above 0; of a disconnect pulse, the one that
                       ended. Not used again while the channel lives. */
    int32_t msglen; /* bytes of the whole message, also of what did not fit */
    int32_t pulse;  /* MESSAGE_PULSE_*; 0 for a message */
    pid_t pid;      /* the client, as the kernel vouches for it, at the time it connected */
    uid_t uid;
    gid_t gid;
    /* A word of the receiver's own for this connection, null at first. Valid from the receive to
     * message_done or message_detach, and never used by two receivers at once. */
    void** user;
};

extern "C" {

/* Makes a channel. Raises the process's soft descriptor limit as far as the bounds above ask for
 * (never above the hard limit). Null with errno set. */
message_channel* message_channel_create(void) noexcept;

/* Closes every connection and name and frees the channel; null is allowed. No thread may be using
 * it. */
void message_channel_destroy(message_channel* channel) noexcept;

/* The epoll descriptor, as a number to know the channel by. */
int32_t message_channel_id(const message_channel* channel) noexcept;

/* Sets the bound of unsent replies, bytes. [any thread] */
void message_set_output_max(message_channel* channel, size_t bytes) noexcept;

/* Connections at present. */
int32_t message_channel_connections(message_channel* channel) noexcept;

/* Waits for a message or a pulse; without either the thread sleeps and nothing wakes it. A message
 * is stored into `vector`, as much of it as fits.
 *
 * Returns the receive id (above 0) of a message, to be answered once and then given up with
 * message_done; 0 for a pulse (a disconnect pulse is given up with message_detach); -1 with errno
 * set when the channel is not usable. Clients are taken in turn, one message each. */
int64_t message_receive(message_channel* channel, const iovec* vector, int32_t count,
                        message_info* info) noexcept;

/* Ends the handling of a message: the connection's next one may be received. An unanswered one is
 * answered with EIO. Unknown ids are ignored. */
void message_done(message_channel* channel, int64_t rcvid) noexcept;

/* After a disconnect pulse: frees the connection. Unknown ids are ignored. */
void message_detach(message_channel* channel, int32_t scoid) noexcept;

/* Makes one message_receive return a wake pulse, now or as soon as it is called. A wake is never
 * lost and never sleeps; wakes that nobody has received yet count. */
int32_t message_wake(message_channel* channel) noexcept;

/* Answers a message with a status and data gathered from a vector (at most INT32_MAX + 28 bytes).
 * Never blocks: what the client does not take at once is copied and sent as it reads. -1: ESRCH
 * (the client has gone, or the message was answered before), EMSGSIZE (too long, nothing was sent),
 * EPIPE (the client has gone while it was sent), ENOBUFS (too much is unread: the client has been
 * answered ENOMEM), ENOMEM (no room for what the client does not take; its connection is ended). */
int32_t message_reply(message_channel* channel, int64_t rcvid, int32_t status, const iovec* vector,
                      int32_t count) noexcept;

/* Answers a message with an error number above 0. Results as message_reply. */
int32_t message_error(message_channel* channel, int64_t rcvid, int32_t error) noexcept;

/* Makes the descriptor that came with a message the event channel of its connection, in the place
 * of an earlier one; without a descriptor there is none any more. Only a SOCK_SEQPACKET socket is
 * taken whose other end the client's own user made (a pair of sockets); -1 with errno EINVAL for
 * anything else, EBADF for an unknown id. Descriptors that come with other messages are closed. */
int32_t message_take_event_channel(message_channel* channel, int64_t rcvid) noexcept;

/* Sends MESSAGE_EVENT_SIZE bytes to the event channel of the client of a receive id, which may have
 * been answered and given up. Never blocks. -1: ESRCH (gone), ENXIO (no event channel), EAGAIN (the
 * client does not read its events; this one is lost), or what sending failed with. */
int32_t message_deliver_event(message_channel* channel, int64_t rcvid, const void* event) noexcept;

/* The connection that a receive id belongs to. */
int32_t message_rcvid_scoid(int64_t rcvid) noexcept;

/* May the client of a connection read and write something with this owner, group and mode? Root
 * may; else the bits of owner, group (supplementary ones included) or others decide. 0, or the
 * error number: EACCES, ESRCH (gone). */
int32_t message_check_access(message_channel* channel, int32_t scoid, uid_t uid, gid_t gid,
                             mode_t mode) noexcept;

/* --- Names -------------------------------------------------------------------------------------
 *
 * A name is a platform path ("/sys/csm/..."), under which the channel's listening socket stands.
 * Who holds the lock file beside it serves the name, and nobody else; a socket that a dead server
 * left behind is replaced. */

/* Takes the lock of a name; makes the folders above it. Returns a descriptor that holds it until it
 * is closed. -1: EEXIST (another server has it), or another error. */
int32_t message_name_claim(const char* path) noexcept;

/* Lets clients connect to the channel by a name. `lock` is the claim's descriptor and belongs to
 * the channel from now on, also after a failure. The socket file has exactly this mode, owner and
 * group ((uid_t)-1, (gid_t)-1: the process's) before anybody can connect. Returns an index. */
int32_t message_name_attach(message_channel* channel, const char* path, int32_t lock, mode_t mode,
                            uid_t uid, gid_t gid) noexcept;

/* Takes all names off: nobody can connect any more, the files are removed, the locks released. */
void message_name_detach_all(message_channel* channel) noexcept;

/* --- Clients -----------------------------------------------------------------------------------
 */

/* A client's end of a connection. Not safe for several threads at once: its owner takes turns. Not
 * to be used on both sides of a fork. */
struct message_client {
    int32_t fd = -1;
    uint32_t sequence = 0; /* packets sent */
    bool broken = false;   /* the server broke the protocol: every further call fails */
};

/* Connects to a name. Waits while the server's backlog is full. -1: ENOENT, ECONNREFUSED (nobody
 * serves it), EACCES, ENAMETOOLONG ... */
int32_t message_connect(message_client* client, const char* path) noexcept;

/* Closes; a client that is not connected is allowed. */
void message_disconnect(message_client* client) noexcept;

/* What a call brought back. */
struct message_result {
    int32_t status = 0;  /* of the reply */
    size_t received = 0; /* bytes of data stored */
};

/* Sends one message gathered from `send` and waits for its reply, whose data goes into `receive`.
 * `descriptor`, when not -1, travels with it (the own copy stays open). Returns 0 when there is a
 * reply with a status, else an error number: that of an error reply, or of a failure of our own:
 * EPIPE or ECONNRESET (the server has gone), EPROTO (it broke the protocol, or sent more than fits;
 * nothing is ever stored behind the vector), EMSGSIZE, EBADF. */
int32_t message_call(message_client* client, const iovec* send, int32_t send_count,
                     int32_t descriptor, const iovec* receive, int32_t receive_count,
                     message_result* result) noexcept;

/* Makes an event channel: *receive_end to wait on, *send_end to pass to a server. */
int32_t message_event_channel(int32_t* receive_end, int32_t* send_end) noexcept;

/* Waits for one event. Returns 0; -1 with errno EPIPE when the channel was shut down, or when
 * `server` (a connection's descriptor, -1: none) has ended and no event is left. */
int32_t message_event_wait(int32_t receive_end, int32_t server, message_event* event) noexcept;
}

#endif
