/* Running a piece of the service's frame in a process of its own, with its log caught. */
#ifndef CHILD_RUN_H
#define CHILD_RUN_H

#include <functional>
#include <string>

/* What a child process left behind. */
struct child_outcome {
    int exit_status; /* -1 when a signal ended it */
    int signal;      /* 0 when it exited */
    std::string log; /* "<severity> <text>" a line, the program's name taken off */
    std::string err; /* standard error, raw */
};

/* Runs `body` in a child; when it returns, the child exits with 0. */
child_outcome child_run(const std::function<void()>& body);

/* A file with a content, below the test's scratch folder; removed when the test program ends. */
std::string scratch_file(const std::string& name, const std::string& content);
std::string scratch_folder();

std::string read_whole_file(const std::string& path);

#endif
