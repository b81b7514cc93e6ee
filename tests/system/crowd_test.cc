/* Many processes of many threads that use the service at once, waiting for replies and fetching
 * them later: each gets the replies to its own requests, and nothing of them stays behind. */
#include <cstdlib>
#include <random>
#include <thread>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "rig.h"

namespace {

constexpr int PROCESSES = 8;
constexpr int THREADS = 8;    /* of each */
constexpr int REQUESTS = 100; /* of each, in a round; LYRANE_ROUNDS asks for more rounds */
constexpr int IN_FLIGHT = 5;
constexpr uint32_t TRACKS = 1000;

int rounds() {
    const char* wanted = std::getenv("LYRANE_ROUNDS");
    return wanted != nullptr ? std::atoi(wanted) : 1;
}

std::string title_of(uint32_t track) {
    return "Track " + std::to_string(track + 1);
}

std::string id_of(uint32_t track) {
    return "/a/t" + std::to_string(track);
}

std::string metadata_request(uint32_t track) {
    std::string payload = request_begin(LYR_MSG_GET_METADATA);
    request_i32(payload, 0);
    request_text(payload, id_of(track));
    return payload;
}

/* The title in a reply that was fetched; the capacity is now too small and now large enough. */
std::string fetch_title(msgclient_t* client, uint32_t tag, int32_t capacity) {
    std::string reply(4096, '\0');
    int32_t length = 0;
    int32_t status = msgclient_get(client, tag, reply.data(), capacity, &length, 0);
    if (status == LYR_STATUS_QUEUED && length <= static_cast<int32_t>(reply.size())) {
        status = msgclient_get(client, tag, reply.data(), length, &length, 0);
    }
    lyr_ms_node_metadata* record = nullptr;
    if (status != 0 || length < 4 ||
        unpack_metadata(reply.data() + 4, length - 4, 1, &record) != 0) {
        return "status " + std::to_string(status);
    }
    const std::string title = record->title != nullptr ? record->title : "";
    free_lyr_ms_node_metadata(&record);
    return title;
}

/* Several requests in flight, fetched in the order of their pulses. */
int ask_later(request_client& client, std::mt19937& random) {
    uint32_t tracks[IN_FLIGHT];
    for (uint32_t i = 0; i < IN_FLIGHT; ++i) {
        tracks[i] = random() % TRACKS;
        const std::string payload = metadata_request(tracks[i]);
        if (msgclient_put(client.library, i + 1, payload.data(),
                          static_cast<int32_t>(payload.size()), 0) != 0) {
            return 1;
        }
    }
    int wrong = 0;
    for (int i = 0; i < IN_FLIGHT; ++i) {
        const uint32_t tag = msgclient_wait_pulse(client.library);
        if (tag < 1 || tag > IN_FLIGHT) {
            return 1;
        }
        const int32_t capacity = random() % 2 == 0 ? 8 : 4096;
        wrong += fetch_title(client.library, tag, capacity) == title_of(tracks[tag - 1]) ? 0 : 1;
    }
    return wrong;
}

/* One thread's requests on a connection of its own; the number of replies that were wrong. */
int run_thread(const std::string& service, const std::string& player, unsigned seed, int requests) {
    request_client client;
    if (!request_connect(client, service) || request_open(client, player) != 0 ||
        msgclient_notify_pulse(client.library, IN_FLIGHT) != 0) {
        return 1;
    }
    std::mt19937 random(seed);
    int wrong = 0;
    for (int done = 0; done < requests;) {
        if (random() % 2 == 0) {
            wrong += ask_later(client, random);
            done += IN_FLIGHT;
            continue;
        }
        const uint32_t track = random() % TRACKS;
        request_metadata data;
        wrong +=
            request_metadata_of(client, 0, id_of(track), data) == 0 && data.title == title_of(track)
                ? 0
                : 1;
        ++done;
    }
    wrong += request_close(client, player) == 0 ? 0 : 1;
    request_disconnect(client);
    return wrong;
}

/* Body of a process: its exit status is 0 when every reply was right. */
int run_process(const std::string& service, int number, int requests) {
    int wrong[THREADS] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            wrong[t] = run_thread(service, "crowd" + std::to_string(number),
                                  static_cast<unsigned>(number * THREADS + t), requests);
        });
    }
    int all = 0;
    for (int t = 0; t < THREADS; ++t) {
        threads[static_cast<size_t>(t)].join();
        all += wrong[t];
    }
    return all == 0 ? 0 : 1;
}

void send_crowd(const test_daemon& daemon, int requests) {
    std::vector<pid_t> processes;
    for (int p = 0; p < PROCESSES; ++p) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(run_process(daemon.service, p, requests));
        }
        processes.push_back(child);
    }
    for (const pid_t process : processes) {
        int status = -1;
        EXPECT_EQ(waitpid(process, &status, 0), process);
        EXPECT_EQ(status, 0);
    }
}

} // namespace

TEST(Crowd, EveryReplyIsTheOneAskedFor) {
    rig rig;
    ASSERT_TRUE(rig_start(rig, "/a|tracks:" + std::to_string(TRACKS) + "\n"));
    const int64_t before = daemon_descriptors(rig.daemon);
    send_crowd(rig.daemon, REQUESTS);
    /* What is opened once, at the first use, stays. */
    const int64_t descriptors = daemon_settle(rig.daemon, daemon_descriptors, before + 1);
    const int64_t resident = daemon_resident(rig.daemon);
    send_crowd(rig.daemon, REQUESTS * rounds());
    EXPECT_EQ(daemon_settle(rig.daemon, daemon_descriptors, descriptors), descriptors);
    if (rounds() > 1) {
        EXPECT_LE(daemon_resident(rig.daemon), resident + 1024); /* KiB */
    }
    EXPECT_EQ(fake_do(rig.disk, "violations"), "");
    rig_end(rig);
}
