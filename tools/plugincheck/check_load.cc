/* Group "load": what stands in the library before anything is asked of it. */
#include "checks.h"

#include <dlfcn.h>
#include <link.h>

#include "check.h"
#include "host.h"

/* Names that a library of its own must not define: of functions that plug-ins use, and of the
 * service's most likely namesakes. */
static const char* const service_names[] = {"msglog",
                                            "free_medianode",
                                            "free_medianodes",
                                            "free_medianode_contents",
                                            "free_metadata",
                                            "strm_dict_new",
                                            "strm_dict_find",
                                            "strm_dict_set",
                                            "strm_dict_count",
                                            "lyr_ppsdir_create",
                                            "player_play",
                                            "player_stop",
                                            "player_pause",
                                            "player_next",
                                            "player_previous",
                                            "player_seek",
                                            "player_open",
                                            "player_close",
                                            "array_push",
                                            "array_pop",
                                            "array_insert",
                                            "array_delete",
                                            "array_set",
                                            "lookup",
                                            "options",
                                            "getval",
                                            "nextfield",
                                            "log_level",
                                            "background",
                                            "plugin_load",
                                            "mediasource_browse"};

static bool defined_by_library(const char* name) {
    link_map* map = nullptr;
    link_map* owner = nullptr;
    Dl_info where = {};
    void* symbol = dlsym(host().library, name);
    return symbol != nullptr && dlinfo(host().library, RTLD_DI_LINKMAP, &map) == 0 &&
           dladdr1(symbol, &where, reinterpret_cast<void**>(&owner), RTLD_DL_LINKMAP) != 0 &&
           owner == map;
}

static void check_names() {
    check_begin("load.names");
    for (const char* name : service_names) {
        if (defined_by_library(name)) {
            check_fail("it shows %s: link it with -fvisibility=hidden or a version script", name);
        }
    }
    check_end();
}

static void check_entries() {
    const lyr_play_api* play = host().api->play_api;
    const lyr_browse_api* browse = host().api->browse_api;
    check_begin("load.entries");
    if (play != nullptr && play->create == nullptr) {
        check_fail("the play table has no create");
    }
    if (play != nullptr && play->attach_medianode == nullptr) {
        check_fail("the play table has no attach_medianode");
    }
    if (play != nullptr && play->play == nullptr) {
        check_fail("the play table has no play");
    }
    if (browse != nullptr && browse->create == nullptr) {
        check_fail("the browse table has no create");
    }
    if (browse != nullptr && browse->browse == nullptr) {
        check_fail("the browse table has no browse");
    }
    if (play == nullptr && browse == nullptr) {
        check_fail("there is neither a play table nor a browse table");
    }
    check_end();
}

void checks_load(const host_options& options) {
    check_begin("load.symbol");
    host_load(options);
    check_tell("%s", host().api->name != nullptr ? host().api->name : "without a name");
    check_end();
    check_names();
    check_begin("load.init");
    if (host_init() == -1) {
        check_give_up("init fails; are its settings there (--set)?");
    }
    check_end();
    check_entries();
    check_begin("load.types");
    if (host().types != 0 && host().api->play_api == nullptr) {
        check_fail("init offers the types 0x%x and there is no play table", host().types);
    }
    check_end();
    host_finish();
}
