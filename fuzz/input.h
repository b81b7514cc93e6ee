/* Reading a fuzz input, and what the targets say when something is wrong.
 *
 * A target is one file with LLVMFuzzerTestOneInput, and LLVMFuzzerInitialize where it sets
 * something up. The fuzzing engine runs it, or replay.cc with the inputs that are kept. Behind the
 * end of its bytes an input gives zeros, so that every input is one. */
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

struct fuzz_input {
    const uint8_t* at;
    size_t left;
};

inline uint8_t input_u8(fuzz_input* input) {
    if (input->left == 0) {
        return 0;
    }
    --input->left;
    return *input->at++;
}

inline uint16_t input_u16(fuzz_input* input) {
    const unsigned low = input_u8(input);
    return static_cast<uint16_t>(low | static_cast<unsigned>(input_u8(input)) << 8);
}

inline uint32_t input_u32(fuzz_input* input) {
    const uint32_t low = input_u16(input);
    return low | static_cast<uint32_t>(input_u16(input)) << 16;
}

/* The next `size` bytes, or as many as there are. */
inline std::string input_bytes(fuzz_input* input, size_t size) {
    size = std::min(size, input->left);
    std::string bytes(reinterpret_cast<const char*>(input->at), size);
    input->at += size;
    input->left -= size;
    return bytes;
}

/* Ends the run as a finding unless `holds`. */
inline void require(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "broken: %s\n", what);
        abort();
    }
}

/* A folder of this process's own, removed when it ends in order, with the runtime and the state
 * root in it and the log going nowhere. Called first, by LLVMFuzzerInitialize. */
const std::string& fuzz_root(void);

#endif
