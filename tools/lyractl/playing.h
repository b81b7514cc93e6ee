/* What a player is doing, gathered from its published objects, and how that looks. */
#ifndef LYRACTL_PLAYING_H
#define LYRACTL_PLAYING_H

#include <cstdint>
#include <string>
#include <vector>

#include "watch.h"

struct playing {
    std::string player;
    std::string status = "idle";
    std::string shuffle = "off";
    std::string repeat = "off";
    double rate = 1.0;
    int64_t position = 0; /* ms */
    int64_t length = 0;   /* tracks of the track session */
    bool has_track = false;
    int64_t index = 0; /* of the track, from 0 */
    std::string node;  /* media node id of the track */
    std::string name;  /* of the media node: often a file's */
    std::string title; /* of the metadata, like the rest */
    std::string artist;
    std::string album;
    int64_t duration = 0; /* ms; 0: not known */
};

/* Brings it up to date with one change. */
void playing_apply(playing* now, const watch_change& change);

/* The track in one line: title, artist and album as far as they are known. */
std::string playing_line(const playing& now);

/* The screen, line by line: at most `columns` wide and `rows` high. The note stands at the foot, in
 * several lines when it is long, as far as there is room. */
std::vector<std::string> playing_screen(const playing& now, const std::string& note,
                                        int32_t columns, int32_t rows);

#endif
