/* Group "sources": what the plug-in reports of its media sources. */
#include "checks.h"

#include <algorithm>

#include "call.h"
#include "check.h"
#include "process_state.h"

static constexpr int32_t WATCH = 1000; /* ms for what should not come */

/* A capability and whether the entry that it opens is there. */
struct capability_entry {
    uint64_t capability;
    const char* name;
    bool there;
};

static std::vector<capability_entry> entries() {
    const lyr_play_api* play = host().api->play_api;
    const lyr_browse_api* browse = host().api->browse_api;
    std::vector<capability_entry> all = {
        {LYR_CAP_BROWSE, "browse", browse != nullptr && browse->browse != nullptr},
        {LYR_CAP_SEARCH, "search", browse != nullptr && browse->search != nullptr},
        {LYR_CAP_METADATA, "get_metadata", browse != nullptr && browse->get_metadata != nullptr},
        {LYR_CAP_EXTENDED_METADATA, "get_extended_metadata",
         browse != nullptr && browse->get_extended_metadata != nullptr}};
    if (play != nullptr) { /* without one, another plug-in may play the source */
        all.insert(all.end(), {{LYR_CAP_PLAY, "play", play->play != nullptr},
                               {LYR_CAP_PAUSE, "pause", play->pause != nullptr},
                               {LYR_CAP_STOP, "stop", play->stop != nullptr},
                               {LYR_CAP_SEEK, "seek", play->seek != nullptr},
                               {LYR_CAP_NEXT, "next", play->next != nullptr},
                               {LYR_CAP_PREVIOUS, "previous", play->previous != nullptr},
                               {LYR_CAP_MODES, "shuffle", play->shuffle != nullptr},
                               {LYR_CAP_MODES, "repeat", play->repeat != nullptr}});
    }
    return all;
}

static void check_fields() {
    constexpr int32_t known =
        LYR_MS_TYPE_HDD | LYR_MS_TYPE_USB | LYR_MS_TYPE_IPOD | LYR_MS_TYPE_DLNA | LYR_MS_TYPE_MTP;
    vel_lock_guard guard(host().lock);
    check_begin("sources.fields");
    for (const host_source& source : host().sources) {
        const std::string shown = node_shown(source.uid);
        if (source.uid.empty()) {
            check_fail("a source has an empty uid");
        }
        if (source.plugin_id != 0) {
            check_fail("%s is reported for plug-in %d; init was told 0", shown.c_str(),
                       source.plugin_id);
        }
        if (source.type == 0 || (source.type & ~known) != 0) {
            check_fail("%s has the type 0x%x", shown.c_str(), static_cast<uint32_t>(source.type));
        }
    }
    check_end();
    check_begin("sources.capabilities");
    for (const host_source& source : host().sources) {
        for (const capability_entry& entry : entries()) {
            const bool offered = (source.capabilities & entry.capability) != 0 &&
                                 (source.capabilities & LYR_CAP_DEVICE_LIST) == 0;
            if (offered && !entry.there) {
                check_fail("%s offers %s and there is no such entry",
                           node_shown(source.uid).c_str(), entry.name);
            }
        }
    }
    check_end();
}

static void check_loop(const host_options& options) {
    const process_threads threads = process_threads_take();
    const process_files files = process_files_take();
    check_begin("sources.loop");
    for (int32_t i = 0; i < options.loops; ++i) {
        if (host_detect(1) == -1) {
            check_fail("switching detection on again fails");
        }
        if (host_detect(0) == -1) {
            check_fail("switching detection off fails");
        }
    }
    const std::string more_threads = process_threads_left(threads);
    const std::string more_files = process_files_new(files, process_files_take());
    if (!more_threads.empty()) {
        check_fail("threads left behind: %s", more_threads.c_str());
    }
    if (!more_files.empty()) {
        check_fail("descriptors left behind: %s", more_files.c_str());
    }
    check_end();
}

void checks_sources(const host_options& options) {
    check_begin("sources.reported");
    const host_source* source = host_start(options);
    if (host().last_result == -1) {
        check_fail("switching detection on fails");
    }
    if (source != nullptr) {
        check_tell("%zu", host().sources.size());
    } else if (!options.source.empty()) {
        check_fail("%s was not reported within %d ms", node_shown(options.source).c_str(),
                   options.wait);
    } else {
        check_skip("none within %d ms; what is played and browsed cannot be checked", options.wait);
    }
    check_end();
    check_fields();
    (void)host_detect(0);
    check_loop(options);
    check_begin("sources.off");
    (void)host_await(std::min(options.wait, WATCH),
                     [] { return !host().faults["events.phase"].empty(); });
    {
        vel_lock_guard guard(host().lock);
        for (const std::string& fault : host().faults["events.phase"]) {
            check_fail("%s", fault.c_str());
        }
        host().faults.erase("events.phase");
    }
    check_end();
    host_finish();
}
