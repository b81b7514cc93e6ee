/* The scripted plug-in against a small host: what later tests build on must hold by itself. */
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <lyrane/plugin.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "fake_client.h"

namespace {

int32_t current_tid() {
    return static_cast<int32_t>(syscall(SYS_gettid));
}

/* What the host's callbacks saw last. */
struct host_record {
    std::atomic<int32_t> connected{0};
    std::atomic<int32_t> positions{0};
    std::atomic<int32_t> tid{0};
    std::atomic<void*> session{nullptr};
    std::atomic<void*> data{nullptr};
    std::atomic<int32_t> value{0};
    std::atomic<int32_t> status{0};
    std::string node; /* of the last track_changed; read after an await */
};
host_record seen;

void see(void* session, void* data, int32_t value) {
    seen.session = session;
    seen.data = data;
    seen.value = value;
    seen.tid = current_tid();
}

extern "C" {
static int32_t host_connected(int32_t, const char* uid, const char*, const char*, int32_t, uint64_t,
                              int32_t) noexcept {
    seen.tid = current_tid();
    return uid == nullptr ? -1 : seen.connected++;
}
static int32_t host_disconnected(int32_t ms_id) noexcept {
    return ms_id < seen.connected ? 0 : -1;
}
static int32_t host_status(int32_t, int32_t status) noexcept {
    return status;
}
static int32_t host_capability(int32_t, uint64_t capabilities) noexcept {
    return capabilities == LYR_CAP_DEVICE_LIST ? 0 : -1;
}
static int32_t host_position(void* session, void* data, int32_t position) noexcept {
    see(session, data, position);
    return seen.positions++ < 0 ? -1 : 0;
}
static int32_t host_finished(void* session, void* data) noexcept {
    see(session, data, 0);
    return 5;
}
static int32_t host_changed(void* session, void* data, const medianode* node) noexcept {
    see(session, data, 0);
    seen.node = node == nullptr ? "none" : node->id;
    return 0;
}
static int32_t host_state(void* session, void* data, const lyr_playback_state* state) noexcept {
    see(session, data, state->repeat_mode);
    seen.status = state->status;
    return 0;
}
static int32_t host_error(void* session, void* data, int32_t error) noexcept {
    see(session, data, error);
    return error;
}
static int32_t host_browse_error(void* session, void* data) noexcept {
    see(session, data, 0);
    return 0;
}
}

const lyrane_internal_callbacks_table host_callbacks = {
    host_connected, host_disconnected, host_status, host_capability, host_position,
    host_finished,  host_changed,      host_state,  host_error,      host_browse_error};

/* A loaded plug-in and the sessions a player would have. */
struct host {
    fake_client fake;
    lyrp_api* api = nullptr;
    void* play = nullptr;
    void* browse = nullptr;
    int data = 0; /* its address is the callback data */
};

void host_init(host& plugin, const std::string& library, const strm_dict* settings) {
    seen.connected = 0;
    seen.positions = 0;
    ASSERT_TRUE(fake_open(plugin.fake, library));
    plugin.api = static_cast<lyrp_api*>(dlsym(plugin.fake.library, "lyrp"));
    uint32_t types = 0;
    ASSERT_EQ(plugin.api->init(3, settings, &host_callbacks, &types), 0);
    ASSERT_EQ(types, static_cast<uint32_t>(LYR_MS_TYPE_HDD));
    plugin.play = plugin.api->play_api->create(0, &plugin.data);
    plugin.browse = plugin.api->browse_api->create(0, &plugin.data);
}

void host_deinit(host& plugin) {
    plugin.api->play_api->destroy(plugin.play);
    plugin.api->browse_api->destroy(plugin.browse);
    EXPECT_EQ(fake_do(plugin.fake, "violations"), "");
    EXPECT_EQ(plugin.api->cleanup(), 0);
    fake_close(plugin.fake);
}

void drop_nodes(medianode* nodes, int32_t count) {
    for (int32_t i = 0; i < count && nodes != nullptr; ++i) {
        for (char* text : {nodes[i].id, nodes[i].name, nodes[i].url, nodes[i].ms_uid}) {
            std::free(text);
        }
    }
    std::free(nodes);
}

/* One page as text: "RESULT:COUNT:ID NAME,ID NAME", with "-" for null. */
std::string page(const host& plugin, const char* id, int32_t offset, int32_t limit) {
    medianode* nodes = nullptr;
    int32_t count = limit;
    const int32_t result =
        plugin.api->browse_api->browse(plugin.browse, id, offset, &count, &nodes);
    std::string text = std::to_string(result) + ':' + std::to_string(count) + ':';
    for (int32_t i = 0; i < count && nodes != nullptr; ++i) {
        text += i == 0 ? "" : ",";
        text += nodes[i].id == nullptr ? "-" : nodes[i].id;
        text += std::string(" ") + (nodes[i].name == nullptr ? "-" : nodes[i].name);
    }
    drop_nodes(nodes, count);
    return text;
}

medianode node_of(const char* id) {
    medianode node = {};
    node.id = const_cast<char*>(id);
    return node;
}

size_t threads_alive() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator("/proc/self/task")) {
        count += 1;
    }
    return count;
}

} // namespace

