#include "fake_events.h"

#include <cstdio>
#include <cstdlib>

#include "fake_calls.h"

namespace {

struct target {
    uint64_t serial = 0;
    void* handle = nullptr;
    void* data = nullptr;
};

uint64_t newest(fake_state& state, bool plays) VEL_REQUIRES(state.lock) {
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

/* The session and callback data that an event names. */
target resolve(fake_state& state, const fake_job& job) VEL_REQUIRES(state.lock) {
    const bool plays = words_at(job.words, 0) != "browse_error";
    const std::string session = words_text(job.words, "session").value_or("last");
    const std::optional<std::string> data = words_text(job.words, "data");
    target result;
    if (session == "this") {
        result.serial = job.session;
    } else if (session == "last") {
        result.serial = newest(state, plays);
    } else if (session.compare(0, 2, "0x") != 0) {
        result.serial = static_cast<uint64_t>(words_to_number(session).value_or(0));
    }
    result.handle = result.serial != 0 ? fake_handle(result.serial) : pointer_of(session);
    const auto found = state.sessions.find(result.serial);
    if (data) {
        result.data = pointer_of(*data);
    } else if (found != state.sessions.end()) {
        result.data = found->second.data;
    } else {
        const auto any = state.sessions.find(newest(state, plays));
        result.data = any == state.sessions.end() ? nullptr : any->second.data;
    }
    return result;
}

int64_t connect_source(fake_state& state, const fake_job& job) {
    fake_source copy;
    int32_t plugin_id = 0;
    const lyrane_internal_callbacks_table* callbacks = nullptr;
    {
        vel_lock_guard guard(state.lock);
        callbacks = state.callbacks;
        plugin_id = state.plugin_id;
        const fake_source* source =
            fake_source_by_uid(state, words_text(job.words, "uid").value_or(""));
        if (source == nullptr) {
            return -1;
        }
        copy = *source;
    }
    const int32_t id = callbacks->mediasource_connected(
        plugin_id, copy.uid.c_str(), copy.name ? copy.name->c_str() : nullptr,
        copy.view_name ? copy.view_name->c_str() : nullptr, copy.type, copy.capabilities,
        copy.status);
    vel_lock_guard guard(state.lock);
    fake_source* source = fake_source_by_uid(state, copy.uid);
    if (source != nullptr && id >= 0) {
        source->id = id;
        fake_wake(state);
    }
    return id;
}

int64_t change_source(fake_state& state, const fake_job& job, const std::string& kind) {
    int32_t id = -1;
    const lyrane_internal_callbacks_table* callbacks = nullptr;
    {
        vel_lock_guard guard(state.lock);
        callbacks = state.callbacks;
        const fake_source* source =
            fake_source_by_uid(state, words_text(job.words, "uid").value_or(""));
        id = source != nullptr ? source->id
                               : static_cast<int32_t>(words_number(job.words, "id").value_or(-1));
    }
    const int64_t value = words_number(job.words, "value").value_or(0);
    if (kind == "disconnected") {
        return callbacks->mediasource_disconnected(id);
    }
    return kind == "status"
               ? callbacks->mediasource_status_changed(id, static_cast<int32_t>(value))
               : callbacks->mediasource_capability_changed(id, static_cast<uint64_t>(value));
}

int64_t report_track(fake_state& state, const fake_job& job, const target& where) {
    const std::optional<std::string> id = words_text(job.words, "node");
    const lyrane_internal_callbacks_table* callbacks = nullptr;
    medianode* node = nullptr;
    {
        vel_lock_guard guard(state.lock);
        callbacks = state.callbacks;
        const auto session = state.sessions.find(where.serial);
        const int32_t ms_id = session == state.sessions.end() ? 0 : session->second.ms_id;
        tree_item item;
        if (id) {
            node = static_cast<medianode*>(std::calloc(1, sizeof *node));
            if (!tree_find(fake_tree_of(state, ms_id), *id, item)) {
                item.id = *id;
            }
            fake_fill_node(item, fake_source_by_id(state, ms_id), ms_id, *node);
        }
    }
    const int32_t result = callbacks->track_changed(where.handle, where.data, node);
    if (node != nullptr) {
        std::free(node->id);
        std::free(node->name);
        std::free(node->url);
        std::free(node->ms_uid);
        std::free(node);
    }
    return result;
}

/* The state of the session, with what the event says in its place. */
lyr_playback_state state_record(fake_state& state, const fake_job& job, const target& where) {
    lyr_playback_state record = {LYR_SHUFFLE_OFF, LYR_REPEAT_OFF, LYR_STATUS_PLAYING, 1.0F};
    {
        vel_lock_guard guard(state.lock);
        const auto session = state.sessions.find(where.serial);
        if (session != state.sessions.end()) {
            record = session->second.state;
        }
    }
    const auto take = [&](const char* key, int32_t& field) {
        field = static_cast<int32_t>(words_number(job.words, key).value_or(field));
    };
    take("shuffle", record.shuffle_mode);
    take("repeat", record.repeat_mode);
    take("status", record.status);
    if (const auto rate = words_text(job.words, "rate")) {
        std::sscanf(rate->c_str(), "%f", &record.playback_rate);
    }
    return record;
}

int64_t report_playback(fake_state& state, const fake_job& job, const std::string& kind,
                        const target& where) {
    const lyrane_internal_callbacks_table* callbacks = nullptr;
    {
        vel_lock_guard guard(state.lock);
        callbacks = state.callbacks;
    }
    const int32_t value = static_cast<int32_t>(words_number(job.words, "value").value_or(0));
    if (kind == "position") {
        return callbacks->position_updated(where.handle, where.data, value);
    }
    if (kind == "finished") {
        return callbacks->track_finished(where.handle, where.data);
    }
    if (kind == "changed") {
        return report_track(state, job, where);
    }
    if (kind == "state") {
        const lyr_playback_state record = state_record(state, job, where);
        return callbacks->state_updated(where.handle, where.data, &record);
    }
    return kind == "error" ? callbacks->play_error_occurred(where.handle, where.data, value)
                           : callbacks->browse_error_occurred(where.handle, where.data);
}

bool known_kind(const std::string& kind) {
    for (const char* name : {"connected", "disconnected", "status", "caps", "position", "finished",
                             "changed", "state", "error", "browse_error"}) {
        if (kind == name) {
            return true;
        }
    }
    return false;
}

int64_t make(const fake_job& job) {
    fake_state& state = fake();
    const std::string kind = words_at(job.words, 0);
    target where;
    {
        vel_lock_guard guard(state.lock);
        if (state.callbacks == nullptr) {
            return -1;
        }
        where = resolve(state, job);
        const auto session = state.sessions.find(where.serial);
        /* The callback counts as begun from here on, before `destroy` can return. */
        if (job.automatic && (session == state.sessions.end() || !session->second.alive)) {
            return -1;
        }
    }
    int64_t result = -1;
    if (kind == "connected") {
        result = connect_source(state, job);
    } else if (kind == "disconnected" || kind == "status" || kind == "caps") {
        result = change_source(state, job, kind);
    } else {
        result = report_playback(state, job, kind, where);
    }
    call_note_event(kind, where.serial, result);
    return result;
}

bool stopping(fake_state& state) {
    vel_lock_guard guard(state.lock);
    return state.stopping;
}

void* worker_body(void* argument) {
    const int32_t number = static_cast<int32_t>(reinterpret_cast<intptr_t>(argument));
    fake_state& state = fake();
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
        for (int64_t i = 0; i < repeat && !stopping(state); ++i) {
            result = make(*job);
        }
        vel_lock_guard guard(state.lock);
        job->result = result;
        job->done = true;
        fake_wake(state);
    }
}

/* Queues a job; the thread is made when it is first needed. */
void enqueue(fake_state& state, const std::shared_ptr<fake_job>& job) VEL_REQUIRES(state.lock) {
    const int32_t number = static_cast<int32_t>(words_number(job->words, "thread").value_or(0));
    const bool missing = state.workers.count(number) == 0;
    fake_worker& worker = state.workers[number];
    worker.jobs.push_back(job);
    void* argument = reinterpret_cast<void*>(static_cast<intptr_t>(number));
    if (missing && pthread_create(&worker.thread, nullptr, worker_body, argument) != 0) {
        std::abort();
    }
    pthread_cond_broadcast(&state.work);
}

std::optional<std::string> wait_for(const std::shared_ptr<fake_job>& job, std::string& fault) {
    fake_state& state = fake();
    vel_lock_guard guard(state.lock);
    while (!job->done) {
        if (state.stopping) {
            fault = "the plug-in ends";
            return std::nullopt;
        }
        fake_wait(state, fake_after(60000));
    }
    return std::to_string(job->result);
}

/* Every option that an event knows counts as used, so that a misspelt one is found. */
void mark_options(const fake_words& words) {
    for (const char* key : {"uid", "id", "value", "node", "shuffle", "repeat", "status", "rate",
                            "session", "data", "thread", "nowait", "repeat"}) {
        words_text(words, key);
    }
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

void events_post(fake_state& state, const std::string& event, uint64_t session) {
    const std::shared_ptr<fake_job> job = job_of(event, session);
    job->automatic = session != 0;
    if (!state.stopping) {
        enqueue(state, job);
    }
}

std::optional<std::string> events_command(const fake_words& words, std::string& fault) {
    fake_state& state = fake();
    std::shared_ptr<fake_job> job;
    if (words_at(words, 0) == "join") {
        vel_lock_guard guard(state.lock);
        const auto ticket = state.tickets.find(
            static_cast<uint64_t>(words_to_number(words_at(words, 1)).value_or(0)));
        if (ticket == state.tickets.end()) {
            fault = "no such ticket";
            return std::nullopt;
        }
        job = ticket->second;
        state.tickets.erase(ticket);
    } else {
        job = std::make_shared<fake_job>();
        job->words = words;
        job->words.plain.erase(job->words.plain.begin());
        mark_options(words);
        if (!known_kind(words_at(job->words, 0))) {
            fault = "no such event: " + words_at(job->words, 0);
            return std::nullopt;
        }
        vel_lock_guard guard(state.lock);
        if (state.callbacks == nullptr || state.stopping) {
            fault = "init was not called";
            return std::nullopt;
        }
        enqueue(state, job);
        if (words_number(words, "nowait").value_or(0) != 0) {
            state.tickets[state.next_ticket] = job;
            return std::to_string(state.next_ticket++);
        }
    }
    return wait_for(job, fault);
}

void events_report_sources() {
    fake_state& state = fake();
    std::vector<std::shared_ptr<fake_job>> jobs;
    {
        vel_lock_guard guard(state.lock);
        for (const fake_source& source : state.sources) {
            if (source.automatic) {
                jobs.push_back(job_of("connected uid=" + words_quote(source.uid), 0));
                enqueue(state, jobs.back());
            }
        }
    }
    for (const std::shared_ptr<fake_job>& job : jobs) {
        std::string fault;
        wait_for(job, fault);
    }
}

void events_end_threads() {
    fake_state& state = fake();
    std::vector<pthread_t> threads;
    {
        vel_lock_guard guard(state.lock);
        for (const auto& [number, worker] : state.workers) {
            threads.push_back(worker.thread);
        }
    }
    for (const pthread_t thread : threads) {
        pthread_join(thread, nullptr);
    }
    vel_lock_guard guard(state.lock);
    state.workers.clear();
    state.tickets.clear();
}
