#include "fake_events.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "fake_calls.h"

namespace {

/* What an event is to tell the service. */
struct event {
    const fake_words& words;
    const lyrane_internal_callbacks_table* service;
    int32_t plugin_id;
    std::optional<fake_source> source; /* of uid= */
    int32_t source_id;                 /* of uid= or id=, -1: unknown */
    int64_t value;
    uint64_t serial = 0; /* of the session */
    void* handle = nullptr;
    void* data = nullptr;
};

uint64_t newest(bool plays) VEL_REQUIRES(state.lock) {
    for (auto at = state.sessions.rbegin(); at != state.sessions.rend(); ++at) {
        if (at->second.alive && at->second.plays == plays) {
            return at->first;
        }
    }
    return 0;
}

void* pointer_of(const std::string& text) {
    const uint64_t number = static_cast<uint64_t>(words_to_number(text).value_or(0));
    return reinterpret_cast<void*>(static_cast<uintptr_t>(number));
}

/* Finds out what the words of an event name. Nothing when it cannot be made any more. */
std::optional<event> resolve(const fake_job& job) {
    vel_lock_guard guard(state.lock);
    const bool plays = words_at(job.words, 0) != "browse_error";
    event what = {job.words,
                  state.callbacks,
                  state.plugin_id,
                  std::nullopt,
                  static_cast<int32_t>(words_number(job.words, "id").value_or(-1)),
                  words_number(job.words, "value").value_or(0)};
    if (const auto* source = fake_source_by_uid(words_text(job.words, "uid").value_or(""))) {
        what.source = *source;
        what.source_id = source->id;
    }
    const auto session = words_text(job.words, "session");
    if (!session) {
        what.serial = newest(plays);
    } else if (*session == "this") {
        what.serial = job.session;
    } else if (!session->starts_with("0x")) {
        what.serial = static_cast<uint64_t>(words_to_number(*session).value_or(0));
    }
    what.handle = what.serial != 0 ? fake_handle(what.serial) : pointer_of(session.value_or(""));
    const fake_session* owner = fake_session_at(what.serial);
    /* The callback counts as begun from here on, before `destroy` can return. */
    if (state.callbacks == nullptr || (job.automatic && (owner == nullptr || !owner->alive))) {
        return std::nullopt;
    }
    if (owner == nullptr) {
        owner = fake_session_at(newest(plays));
    }
    const auto data = words_text(job.words, "data");
    what.data = data ? pointer_of(*data) : owner != nullptr ? owner->data : nullptr;
    return what;
}

int32_t connect_source(const event& what) {
    if (!what.source) {
        return -1;
    }
    const fake_source& source = *what.source;
    const auto text = [](const auto& of) { return of ? of->c_str() : nullptr; };
    const int32_t id = what.service->mediasource_connected(
        what.plugin_id, source.uid.c_str(), text(source.name), text(source.view_name), source.type,
        source.capabilities, source.status);
    vel_lock_guard guard(state.lock);
    if (id >= 0) {
        fake_source_by_uid(source.uid)->id = id;
    }
    return id;
}

int32_t report_track(const event& what) {
    std::unique_ptr<medianode> node;
    if (const auto id = words_text(what.words, "node")) {
        vel_lock_guard guard(state.lock);
        const fake_session* session = fake_session_at(what.serial);
        const int32_t ms_id = session == nullptr ? 0 : session->ms_id;
        const tree_item item = tree_find(fake_tree_of(ms_id), *id).value_or(tree_item{*id});
        node = std::make_unique<medianode>();
        fake_fill_node(item, fake_source_by_id(ms_id), ms_id, *node);
    }
    const int32_t result = what.service->track_changed(what.handle, what.data, node.get());
    if (node != nullptr) {
        fake_free_node(*node);
    }
    return result;
}

/* The state of the session, with what the event says in its place. */
int32_t report_state(const event& what) {
    lyr_playback_state record = {LYR_SHUFFLE_OFF, LYR_REPEAT_OFF, LYR_STATUS_PLAYING, 1.0F};
    {
        vel_lock_guard guard(state.lock);
        if (const fake_session* session = fake_session_at(what.serial)) {
            record = session->state;
        }
    }
    const auto take = [&](const char* key, int32_t& field) {
        field = static_cast<int32_t>(words_number(what.words, key).value_or(field));
    };
    take("shuffle", record.shuffle_mode);
    take("repeat", record.repeat_mode);
    take("status", record.status);
    if (const auto rate = words_text(what.words, "rate")) {
        std::sscanf(rate->c_str(), "%f", &record.playback_rate);
    }
    return what.service->state_updated(what.handle, what.data, &record);
}

constexpr struct {
    const char* name;
    int32_t (*make)(const event& what);
} KINDS[] = {
    {"connected", connect_source},
    {"disconnected",
     [](const event& e) { return e.service->mediasource_disconnected(e.source_id); }},
    {"status",
     [](const event& e) {
         return e.service->mediasource_status_changed(e.source_id, static_cast<int32_t>(e.value));
     }},
    {"caps",
     [](const event& e) {
         return e.service->mediasource_capability_changed(e.source_id,
                                                          static_cast<uint64_t>(e.value));
     }},
    {"position",
     [](const event& e) {
         return e.service->position_updated(e.handle, e.data, static_cast<int32_t>(e.value));
     }},
    {"finished", [](const event& e) { return e.service->track_finished(e.handle, e.data); }},
    {"changed", report_track},
    {"state", report_state},
    {"error",
     [](const event& e) {
         return e.service->play_error_occurred(e.handle, e.data, static_cast<int32_t>(e.value));
     }},
    {"browse_error",
     [](const event& e) { return e.service->browse_error_occurred(e.handle, e.data); }},
};

/* The kind of an event, or the end of the table. */
const auto* kind_of(const fake_words& words) {
    return std::ranges::find(KINDS, words_at(words, 0), [](const auto& kind) { return kind.name; });
}

int64_t make(const fake_job& job) {
    const auto* kind = kind_of(job.words);
    const std::optional<event> what = resolve(job);
    if (kind == std::end(KINDS) || !what) {
        return -1;
    }
    const int32_t result = kind->make(*what);
    call_note_event(words_at(job.words, 0), what->serial, result);
    return result;
}

bool stopping() {
    vel_lock_guard guard(state.lock);
    return state.stopping;
}

void* worker_body(void* argument) {
    const int32_t number = static_cast<int32_t>(reinterpret_cast<intptr_t>(argument));
    pthread_setname_np(pthread_self(), ("fake-" + std::to_string(number)).c_str());
    while (true) {
        std::shared_ptr<fake_job> job;
        {
            vel_lock_guard guard(state.lock);
            std::deque<std::shared_ptr<fake_job>>& jobs = state.workers[number].jobs;
            while (jobs.empty() && !state.stopping) {
                pthread_cond_wait(&state.work, &state.lock.native);
            }
            if (state.stopping) {
                return nullptr;
            }
            job = jobs.front();
            jobs.pop_front();
        }
        const int64_t repeat = words_number(job->words, "repeat").value_or(1);
        int64_t result = -1;
        for (int64_t i = 0; i < repeat && !stopping(); ++i) {
            result = make(*job);
        }
        vel_lock_guard guard(state.lock);
        job->result = result;
        job->done = true;
        fake_wake();
    }
}

/* Queues a job; the thread is made when it is first needed. */
void enqueue(const std::shared_ptr<fake_job>& job) VEL_REQUIRES(state.lock) {
    const int32_t number = static_cast<int32_t>(words_number(job->words, "thread").value_or(0));
    const bool missing = !state.workers.contains(number);
    fake_worker& worker = state.workers[number];
    worker.jobs.push_back(job);
    void* argument = reinterpret_cast<void*>(static_cast<intptr_t>(number));
    if (missing && pthread_create(&worker.thread, nullptr, worker_body, argument) != 0) {
        std::abort();
    }
    pthread_cond_broadcast(&state.work);
}

std::string wait_for(const fake_job& job, std::string& fault) VEL_REQUIRES(state.lock) {
    if (!fake_await([&] { return job.done; })) {
        fault = "the plug-in ends, or the event hangs";
    }
    return std::to_string(job.result);
}

std::shared_ptr<fake_job> job_of(const std::string& event, uint64_t session) {
    auto job = std::make_shared<fake_job>();
    words_parse(event, job->words);
    job->session = session;
    return job;
}

} // namespace

