/* Group "browse": folders and their pages. */
#include "checks.h"

#include <atomic>

#include <pthread.h>

#include "call.h"
#include "check.h"
#include "listing.h"

static constexpr int32_t THREADS = 3;
static constexpr int32_t ROUNDS = 20;

static const std::vector<std::string>& strangers() {
    static const std::vector<std::string> ids = {"",
                                                 "no such node",
                                                 "/no/such/node",
                                                 "/../../../../etc",
                                                 "//",
                                                 "/.",
                                                 "%s%n%s",
                                                 std::string("\xff\xfe\x80", 3),
                                                 std::string(100000, 'x'),
                                                 std::string(2000, '/')};
    return ids;
}

/* One thread that lists a folder several times beside others. */
struct lister {
    listing what;
    const std::vector<node_copy>* whole = nullptr;
    int32_t rounds = 0;
    bool may_fail = false;
    std::atomic<int32_t> done{0};
    std::atomic<bool> ended{false};
    std::string wrong;
};

static void* list(void* data) {
    auto* self = static_cast<lister*>(data);
    host_adopt_thread();
    for (int32_t i = 0; i < self->rounds; ++i) {
        const listing_page page = listing_get(self->what, 0, LISTING_MOST, true);
        ++self->done;
        if (self->may_fail) {
            continue;
        }
        if (page.result != 0) {
            self->wrong = "fails with " + std::to_string(page.result);
        } else if (!page.nodes.empty() != !self->whole->empty() ||
                   (page.nodes.size() == self->whole->size() &&
                    !listing_same(page.nodes, *self->whole))) {
            self->wrong = "lists something else";
        }
    }
    vel_lock_guard guard(host().lock);
    self->ended = true;
    pthread_cond_broadcast(&host().changed);
    return nullptr;
}

static void check_threads(const listing& what, const std::vector<node_copy>& whole) {
    lister listers[THREADS];
    pthread_t threads[THREADS];
    check_begin("browse.threads");
    for (int32_t i = 0; i < THREADS; ++i) {
        listers[i].what = what;
        listers[i].whole = &whole;
        listers[i].rounds = ROUNDS;
        (void)pthread_create(&threads[i], nullptr, list, &listers[i]);
    }
    for (int32_t i = 0; i < ROUNDS; ++i) {
        metadata* data = nullptr;
        (void)call_metadata(what.session, whole.empty() ? "/" : whole[0].id.value_or("").c_str(),
                            &data);
        free_metadata(&data);
    }
    for (int32_t i = 0; i < THREADS; ++i) {
        (void)pthread_join(threads[i], nullptr);
        if (!listers[i].wrong.empty()) {
            check_fail("browse beside others %s", listers[i].wrong.c_str());
        }
    }
    check_end();
}

static void check_cancel(const listing& what, const std::vector<node_copy>& whole) {
    check_begin("browse.cancel");
    if (host().api->browse_api->cancel_browse == nullptr) {
        check_skip("there is no such entry");
        check_end();
        return;
    }
    lister one;
    pthread_t thread;
    one.what = what;
    one.whole = &whole;
    one.rounds = ROUNDS;
    one.may_fail = true;
    (void)pthread_create(&thread, nullptr, list, &one);
    while (!one.ended) { /* one that begins after a cancel is not ended by it */
        (void)call_cancel(what.session);
        (void)host_await(20, [&] { return one.ended.load(); });
    }
    (void)pthread_join(thread, nullptr);
    (void)call_cancel(what.session);
    const listing_page page = listing_get(what, 0, LISTING_MOST);
    if (page.result != 0 || (page.nodes.empty() && !whole.empty())) {
        check_fail("the first browse after cancel_browse is cancelled, too");
    }
    check_end();
}

static void check_list(const listing& what, std::vector<node_copy>* whole) {
    check_begin("browse.list");
    (void)listing_all(what, -1, whole);
    check_tell("%zu records", whole->size());
    check_end();
    check_begin("browse.ids");
    listing_check_ids(*whole);
    check_end();
    check_begin("browse.stable");
    std::vector<node_copy> again;
    if (listing_all(what, -1, &again) && !listing_same(*whole, again)) {
        check_fail("the second listing differs from the first");
    }
    check_end();
    check_begin("browse.pages");
    listing_check_pages(what, *whole);
    check_end();
    check_begin("browse.limits");
    listing_check_limits(what, whole->size());
    check_end();
}

static void check_source(const host_source& source, const std::vector<node_copy>& nodes) {
    check_begin("browse.source");
    for (const node_copy& node : nodes) {
        const std::string shown = node_shown(node.id.value_or(""));
        if (node.ms_id != source.id) {
            check_fail("%s has the ms_id %d of the source %d", shown.c_str(), node.ms_id,
                       source.id);
        }
        if (node.ms_type != source.type) {
            check_fail("%s has the ms_type 0x%x, the source 0x%x", shown.c_str(),
                       static_cast<uint32_t>(node.ms_type), static_cast<uint32_t>(source.type));
        }
    }
    check_end();
}

static void check_strangers(host_session* session) {
    check_begin("browse.strangers");
    const listing_tree tree = listing_walk(session);
    for (const std::string& id : strangers()) {
        (void)listing_get({session, false, id, nullptr}, 0, -1);
        (void)listing_get({session, false, id, nullptr}, 3, 5);
    }
    if (!tree.tracks.empty()) { /* a track where a folder is expected */
        (void)listing_get({session, false, *tree.tracks[0].id, nullptr}, 0, -1);
    }
    check_end();
}

static void check_destroy(const host_source& source, const listing& what,
                          const std::vector<node_copy>& whole) {
    check_begin("browse.destroy");
    host_session* sessions[3];
    for (host_session*& session : sessions) {
        session = host_session_open(source, false, true);
    }
    for (const int32_t i : {1, 0, 2}) {
        host_session_close(sessions[i]);
        const listing_page page = listing_get(what, 0, LISTING_MOST);
        if (page.result != 0 || (page.nodes.empty() && !whole.empty())) {
            check_fail("another session does not browse any more");
        }
    }
    check_end();
}

void checks_browse(const host_options& options) {
    const host_source* source = host_start(options);
    if (source == nullptr || host().api->browse_api == nullptr) {
        check_begin("browse.create");
        check_skip(source == nullptr ? "no media source was reported" : "there is no browse table");
        check_end();
        host_finish();
        return;
    }
    check_begin("browse.create");
    host_session* session = host_session_open(*source, false, true);
    host_session* second = host_session_open(*source, false, true);
    if (session->browse == nullptr || second->browse == nullptr) {
        check_fail("create answers null");
    }
    host_source stranger = *source;
    stranger.id = INT32_MAX;
    host_session_close(host_session_open(stranger, false, true)); /* null, or one that fails */
    check_end();
    if (session->browse != nullptr && second->browse != nullptr) {
        const listing what = {session, false, "/", nullptr};
        std::vector<node_copy> whole;
        check_list(what, &whole);
        check_source(*source, whole);
        check_strangers(session);
        check_threads(what, whole);
        check_cancel(what, whole);
        check_destroy(*source, {second, false, "/", nullptr}, whole);
    }
    host_finish();
}
