/* The calls that can be made to fail, and where they are counted. */
#ifndef FAULT_LAYER_H
#define FAULT_LAYER_H

#include <atomic>
#include <cstdint>

enum fault_call : int32_t {
    FAULT_ALLOCATE,
    FAULT_OPEN,
    FAULT_WRITE,
    FAULT_RENAME,
    FAULT_SYNC,
    FAULT_ACCEPT,
    FAULT_THREAD,
    FAULT_DLOPEN,
    FAULT_CALLS
};

/* A file of this form, named by FAULT_FILE, is shared by the test and the process under test. */
struct fault_plan {
    int32_t call;   /* the one that fails; FAULT_CALLS: none */
    int64_t number; /* its how-manieth call fails, from 1 on */
    std::atomic<int64_t> counts[FAULT_CALLS];
};

#endif