int64_t events_make_here(const std::string& event, uint64_t session) {
    return make(*job_of(event, session));
}

void events_post(const std::string& event, uint64_t session) {
    const std::shared_ptr<fake_job> job = job_of(event, session);
    job->automatic = session != 0;
    if (!state.stopping) {
        enqueue(job);
    }
}

std::string events_make(const fake_words& words, std::string& fault) {
    auto job = std::make_shared<fake_job>();
    job->words = words;
    job->words.plain.erase(job->words.plain.begin());
    words_know(words, {"uid", "id", "value", "node", "shuffle", "repeat", "status", "rate",
                       "session", "data", "thread"});
    if (kind_of(job->words) == std::end(KINDS)) {
        fault = "no such event: " + words_at(words, 1);
        return "";
    }
    if (state.callbacks == nullptr || state.stopping) {
        fault = "init was not called";
        return "";
    }
    enqueue(job);
    if (!words_flag(words, "nowait")) {
        return wait_for(*job, fault);
    }
    state.tickets[state.next_ticket] = job;
    return std::to_string(state.next_ticket++);
}

std::string events_join(const fake_words& words, std::string& fault) {
    const auto ticket = state.tickets.extract(
        static_cast<uint64_t>(words_to_number(words_at(words, 1)).value_or(0)));
    if (ticket.empty()) {
        fault = "no such ticket";
        return "";
    }
    return wait_for(*ticket.mapped(), fault);
}

void events_report_sources() {
    vel_lock_guard guard(state.lock);
    std::vector<std::shared_ptr<fake_job>> jobs;
    for (const fake_source& source : state.sources) {
        if (source.automatic) {
            jobs.push_back(job_of("connected uid=" + words_quote(source.uid), 0));
            enqueue(jobs.back());
        }
    }
    std::string fault;
    for (const std::shared_ptr<fake_job>& job : jobs) {
        wait_for(*job, fault);
    }
}

void events_end_threads() {
    /* Nobody makes one any more, since the plug-in is stopping. */
    for (const auto& [number, worker] : state.workers) {
        pthread_join(worker.thread, nullptr);
    }
    vel_lock_guard guard(state.lock);
    state.workers.clear();
    state.tickets.clear();
}
