/* Giving up what reading files does not need: limits, and a filter of system calls.
 *
 * The filter answers EPERM, so a library that tries something new on another system still works
 * without it. What is allowed touches no other file or process and no network, and writes to the
 * socket alone; memory can never be executed. Sanitizers do a lot more by themselves: with them
 * only what is dangerous is denied. */
#include "reader_confine.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iterator>

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

/* --- limits --------------------------------------------------------------------------------- */

static void limit(__rlimit_resource resource, rlim_t most) noexcept {
    rlimit now = {};
    if (getrlimit(resource, &now) != 0) {
        _exit(EXIT_FAILURE);
    }
    const rlim_t allowed = now.rlim_max < most ? now.rlim_max : most;
    const rlimit wanted = {allowed, allowed};
    if (setrlimit(resource, &wanted) != 0) {
        _exit(EXIT_FAILURE);
    }
}

static void set_limits() noexcept {
    limit(RLIMIT_CPU, READER_SECONDS);
    limit(RLIMIT_CORE, 0);
    limit(RLIMIT_NOFILE, 8);
#ifndef READER_SANITIZED
    limit(RLIMIT_AS, READER_MEMORY);
    limit(RLIMIT_FSIZE, 0);
    limit(RLIMIT_NPROC, 0);
#endif
    if (prctl(PR_SET_DUMPABLE, 0) != 0 || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        _exit(EXIT_FAILURE);
    }
}

/* --- the filter ----------------------------------------------------------------------------- */

#if defined(__x86_64__)
static constexpr uint32_t MACHINE = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
static constexpr uint32_t MACHINE = AUDIT_ARCH_AARCH64;
#endif

#if defined(__x86_64__) || defined(__aarch64__)

static constexpr uint32_t NUMBER = offsetof(seccomp_data, nr);
static constexpr uint32_t ARCHITECTURE = offsetof(seccomp_data, arch);
static constexpr uint32_t YES = SECCOMP_RET_ALLOW;
static constexpr uint32_t NO = SECCOMP_RET_ERRNO | EPERM;

/* The low half of an argument: both machines are little-endian, and no flag is above. */
static constexpr uint32_t argument(unsigned which) noexcept {
    return offsetof(seccomp_data, args) + which * sizeof(uint64_t);
}

/* A program that is put together; it is short enough, else it is not used. */
struct filter_program {
    sock_filter steps[160];
    uint16_t count;
};

static void add(filter_program* program, const sock_filter& step) noexcept {
    if (program->count < std::size(program->steps)) {
        program->steps[program->count++] = step;
    }
}

static void load(filter_program* program, uint32_t offset) noexcept {
    add(program, BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset));
}

/* Ends with a verdict if the loaded number is this one. */
static void decide_if(filter_program* program, long number, uint32_t verdict) noexcept {
    add(program, BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 1));
    add(program, BPF_STMT(BPF_RET | BPF_K, verdict));
}

/* The same for a call of which an argument has one of these bits. */
static void decide_if_bits(filter_program* program, long number, unsigned which, uint32_t bits,
                           uint32_t with, uint32_t without) noexcept {
    add(program, BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 4));
    load(program, argument(which));
    add(program, BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, bits, 0, 1));
    add(program, BPF_STMT(BPF_RET | BPF_K, with));
    add(program, BPF_STMT(BPF_RET | BPF_K, without));
}

static void begin(filter_program* program) noexcept {
    load(program, ARCHITECTURE);
    add(program, BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, MACHINE, 1, 0));
    add(program, BPF_STMT(BPF_RET | BPF_K, NO));
    load(program, NUMBER);
}

#ifndef READER_SANITIZED

static constexpr long ALLOWED[] = {
    SYS_recvmsg,        SYS_pread64,      SYS_close,          SYS_brk,           SYS_munmap,
    SYS_mremap,         SYS_madvise,      SYS_futex,          SYS_exit,          SYS_exit_group,
    SYS_getpid,         SYS_gettid,       SYS_getrandom,      SYS_clock_gettime, SYS_rt_sigreturn,
    SYS_rt_sigprocmask, SYS_rt_sigaction, SYS_restart_syscall};

static void fill(filter_program* program) noexcept {
    for (const long call : ALLOWED) {
        decide_if(program, call, YES);
    }
    /* The socket has the number 0; nothing else can be written to. */
    decide_if_bits(program, SYS_sendmsg, 0, ~0U, NO, YES);
    decide_if_bits(program, SYS_mmap, 2, PROT_EXEC, NO, YES);
    decide_if_bits(program, SYS_mprotect, 2, PROT_EXEC, NO, YES);
    add(program, BPF_STMT(BPF_RET | BPF_K, NO));
}

#else

static constexpr long DENIED[] = {
#ifdef SYS_open
    SYS_open,
    SYS_creat,
    SYS_fork,
    SYS_vfork,
    SYS_unlink,
    SYS_rename,
#endif
    SYS_openat,
    SYS_openat2,
    SYS_socket,
    SYS_socketpair,
    SYS_connect,
    SYS_bind,
    SYS_listen,
    SYS_accept4,
    SYS_execve,
    SYS_execveat,
    SYS_ptrace,
    SYS_process_vm_readv,
    SYS_process_vm_writev,
    SYS_kill,
    SYS_unlinkat,
    SYS_renameat2,
    SYS_mkdirat,
    SYS_newfstatat};

/* A thread is no process; glibc goes on without clone3. */
static void fill(filter_program* program) noexcept {
    for (const long call : DENIED) {
        decide_if(program, call, NO);
    }
    decide_if(program, SYS_clone3, SECCOMP_RET_ERRNO | ENOSYS);
    decide_if_bits(program, SYS_clone, 0, CLONE_THREAD, YES, NO);
    add(program, BPF_STMT(BPF_RET | BPF_K, YES));
}

#endif

static bool set_filter() noexcept {
    filter_program program = {};
    begin(&program);
    fill(&program);
    const sock_fprog filter = {program.count, program.steps};
    return program.count < std::size(program.steps) &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

#else

static bool set_filter() noexcept {
    return false;
}

#endif

bool reader_confine() noexcept {
    set_limits();
    return set_filter();
}
