/* What the measurements share: which figures are wanted, how they are printed, medians, ratios
 * pair by pair, one core for all, and the bare exchange that requests are compared with.
 *
 * A program of this folder prints one line a figure, "name value unit", on the standard output and
 * nothing else there; whatever else is printed goes to the standard error. Its arguments are the
 * names of the figures to print (none: all of them) and "--long" for the big sizes. It ends with
 * status 1 when a figure cannot be had. */
#ifndef BENCH_H
#define BENCH_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

/* First of all; keeps the standard output for the figures. */
void bench_begin(int argc, char** argv);
/* Whether somebody asked for it; `big`: a figure of the big sizes. */
bool bench_wanted(const char* name, bool big = false);
void bench_figure(const char* name, double value, const char* unit);
/* Says why and ends the program. */
[[noreturn]] void bench_give_up(const std::string& why);

/* Seconds of the steady clock. */
double bench_now();
double bench_median(std::vector<double> values);
/* The median of the seconds that one round takes. */
double bench_rounds(int rounds, const std::function<void()>& round);
/* The median of ratios. The two take turns, so that both of a pair meet the same machine. */
double bench_ratio(int pairs, const std::function<double()>& ours,
                   const std::function<double()>& reference);

/* Puts this thread, and what it starts from now on, on the core where it is. */
void bench_pin();

/* Another process, which answers each packet on a SOCK_SEQPACKET socket by one of a fixed size. */
struct bench_echo {
    int fd = -1;
    pid_t pid = -1;
};
bench_echo bench_echo_start(size_t reply);
void bench_echo_round(const bench_echo& echo, size_t request);
void bench_echo_end(bench_echo& echo);

/* Temporary files and runtime roots are in memory from now on, as runtime roots are in use. */
void bench_use_memory();
/* Makes a new folder among the temporary files, which goes with the program. */
std::string bench_folder();

#endif
