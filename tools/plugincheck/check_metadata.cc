/* Group "metadata": what is told of nodes, saved nodes, and the search for nodes. */
#include "checks.h"

#include <algorithm>
#include <cstdlib>

#include "call.h"
#include "check.h"
#include "listing.h"

static constexpr size_t TRACKS_LOOKED_AT = 20;
static constexpr const char* UNKNOWN_KEY = "no such key";

static bool offers(const host_session* session, uint64_t capability) {
    return (session->capabilities & capability) != 0;
}

static void check_tracks(host_session* session, const listing_tree& tree) {
    check_begin("metadata.tracks");
    size_t records = 0;
    for (size_t i = 0; i < tree.tracks.size() && i < TRACKS_LOOKED_AT; ++i) {
        const std::string shown = node_shown(*tree.tracks[i].id);
        metadata* data = nullptr;
        const int32_t result = call_metadata(session, tree.tracks[i].id->c_str(), &data);
        if (result != 0) {
            check_fail("get_metadata of %s, which was listed, fails with %d", shown.c_str(),
                       result);
        }
        if (data != nullptr && data->duration < 0) {
            check_fail("%s lasts %d ms", shown.c_str(), data->duration);
        }
        records += data != nullptr;
        free_metadata(&data);
    }
    check_tell("%zu records", records);
    check_end();
    check_begin("metadata.strangers");
    for (const char* id : {static_cast<const char*>(nullptr), "", "/", "no such node", "\xff\xfe",
                           "%s%n", "/../../../../etc/passwd"}) {
        metadata* data = nullptr;
        (void)call_metadata(session, id, &data);
        free_metadata(&data); /* also when it failed */
    }
    check_end();
}

/* One question for several keys; frees the answers. */
static void ask(host_session* session, const std::string& id, std::vector<const char*> keys,
                bool listed) {
    std::vector<char*> values(keys.size() + 1, nullptr);
    const size_t count = keys.size();
    keys.push_back(nullptr);
    const int32_t result = call_extended(session, id.c_str(), keys.data(), values.data());
    if (listed && result != 0) {
        check_fail("get_extended_metadata of %s, which was listed, fails with %d",
                   node_shown(id).c_str(), result);
    }
    if (values[count] != nullptr) {
        check_fail("more values are stored than keys were given");
    }
    for (size_t i = 0; i < count; ++i) {
        if (values[i] != nullptr && std::string(keys[i]) == UNKNOWN_KEY) {
            check_fail("'%s' has the value %s", UNKNOWN_KEY, node_shown(values[i]).c_str());
        }
        free(values[i]);
    }
}

static void check_extended(host_session* session, const listing_tree& tree) {
    check_begin("metadata.extended");
    if (host().api->browse_api->get_extended_metadata == nullptr ||
        !offers(session, LYR_CAP_EXTENDED_METADATA)) {
        check_skip("the capability is not offered");
        check_end();
        return;
    }
    for (size_t i = 0; i < tree.tracks.size() && i < TRACKS_LOOKED_AT; ++i) {
        const std::string& id = *tree.tracks[i].id;
        ask(session, id, {"bitrate", "codec", UNKNOWN_KEY, "path", "", "composer"}, true);
        ask(session, id, {UNKNOWN_KEY}, true);
        ask(session, id, {}, false);
    }
    for (const char* id : {"", "/", "no such node", "\xff\xfe"}) {
        ask(session, id, {"bitrate", UNKNOWN_KEY}, false);
    }
    check_end();
}

static void check_update(host_session* session, const listing_tree& tree) {
    check_begin("metadata.update");
    if (host().api->browse_api->update_medianodes == nullptr) {
        check_skip("there is no such entry; no saved session of the plug-in is restored");
        check_end();
        return;
    }
    std::vector<node_copy> saved(tree.tracks.begin(),
                                 tree.tracks.begin() + static_cast<ptrdiff_t>(std::min(
                                                           tree.tracks.size(), TRACKS_LOOKED_AT)));
    node_copy gone;
    gone.id = "no such node";
    gone.type = LYR_NODE_AUDIO;
    saved.push_back(gone);
    std::vector<medianode> nodes;
    for (const node_copy& node : saved) {
        nodes.push_back(node_record(node));
    }
    (void)call_update(session, static_cast<int32_t>(nodes.size()), nodes.data());
    for (size_t i = 0; i < nodes.size(); ++i) {
        const node_copy now = node_copy_of(nodes[i]); /* reads each text */
        if (!now.id) {
            check_fail("%s has no id any more", node_shown(*saved[i].id).c_str());
        } else if (i + 1 < nodes.size() && now.type != saved[i].type) {
            check_fail("%s, which is there, changes its type", node_shown(*saved[i].id).c_str());
        }
        free_medianode_contents(&nodes[i]);
    }
    check_end();
}

static void check_search(host_session* session, const listing_tree& tree) {
    check_begin("metadata.search");
    const bool there = host().api->browse_api->search != nullptr && offers(session, LYR_CAP_SEARCH);
    if (!there) {
        check_skip("the capability is not offered");
        check_end();
        return;
    }
    const std::string key =
        tree.tracks.empty() ? "a" : tree.tracks[0].name.value_or("a").substr(0, 3);
    const listing what = {session, true, key, nullptr};
    std::vector<node_copy> whole;
    std::vector<node_copy> again;
    if (listing_all(what, -1, &whole)) {
        listing_check_ids(whole);
        if (listing_all(what, -1, &again) && listing_same(whole, again)) {
            listing_check_pages(what, whole); /* an index may still be growing */
        }
        listing_check_limits(what, whole.size());
    }
    check_tell("%zu records", whole.size());
    check_end();
    check_begin("metadata.search_strangers");
    for (const char* filter : {static_cast<const char*>(nullptr), "", "title", "no such filter"}) {
        for (const std::string& text : {std::string(), std::string("\"'*%_\\"),
                                        std::string("\xff\xfe"), std::string(100000, 'x')}) {
            (void)listing_get({session, true, text, filter}, 0, 10);
        }
    }
    check_end();
}

void checks_metadata(const host_options& options) {
    const host_source* source = host_start(options);
    check_begin("metadata.create");
    host_session* session = nullptr;
    listing_tree tree;
    if (source == nullptr || host().api->browse_api == nullptr) {
        check_skip(source == nullptr ? "no media source was reported" : "there is no browse table");
    } else {
        session = host_session_open(*source, false, true);
        if (session->browse == nullptr) {
            check_fail("create answers null");
        }
        tree = listing_walk(session);
    }
    check_end();
    if (session != nullptr && session->browse != nullptr) {
        if (host().api->browse_api->get_metadata != nullptr) {
            check_tracks(session, tree);
        }
        check_extended(session, tree);
        check_update(session, tree);
        check_search(session, tree);
    }
    host_finish();
}
