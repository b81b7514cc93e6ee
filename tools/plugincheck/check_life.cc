/* Group "life": loading, init, detection, cleanup and unloading, again and again. */
#include "checks.h"

#include "check.h"
#include "process_state.h"

/* What one life left behind. */
struct life_record {
    std::string init;      /* what failed */
    std::string settings;  /* what it changed in the process */
    std::string inherited; /* descriptors that an exec would keep */
    std::string files;     /* descriptors that stay */
    std::string threads;   /* threads that stay */
    bool stays = false;    /* on purpose */
    bool busy = false;     /* threads that stay are in its code */
    bool unloaded = false;
};

static life_record live(const host_options& options) {
    life_record life;
    const process_settings settings = process_settings_take();
    const process_files files = process_files_take();
    const process_threads threads = process_threads_take();
    host_load(options);
    if (host_init() == -1) {
        life.init = "init fails";
        (void)host_unload();
        return life;
    }
    (void)host_detect(1);
    life.inherited = process_files_inherited(files, process_files_take());
    (void)host_detect(0);
    if (host_cleanup() == -1) {
        life.init = "cleanup fails";
    }
    life.threads = process_threads_left(threads);
    life.files = process_files_new(files, process_files_take());
    life.settings = process_settings_changed(settings, process_settings_take());
    life.stays = host_stays();
    life.busy = !life.stays && !life.threads.empty();
    life.unloaded = !life.busy && host_unload(); /* a thread may still be in its code */
    return life;
}

static void say(const char* id, const std::string& fault) {
    check_begin(id);
    if (!fault.empty()) {
        check_fail("%s", fault.c_str());
    }
    check_end();
}

/* What a library that stays has fetched the first time is its to keep. */
static void say_left(const char* id, const std::string& first, const std::string& last,
                     bool stays) {
    const std::string& left = stays ? last : first;
    say(id, left.empty() ? "" : "left behind: " + left);
}

/* Without settings of its own. */
static void check_empty(const host_options& options) {
    check_begin("life.empty");
    host_load(options);
    if (host_init(false) != -1) {
        (void)host_detect(1);
        (void)host_detect(0);
        (void)host_cleanup();
    } else {
        check_tell("it fails");
    }
    check_end();
}

void checks_life(const host_options& options) {
    process_warm_up();
    life_record first;
    life_record last;
    check_begin("life.init");
    for (int32_t i = 0; i < options.loops && !check_failed() && !last.busy; ++i) {
        last = live(options);
        first = i == 0 ? last : first;
        if (!last.init.empty()) {
            check_fail("life %d: %s", i + 1, last.init.c_str());
        }
    }
    check_tell("%d times", options.loops);
    check_end();
    say("life.process", first.settings.empty() ? "" : "changed: " + first.settings);
    say("life.cloexec", first.inherited.empty() ? "" : "an exec would keep: " + first.inherited);
    say_left("life.threads", first.threads, last.threads, first.stays);
    say_left("life.descriptors", first.files, last.files, first.stays);
    if (last.busy) {
        return;
    }
    check_begin("life.unload");
    if (last.stays) {
        check_tell("it stays on purpose");
    } else if (!last.unloaded && !check_failed()) {
        check_fail("the library stays (unique symbols? compile it with -fno-gnu-unique)");
    }
    check_end();
    check_empty(options);
}
