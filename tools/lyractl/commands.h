/* The commands. Each takes what the command line says, writes its answer to the standard output and
 * returns true, or false with the reason in *why. */
#ifndef LYRACTL_COMMANDS_H
#define LYRACTL_COMMANDS_H

#include <string>

#include "arguments.h"

bool command_sources(const arguments& what, std::string* why);
bool command_players(const arguments& what, std::string* why);
bool command_browse(const arguments& what, std::string* why);
bool command_search(const arguments& what, std::string* why);
bool command_tracks(const arguments& what, std::string* why);
bool command_metadata(const arguments& what, std::string* why);
bool command_jump(const arguments& what, std::string* why);
bool command_seek(const arguments& what, std::string* why);
bool command_rate(const arguments& what, std::string* why);
bool command_shuffle(const arguments& what, std::string* why);
bool command_repeat(const arguments& what, std::string* why);
bool command_destroy(const arguments& what, std::string* why);
bool command_close(const arguments& what, std::string* why);
bool command_session(const arguments& what, std::string* why);
bool command_play(const arguments& what, std::string* why);
bool command_pause(const arguments& what, std::string* why);
bool command_stop(const arguments& what, std::string* why);
bool command_next(const arguments& what, std::string* why);
bool command_previous(const arguments& what, std::string* why);
bool command_state(const arguments& what, std::string* why);
bool command_now(const arguments& what, std::string* why);
bool command_watch(const arguments& what, std::string* why);
bool command_open(const arguments& what, std::string* why);
bool command_doctor(const arguments& what, std::string* why);
bool command_screen(const arguments& what, std::string* why);

#endif
