/* The commands that are neither calls nor events, and the socket through which they come. */
#ifndef FAKE_CONTROL_H
#define FAKE_CONTROL_H

#include <string>

/* Executes commands, one a line; a wrong one ends the process with its reason. */
void control_run_script(const std::string& script);

/* Executes one command. 0, or -1 with the reason as the answer. */
int32_t control_execute(const std::string& command, std::string& answer);

/* Serves a socket until control_end, which also ends its threads. */
bool control_listen(const std::string& path);
void control_end();

#endif
