/* The client library against a server that breaks the protocol: the input is what it sends, packet
 * by packet, before it shuts its side down. Whatever comes, calls return, write into their buffers
 * alone, and tell lengths that are true.
 *
 * An input: a byte that chooses the calls, then packets: a byte with the form (bit 0: with a frame
 * made from the next three bytes), a length byte (0xF0 and more: times 256), the bytes. */
#include <mutex>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <lyrane/client.h>
#include <veloran/message.h>
#include <veloran/paths.h>

#include "input.h"
#include "msg_header.h"

namespace {

constexpr const char* SERVICE = "hostile.sys";
constexpr int CALLS = 6;
constexpr char UNTOUCHED = '\xA5'; /* what stands in a buffer before; the server never sends it */

std::mutex lock;
std::vector<std::string> script; /* guarded by lock; what the server sends next */

/* --- The server --------------------------------------------------------------------------------
 */

void serve(int listener) {
    for (;;) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        require(fd >= 0, "a connection");
        {
            std::lock_guard<std::mutex> guard(lock);
            for (const std::string& packet : script) {
                (void)send(fd, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            }
        }
        (void)shutdown(fd, SHUT_WR);
        char ignored[4096];
        while (recv(fd, ignored, sizeof ignored, 0) > 0) {
        }
        close(fd);
    }
}

void start_server(void) {
    const std::string path = fuzz_root() + "/run/sys/csm/" + SERVICE + "/default";
    require(paths_make_parents(path.c_str()) == 0, "the folder of the service");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    require(path.size() < sizeof address.sun_path, "a path that is short enough");
    path.copy(address.sun_path, path.size());
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    require(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                listen(listener, 8) == 0,
            "a listening socket");
    std::thread(serve, listener).detach();
}

/* --- What it sends -----------------------------------------------------------------------------
 */

/* The frame of a reply to packet `sequence`, more or less, with a transport header behind it. */
std::string made_packet(fuzz_input* input, const std::string& body, uint32_t* sequence) {
    /* All even, like the lengths: so no byte of a header is UNTOUCHED either. */
    static constexpr int32_t lies[] = {0, 0, 0, 2, -2, INT32_MAX - 1, INT32_MIN, -28};
    const unsigned form = input_u8(input);
    const int32_t status = input_u8(input);
    const unsigned lie = input_u8(input);
    message_frame frame = {*sequence, status, form & 3, 0};
    msg_header header = {};
    header.size = static_cast<int32_t>(body.size() + static_cast<uint32_t>(lies[lie & 7]));
    const bool with_header = (form & 4) == 0;
    const size_t length = body.size() + (with_header ? sizeof header : 0);
    frame.length = static_cast<uint32_t>(length) + static_cast<uint32_t>(lies[lie >> 3 & 7]);
    frame.sequence += (form & 8) != 0 ? (form >> 4) - 8U : 0;
    *sequence += (frame.flags & MESSAGE_FRAME_MORE) == 0 ? 1 : 0;
    std::string packet(reinterpret_cast<const char*>(&frame), sizeof frame);
    if (with_header) {
        packet.append(reinterpret_cast<const char*>(&header), sizeof header);
    }
    return packet + body;
}

std::string read_body(fuzz_input* input) {
    const size_t length = input_u8(input);
    std::string body = input_bytes(input, length >= 0xF0 ? (length & 15) << 8 : length);
    body.resize(body.size() & ~size_t{1});
    std::replace(body.begin(), body.end(), UNTOUCHED, 'x');
    return body;
}

std::vector<std::string> read_script(fuzz_input* input) {
    std::vector<std::string> packets;
    uint32_t sequence = 1;
    while (input->left > 0 && packets.size() < 40) {
        const bool made = (input_u8(input) & 1) == 0;
        const std::string body = read_body(input);
        packets.push_back(made ? made_packet(input, body, &sequence) : body);
    }
    return packets;
}

/* --- The client --------------------------------------------------------------------------------
 */

/* A request with a reply into two pieces of exactly these sizes. */
void call(msgclient_t* client, bool get, size_t first, size_t second) {
    std::vector<char> one(first, UNTOUCHED);
    std::vector<char> other(second, UNTOUCHED);
    const iovec reply[] = {{one.data(), one.size()}, {other.data(), other.size()}};
    const iovec request = {const_cast<char*>("request"), 7};
    int32_t length = -1;
    const int32_t result = get ? msgclient_getv(client, 1, reply, 2, &length, 0)
                               : msgclient_putgetv(client, &request, 1, reply, 2, &length, 0);
    require(length >= 0, "a length");
    if (result == 0) {
        std::vector<char> whole = one;
        whole.insert(whole.end(), other.begin(), other.end());
        require(static_cast<size_t>(length) <= whole.size() &&
                    std::count(whole.begin(), whole.begin() + length, UNTOUCHED) == 0,
                "a length of what was stored");
    }
}

void use(msgclient_t* client, unsigned choice) {
    for (int i = 0; i < CALLS; ++i, choice = choice * 5 + 1) {
        const size_t capacity = choice / 8 % 32 * 8;
        switch (choice % 8) {
        case 0:
            (void)msgclient_put(client, 7, "x", 1, 0);
            break;
        case 1:
            (void)msgclient_notify_pulse(client, 2);
            break;
        case 2:
        case 3:
            call(client, true, capacity, 64);
            break;
        default:
            call(client, false, capacity, 4096);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    (void)fuzz_root();
    start_server();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input = {data, size};
    const unsigned choice = input_u8(&input);
    {
        std::lock_guard<std::mutex> guard(lock);
        script = read_script(&input);
    }
    msgclient_t* client = msgclient_open(SERVICE, nullptr, 0);
    if (client != nullptr) {
        use(client, choice);
        require(msgclient_close(client) == 0, "a client can be closed");
    }
    std::lock_guard<std::mutex> guard(lock);
    script.clear();
    return 0;
}
