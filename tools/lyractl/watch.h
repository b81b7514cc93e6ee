/* The published objects of the players, as a stream of changes. Nothing here polls. */
#ifndef LYRACTL_WATCH_H
#define LYRACTL_WATCH_H

#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include <veloran/pps.h>

struct watch_attribute {
    std::string name;
    std::string value; /* as published, from its first ':' on: "::playing", ":n:12" */
    bool gone = false; /* it was withdrawn; `value` is empty */
};

/* What happened to one object. */
struct watch_change {
    std::string player;
    std::string object;
    bool gone = false; /* the object was removed */
    std::vector<watch_attribute> attributes;
};

struct watch_release {
    void operator()(pps_object* object) const noexcept { pps_close(object); }
};

struct watch {
    std::unique_ptr<pps_object, watch_release> object;
    std::string player; /* empty: all of them */
    std::string begun;  /* text of which the end has not been read yet */
    std::string name;   /* the object that further lines belong to */
    bool ended = false; /* the one player has gone */
};

/* Begins to watch one player, or with an empty name all that are and will be. The first changes
 * are the present content. False with the reason in *why. */
bool watch_open(watch* watch, const std::string& player, std::string* why);

/* Readable when watch_take may find something. */
int watch_fd(const watch& watch);

/* Appends the changes since the last call, without waiting. False when the player has gone, after
 * the changes that led there. */
bool watch_take(watch* watch, std::vector<watch_change>* changes);

/* A published value for programs: numbers and JSON as such, everything else as text. */
nlohmann::ordered_json watch_json(const std::string& value);

/* A published value for people, not escaped yet. */
std::string watch_text(const std::string& value);

#endif
