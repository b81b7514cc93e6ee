/* plugincheck finds what it is there for, and has nothing to say about the plug-ins that are
 * shipped. */
#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "media_files.h"
#include "program.h"

namespace {

/* Its end, all that it said being `out`. */
program_result end(program& running) {
    program_result result = program_end(running);
    result.out += result.err;
    return result;
}

program_result run(std::vector<std::string> words) {
    words.insert(words.begin(), PLUGINCHECK);
    program running = program_start(words);
    return end(running);
}

bool built_with(const char* sanitizer) {
    return std::string(SANITIZE).find(sanitizer) != std::string::npos;
}

/* A line that begins with the first text and holds the second. */
bool has_line(const std::string& text, const std::string& begin, const std::string& part) {
    for (size_t at = 0; (at = text.find(begin, at)) != std::string::npos; ++at) {
        const std::string line = text.substr(at, text.find('\n', at) - at);
        if ((at == 0 || text[at - 1] == '\n') && line.find(part) != std::string::npos) {
            return true;
        }
    }
    return false;
}

struct fault_case {
    const char* fault;
    const char* group;
    const char* check; /* that fails */
    const char* says;
    const char* sanitizer = ""; /* that is needed, or behind '-' is in the way */
};

/* A release of what is not the caller's ends the process: by the allocator, or by a sanitizer. */
const char* const DIES = SANITIZE[0] == '\0' ? "crashed (SIGABRT)" : "Sanitizer";

const fault_case faults[] = {
    {"no_attach", "load", "load.entries", "the play table has no attach_medianode"},
    {"no_play_table", "load", "load.types", "there is no play table"},
    {"init_reports", "load", "events.phase", "mediasource_connected before init has returned"},
    {"umask", "life", "life.process", "the umask"},
    {"open_file", "life", "life.cloexec", "an exec would keep: /"},
    {"open_file", "life", "life.descriptors", "left behind: /"},
    {"thread_stays", "life", "life.threads", "left behind: "},
    {"open_file", "sources", "sources.loop", "descriptors left behind: /"},
    {"no_uid", "sources", "events.values", "without a uid"},
    {"no_pause", "sources", "sources.capabilities", "'broken' offers pause"},
    {"detection_stays", "sources", "sources.off", "after detection was switched off"},
    {"no_browse_session", "browse", "browse.create", "create answers null"},
    {"no_array", "browse", "browse.list", "promises 3 records and stores none"},
    {"static_text", "browse", "browse.list", DIES},
    {"freed_text", "browse", "browse.list", DIES, "-thread"}, /* whose allocator does not mind */
    {"null_id", "browse", "browse.ids", "child 0 has no id"},
    {"rewinds", "browse", "browse.ids", "the id 'a' stands twice"},
    {"wrong_source", "browse", "browse.source", "'a' has the ms_id 1 of the source 0"},
    {"unstable", "browse", "browse.stable", "differs from the first"},
    {"over", "browse", "browse.pages", "delivers 2 records when asked for 1"},
    {"end_fails", "browse", "browse.limits", "fails with -1"},
    {"array_of_failure", "browse", "browse.strangers", "fails with -1 and stores an array"},
    {"sticky_cancel", "browse", "browse.cancel", "is cancelled, too"},
    {"null_crash", "metadata", "metadata.strangers", "in get_metadata"},
    {"any_key", "metadata", "metadata.extended", "'no such key' has the value 'FLAC'"},
    {"leak", "metadata", "metadata.exit", "LeakSanitizer", "address"},
    {"one_handle", "play", "play.create", "two live sessions have one handle"},
    {"attach_fails", "play", "play.attach", "fails for each of 5 tracks"},
    {"silent", "play", "play.reports", "nothing within"},
    {"exits", "play", "play.reports", "ended the process with status 7 in play"},
    {"pause_fails", "play", "play.commands", "pause fails with -1"},
    {"inside", "play", "events.context", "position_updated from inside play"},
    {"wrong_data", "play", "events.session", "a callback_data that no create was given"},
    {"late", "play", "events.late", "begun after destroy has returned"},
    {"ends_twice", "play", "events.ends", "track_finished"},
    {"negative", "play", "events.values", "position_updated with -1"},
    {"race", "play", "play.exit", "ThreadSanitizer: data race", "thread"},
    {"lock_held", "locks", "locks.entries", "does not return in pause"},
    {"destroy_joins", "locks", "locks.destroy", "does not return in destroy (play)"},
};

bool is_for_this_build(const fault_case& row) {
    const bool away = row.sanitizer[0] == '-';
    /* The other builds find what needs no sanitizer as well, in less time. */
    return built_with(row.sanitizer + (away ? 1 : 0)) != away &&
           (!built_with("thread") || std::string(row.sanitizer) == "thread");
}

program start(const fault_case& row) {
    const bool hangs = std::string(row.says).find("does not return") != std::string::npos;
    return program_start({PLUGINCHECK, "--set", std::string("fault=") + row.fault, "--group",
                          row.group, "--loops", "2", "--limit", hangs ? "8" : "120", "--wait",
                          "4000", BROKEN});
}

/* Most of the time they wait, so several do it side by side. */
TEST(Plugincheck, finds_each_fault) {
    constexpr size_t TOGETHER = 20;
    std::vector<fault_case> rows;
    std::copy_if(std::begin(faults), std::end(faults), std::back_inserter(rows), is_for_this_build);
    for (size_t first = 0; first < rows.size(); first += TOGETHER) {
        std::vector<program> running;
        for (size_t i = first; i < std::min(first + TOGETHER, rows.size()); ++i) {
            running.push_back(start(rows[i]));
        }
        for (size_t i = 0; i < running.size(); ++i) {
            const fault_case& row = rows[first + i];
            SCOPED_TRACE(std::string(row.fault) + ": " + row.check + ": " + row.says);
            const program_result result = end(running[i]);
            EXPECT_EQ(result.status, 1);
            EXPECT_TRUE(has_line(result.out, std::string("FAILED  ") + row.check, row.says))
                << result.out;
        }
    }
}

TEST(Plugincheck, names_of_the_service_are_found) {
    const program_result result = run({"--group", "load", BROKEN_NAMES});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(has_line(result.out, "FAILED  load.names", "it shows player_play")) << result.out;
}

TEST(Plugincheck, what_cannot_be_loaded_is_no_finding) {
    EXPECT_EQ(run({"/no/such/library.so"}).status, 2);
    EXPECT_EQ(run({"--set", "fault=init_fails", BROKEN}).status, 2);
    EXPECT_EQ(run({"--set", "no sign", BROKEN}).status, 2);
}

TEST(Plugincheck, reports_to_programs) {
    const program_result result =
        run({"--json", "--group", "load", "--set", "fault=no_attach", BROKEN});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find("{\"id\":\"load.entries\",\"result\":\"FAILED\",\"text\":\"the play "
                              "table has no attach_medianode\",\"rule\":\""),
              std::string::npos)
        << result.out;
}