TEST(Fake, BrowsesTheTreeItWasGiven) {
    host plugin;
    host_init(plugin, FAKE_LIBRARY, nullptr);
    fake_tree(plugin.fake, "",
              "/A/1|A|One\n/A/2|V|-|-|\n/A/x|99|\\xff\\x7c\n/big|tracks:1000000\n"
              "/deep|tree:3,2,1|Deep||77\n");
    const struct {
        const char* id;
        int32_t offset;
        int32_t limit;
        const char* expected;
    } cases[] = {
        {"/", 0, -1, "0:3:/A A,/big big,/deep Deep"},
        {"/A", 0, 2, "0:2:/A/1 One,/A/2 -"},
        {"/A", 2, 2, "0:1:/A/x \xff|"},
        {"/A", 3, 5, "0:0:"},
        {"/A", 9, -1, "0:0:"},
        {"/A", 0, 0, "0:0:"},
        {"/A/1", 0, -1, "0:0:"},
        {"/none", 0, -1, "-1:-1:"},
        {"/big", 999998, -1, "0:2:/big/t999998 Track 999999,/big/t999999 Track 1000000"},
        {"/deep", 0, -1, "0:3:/deep/f0 Folder 1,/deep/f1 Folder 2,/deep/t0 Track 1"},
        {"/deep/f1/f0", 1, -1, "0:2:/deep/f1/f0/f1 Folder 2,/deep/f1/f0/t0 Track 1"},
        {"/deep/f1/f0/f1", 0, -1, "0:1:/deep/f1/f0/f1/t0 Track 1"},
        {"/deep/f1/f0/f1/f0", 0, -1, "-1:-1:"},
        {"/deep/f2", 0, -1, "-1:-1:"},
        {"/deep/t0/t0", 0, -1, "-1:-1:"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(page(plugin, each.id, each.offset, each.limit), each.expected) << each.id;
    }
    host_deinit(plugin);
}

TEST(Fake, RulesBendThePages) {
    host plugin;
    host_init(plugin, FAKE_LIBRARY, nullptr);
    fake_tree(plugin.fake, "", "/a|tracks:5\n");
    const struct {
        const char* rule;
        const char* expected[3]; /* of offsets 0, 2, 4, three wanted each */
    } cases[] = {
        {"page=1", {"0:1:/a/t0 Track 1", "0:1:/a/t2 Track 3", "0:1:/a/t4 Track 5"}},
        {"page=2 over=1",
         {"0:3:/a/t0 Track 1,/a/t1 Track 2,/a/t2 Track 3",
          "0:3:/a/t2 Track 3,/a/t3 Track 4,/a/t4 Track 5", "0:1:/a/t4 Track 5"}},
        {"page=1 rewind=1", {"0:1:/a/t0 Track 1", "0:1:/a/t0 Track 1", "0:1:/a/t0 Track 1"}},
        {"page=1 nullid=1", {"0:1:- Track 1", "0:1:- Track 3", "0:1:- Track 5"}},
        {"count=-7", {"0:-7:", "0:-7:", "0:-7:"}},
        {"count=4", {"0:4:", "0:4:", "0:4:"}},
        {"page=1\nrule browse skip=1 times=1 result=-5",
         {"0:1:/a/t0 Track 1", "-5:3:", "0:1:/a/t4 Track 5"}},
        {"prefix=/b result=-1\nrule browse id=/a page=1",
         {"0:1:/a/t0 Track 1", "0:1:/a/t2 Track 3", "0:1:/a/t4 Track 5"}},
    };
    for (const auto& each : cases) {
        const std::string rules = each.rule;
        const size_t second = rules.find('\n');
        fake_do(plugin.fake, "rule browse %s", rules.substr(0, second).c_str());
        if (second != std::string::npos) {
            fake_do(plugin.fake, "%s", rules.substr(second + 1).c_str());
        }
        for (int32_t i = 0; i < 3; ++i) {
            EXPECT_EQ(page(plugin, "/a", 2 * i, 3), each.expected[i]) << each.rule << ' ' << i;
        }
        fake_do(plugin.fake, "unrule browse");
    }
    host_deinit(plugin);
}

TEST(Fake, AnswersQueriesFromItsTree) {
    host plugin;
    host_init(plugin, FAKE_LIBRARY, nullptr);
    fake_tree(plugin.fake, "", "/a|tree:1,2,2\n/b|A|Other Track|-\n");
    fake_do(plugin.fake, "meta /b artist=\"The \\\"Band\\\"\" duration=7");
    fake_do(plugin.fake, "meta /a/t0 none=1");
    fake_do(plugin.fake, "ext /b mood \"very calm\"");
    const lyr_browse_api& api = *plugin.api->browse_api;

    medianode* nodes = nullptr;
    int32_t count = 3;
    ASSERT_EQ(api.search(plugin.browse, nullptr, "Track", 4, &count, &nodes), 0);
    ASSERT_EQ(count, 3);
    EXPECT_STREQ(nodes[0].id, "/a/t0");
    EXPECT_STREQ(nodes[2].id, "/b");
    drop_nodes(nodes, count);

    metadata* data = nullptr;
    ASSERT_EQ(api.get_metadata(plugin.browse, "/b", &data), 0);
    EXPECT_STREQ(data->title, "Other Track");
    EXPECT_STREQ(data->artist, "The \"Band\"");
    EXPECT_EQ(data->duration, 7);
    std::free(data->title);
    std::free(data->artist);
    std::free(data);
    for (const char* without : {"/a", "/a/t0", "/nowhere"}) {
        data = nullptr;
        EXPECT_EQ(api.get_metadata(plugin.browse, without, &data), 0);
        EXPECT_EQ(data, nullptr) << without;
    }

    const char* keys[] = {"tempo", "mood", nullptr};
    char* values[3] = {};
    fake_do(plugin.fake, "rule extended result=-4");
    EXPECT_EQ(api.get_extended_metadata(plugin.browse, "/b", keys, values), -4);
    EXPECT_EQ(values[0], nullptr);
    EXPECT_STREQ(values[1], "very calm");
    std::free(values[1]);

    medianode* saved = static_cast<medianode*>(std::calloc(2, sizeof *saved));
    saved[0].id = strdup("/b");
    saved[0].url = strdup("old");
    saved[1].id = strdup("/lost");
    EXPECT_EQ(api.update_medianodes(plugin.browse, 2, saved), 0);
    EXPECT_STREQ(saved[0].name, "Other Track");
    EXPECT_EQ(saved[0].url, nullptr);
    EXPECT_STREQ(saved[1].id, "/lost");
    drop_nodes(saved, 2);
    host_deinit(plugin);
}

TEST(Fake, HoldsCallsUpUntilReleasedOrCancelled) {
    host plugin;
    host_init(plugin, FAKE_LIBRARY, nullptr);
    fake_tree(plugin.fake, "", "/a|A\n");
    const struct {
        const char* rule;
        const char* action; /* what makes the call return */
        const char* expected;
    } cases[] = {
        {"block=g1", "release", "0:1:/a a"},     {"block=g1", "cancel", "-1:-1:"},
        {"block=g1 deaf=1", "both", "0:1:/a a"}, {"delay=600000", "cancel", "-1:-1:"},
        {"block=g1", "reset", "0:1:/a a"},
    };
    for (const auto& each : cases) {
        fake_do(plugin.fake, "clear");
        fake_do(plugin.fake, "rule browse %s", each.rule);
        std::string result;
        std::thread caller([&] { result = page(plugin, "/", 0, -1); });
        fake_do(plugin.fake, "await browse 1 id=/");
        if (strstr(each.rule, "block") != nullptr) {
            fake_do(plugin.fake, "blocked g1");
        }
        EXPECT_EQ(fake_number(plugin.fake, "count browse returned=1"), 0);
        if (strcmp(each.action, "cancel") == 0 || strcmp(each.action, "both") == 0) {
            EXPECT_EQ(plugin.api->browse_api->cancel_browse(plugin.browse), 0);
        }
        if (strcmp(each.action, "cancel") != 0) {
            fake_do(plugin.fake, strcmp(each.action, "reset") == 0 ? "reset" : "release g1");
        }
        caller.join();
        EXPECT_EQ(result, each.expected) << each.rule << ' ' << each.action;
        fake_do(plugin.fake, "unrule");
    }
    std::string answer;
    EXPECT_EQ(fake_execute(plugin.fake, "await stop 1 timeout=1", answer), -1);
    host_deinit(plugin);
}

TEST(Fake, MakesEventsOnItsOwnThreadsOrInsideACall) {
    host plugin;
    host_init(plugin, FAKE_LIBRARY, nullptr);
    EXPECT_EQ(fake_number(plugin.fake, "event finished"), 5);
    EXPECT_EQ(seen.session, plugin.play);
    EXPECT_EQ(seen.data, &plugin.data);
    EXPECT_NE(seen.tid, current_tid());

    /* A session that has ended keeps its handle for stale events; a new one gets another. */
    void* stale = plugin.play;
    plugin.api->play_api->destroy(stale);
    plugin.play = plugin.api->play_api->create(0, &plugin.data);
    EXPECT_NE(plugin.play, stale);
    const std::string serial = fake_word(fake_log(plugin.fake, "play.create")[0], "session");
    EXPECT_EQ(fake_number(plugin.fake, "event error value=9 session=%s", serial.c_str()), 9);
    EXPECT_EQ(seen.session, stale);
    EXPECT_EQ(seen.data, &plugin.data);
    fake_do(plugin.fake, "event state repeat=2 status=3 session=null data=0x40");
    EXPECT_EQ(seen.session, nullptr);
    EXPECT_EQ(seen.data, reinterpret_cast<void*>(0x40));
    EXPECT_EQ(seen.value, 2);
    EXPECT_EQ(seen.status, 3);
    fake_do(plugin.fake, "event browse_error");
    EXPECT_EQ(seen.session, plugin.browse);

    fake_do(plugin.fake, "rule stop inside=\"position value=8\" after=\"position value=9\"");
    EXPECT_EQ(plugin.api->play_api->stop(plugin.play), 0);
    fake_do(plugin.fake, "await event.position 2");
    const std::vector<fake_record> positions = fake_log(plugin.fake, "event.position");
    EXPECT_EQ(fake_word(positions[0], "tid"), std::to_string(current_tid()));
    EXPECT_EQ(fake_word(positions[1], "thread"), "fake-0");

    std::string tickets[4];
    for (int i = 0; i < 4; ++i) {
        tickets[i] = fake_do(plugin.fake, "event position thread=%d repeat=500 nowait=1", i);
    }
    for (const std::string& ticket : tickets) {
        EXPECT_EQ(fake_number(plugin.fake, "join %s", ticket.c_str()), 0);
    }
    EXPECT_EQ(seen.positions, 2002);
    host_deinit(plugin);
}

TEST(Fake, AnnouncesSources) {
    host plugin;
    host_init(plugin, FAKE_LIBRARY, nullptr);
    fake_do(plugin.fake, "source one\nsource ignored as a body");
    fake_do(plugin.fake, "source two auto=0 noname=1 view=\"a b\" type=0x2");
    for (const bool inside : {false, true}) {
        fake_do(plugin.fake, "report %s", inside ? "inside" : "thread");
        EXPECT_EQ(plugin.api->set_mediasource_detection(1), 0);
        EXPECT_EQ(seen.tid == current_tid(), inside);
    }
    EXPECT_EQ(seen.connected, 2);
    EXPECT_EQ(fake_number(plugin.fake, "id two"), -1);
    EXPECT_EQ(fake_number(plugin.fake, "event connected uid=two"), 2);
    EXPECT_EQ(fake_number(plugin.fake, "id two"), 2);
    EXPECT_EQ(fake_number(plugin.fake, "event connected uid=two nouid=1"), -1);
    EXPECT_EQ(fake_number(plugin.fake, "event status uid=two value=4"), 4);
    EXPECT_EQ(fake_number(plugin.fake, "event caps uid=two value=0x10000000"), 0);
    EXPECT_EQ(fake_number(plugin.fake, "event disconnected id=77"), -1);
    /* Records carry the source that they belong to, and its own tree. */
    fake_tree(plugin.fake, "two", "/own|A\n");
    void* browse = plugin.api->browse_api->create(2, &plugin.data);
    std::swap(browse, plugin.browse);
    EXPECT_EQ(page(plugin, "/", 0, -1), "0:1:/own own");
    std::swap(browse, plugin.browse);
    plugin.api->browse_api->destroy(browse);
    host_deinit(plugin);
}

TEST(Fake, WalksAsADevice) {
    host plugin;
    host_init(plugin, FAKE_LIBRARY, nullptr);
    fake_tree(plugin.fake, "", "/a/x|F\n/a/1|A\n/a/2|A\n");
    fake_do(plugin.fake, "device on");
    const lyr_play_api& api = *plugin.api->play_api;
    const medianode first = node_of("/a/1");
    EXPECT_EQ(api.attach_medianode(plugin.play, &first), 0);
    EXPECT_EQ(api.play(plugin.play), 0);
    fake_do(plugin.fake, "await event.state 1");
    EXPECT_EQ(seen.status, LYR_STATUS_PLAYING);
    const char* expected[] = {"/a/2", "/a/1", "/a/2"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(i == 2 ? api.previous(plugin.play) : api.next(plugin.play), 0);
        fake_do(plugin.fake, "await event.changed %d", i + 1);
        EXPECT_EQ(seen.node, expected[i]);
    }
    EXPECT_EQ(api.repeat(plugin.play, 2), 0);
    fake_do(plugin.fake, "await event.state 5");
    EXPECT_EQ(seen.value, 2);
    host_deinit(plugin);
}

TEST(Fake, NotesWhatTheServiceDoesWrong) {
    host plugin;
    host_init(plugin, FAKE_LIBRARY, nullptr);
    const lyr_play_api& api = *plugin.api->play_api;
    fake_do(plugin.fake, "rule play.create null=1 times=2 ms=4");
    EXPECT_EQ(api.create(4, nullptr), nullptr);
    EXPECT_NE(api.create(5, nullptr), nullptr);
    EXPECT_EQ(api.create(4, nullptr), nullptr);
    api.pause(plugin.browse);
    api.pause(nullptr);
    api.attach_medianode(plugin.play, nullptr);
    void* gone = api.create(4, nullptr);
    api.destroy(gone);
    api.destroy(gone);
    page(plugin, "/", -1, -2);
    const std::string notes = fake_do(plugin.fake, "violations");
    for (const char* note :
         {"pause: session of the other kind", "pause: unknown session", "attach: no node",
          "play.destroy: destroyed session", "browse: offset or count out of range"}) {
        EXPECT_NE(notes.find(note), std::string::npos) << note << " in\n" << notes;
    }
    fake_do(plugin.fake, "reset");
    EXPECT_EQ(plugin.api->cleanup(), 0);
    EXPECT_NE(fake_do(plugin.fake, "violations").find("is alive"), std::string::npos);
    fake_close(plugin.fake);
}

TEST(Fake, RefusesCommandsItDoesNotKnow) {
    host plugin;
    host_init(plugin, FAKE_LIBRARY, nullptr);
    for (const char* command :
         {"", "nonsense", "rule nothing result=1", "rule play results=1", "event nothing",
          "event position values=1", "await nothing 1", "null nothing", "join 99",
          "tree\nno slash|A", "rule play block=\"open"}) {
        std::string answer;
        EXPECT_EQ(fake_execute(plugin.fake, command, answer), -1) << command;
        EXPECT_NE(answer, "") << command;
    }
    fake_do(plugin.fake, "null browse.destroy");
    fake_do(plugin.fake, "null play_api");
    EXPECT_EQ(plugin.api->play_api, nullptr);
    EXPECT_EQ(plugin.api->browse_api->destroy, nullptr);
    fake_do(plugin.fake, "restore play_api");
    fake_do(plugin.fake, "restore browse.destroy");
    host_deinit(plugin);
}

TEST(Fake, CopiesOfTheLibraryAreSeparateAndUnloadable) {
    char folder[] = "/tmp/fake-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string copy = std::string(folder) + "/other.so";
    const std::string socket = std::string(folder) + "/control";
    std::filesystem::copy_file(FAKE_LIBRARY, copy);
    strm_dict* settings = strm_dict_new();
    strm_dict_set(settings, "control", socket.c_str());
    strm_dict_set(settings, "script", "source scripted\nname other");
    const size_t threads = threads_alive();
    for (int round = 0; round < 3; ++round) {
        host first;
        host second;
        host_init(first, FAKE_LIBRARY, nullptr);
        host_init(second, copy, settings);
        EXPECT_STREQ(first.api->name, "fake");
        EXPECT_STREQ(second.api->name, "other");
        EXPECT_NE(first.play, second.play);
        EXPECT_EQ(fake_do(first.fake, "settings"), "");
        /* The same plug-in from outside, twice at a time. */
        fake_client outside[2];
        ASSERT_TRUE(fake_connect(outside[0], socket));
        ASSERT_TRUE(fake_connect(outside[1], socket));
        EXPECT_EQ(fake_number(outside[0], "count play.create"), 1);
        std::thread waiting([&] { fake_do(outside[0], "await seek 1"); });
        fake_do(outside[1], "rule seek result=%d", 6 + round);
        EXPECT_EQ(second.api->play_api->seek(second.play, 1), 6 + round);
        waiting.join();
        EXPECT_EQ(fake_number(outside[1], "event position"), 0);
        EXPECT_EQ(fake_number(first.fake, "count seek"), 0);
        host_deinit(second);
        host_deinit(first);
        fake_close(outside[0]);
        fake_close(outside[1]);
        EXPECT_EQ(threads_alive(), threads);
        EXPECT_EQ(dlopen(copy.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
    }
    strm_dict_destroy(settings);
    std::filesystem::remove_all(folder);
}