/* Nothing failed, and nothing was left out that the plug-in has. */
void expect_clean(const program_result& result, const std::vector<std::string>& skipped) {
    EXPECT_EQ(result.status, 0) << result.out;
    size_t found = 0;
    for (size_t at = 0; (at = result.out.find("\nskipped ", at)) != std::string::npos; ++at) {
        ++found;
    }
    for (const std::string& check : skipped) {
        EXPECT_TRUE(has_line(result.out, "skipped " + check, "")) << check << "\n" << result.out;
    }
    EXPECT_EQ(found, skipped.size()) << result.out;
}

/* They play for seconds, side by side. The scripted one plays nothing by itself: here each play is
 * followed by a position, and from the fourth on, which is waited for, by its end. */
TEST(Plugincheck, has_nothing_to_say_about_good_ones) {
    const temporary_folder music;
    for (const char* name : {"/one.flac", "/two.ogg", "/sub/three.flac"}) {
        make_track(music.path + name, 440, 4000, {"title=Title", "artist=Artist"});
    }
    const temporary_folder cache;
    const struct {
        std::vector<std::string> words;
        std::vector<std::string> skipped;
    } rows[] = {
        {{BROKEN}, {"metadata.update", "metadata.search", "metadata.search_strangers"}},
        {{"--set", "length=1000", RADIO},
         {"browse.cancel", "metadata.extended", "metadata.search", "metadata.search_strangers"}},
        {{"--set",
          "script=tree\n /one|A\n /two|V\n /more|tracks:3\n"
          "source disk\n"
          "rule play after=\"position value=9 session=this\"\n"
          "rule play skip=3 after=\"finished session=this\"",
          FAKE},
         {}},
        {{"--set", "folders=" + music.path, "--set", "mounts=", "--set", "cache=" + cache.path,
          FILES},
         {}},
    };
    std::vector<program> running;
    for (const auto& row : rows) {
        std::vector<std::string> words = {PLUGINCHECK, "--wait", "60000", "--limit", "300"};
        words.insert(words.end(), row.words.begin(), row.words.end());
        running.push_back(program_start(words));
    }
    for (size_t i = 0; i < running.size(); ++i) {
        expect_clean(end(running[i]), rows[i].skipped);
    }
}

} // namespace
