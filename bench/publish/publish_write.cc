/* What one update of an object costs over a bare open, write and rename of the same bytes in the
 * same directory. Runs in a runtime root of its own, in the directory that holds runtime roots. */
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <lyrane/plugin.h>
#include <unistd.h>
#include <veloran/pps.h>

#include "ppsdir.h"

namespace {

struct bench_root {
    std::string path;
    lyr_ppsdir* dir = nullptr;
};
bench_root root;

/* Two lengths in turn would need a merge that changes every line; one changes, as with the
 * position of a track. */
const char* position_text(int64_t step) {
    return (step & 1) != 0 ? ":n:123456" : ":n:123457";
}

} // namespace

static void set_attributes(lyr_ppswriter* object, int64_t count) {
    for (int64_t i = 1; i < count; ++i) {
        lyr_ppswriter_write_attr(object, ("attribute" + std::to_string(i)).c_str(), "::value");
    }
}

/* The service's way: set one attribute, flush. The argument is the number of attributes. */
static void publish_attribute(benchmark::State& state) {
    int32_t error = 0;
    lyr_ppswriter* object = lyr_ppswriter_create(root.dir, "bench", -1, &error);
    set_attributes(object, state.range(0));
    int64_t step = 0;
    for (auto _ : state) {
        lyr_ppswriter_write_attr(object, "position", position_text(step++));
        lyr_ppswriter_flush(object);
    }
    lyr_ppswriter_remove(object);
}
BENCHMARK(publish_attribute)->Arg(1)->Arg(4)->Arg(11);

/* The reference: the bytes that the object's file holds, by hand. */
static void bare_open_write_rename(benchmark::State& state) {
    std::string text = "@bench\n";
    for (int64_t i = 1; i < state.range(0); ++i) {
        text += "attribute" + std::to_string(i) + "::value\n";
    }
    text += "position:n:123456\n";
    const int stage = open((root.path + "/pps/.stage").c_str(), O_RDONLY | O_DIRECTORY);
    const int place = open((root.path + "/pps/services/bench").c_str(), O_RDONLY | O_DIRECTORY);
    for (auto _ : state) {
        const int fd = openat(stage, "bare", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0777);
        if (fd < 0 || write(fd, text.data(), text.size()) < 0 || close(fd) != 0 ||
            renameat(stage, "bare", place, "bare") != 0) {
            state.SkipWithError("cannot write");
            break;
        }
    }
    unlinkat(place, "bare", 0);
    close(stage);
    close(place);
}
BENCHMARK(bare_open_write_rename)->Arg(1)->Arg(4)->Arg(11);

int main(int argc, char** argv) {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::string name = runtime != nullptr ? runtime : "/dev/shm";
    name += "/lyrane-bench-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        std::perror(name.c_str());
        return 1;
    }
    setenv("VELORAN_RUN", name.c_str(), 1);
    root.path = name;
    int32_t error = 0;
    root.dir = lyr_ppsdir_makeroot("/pps/services/bench", &error);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    lyr_ppsdir_remove(root.dir);
    std::filesystem::remove_all(name);
    return 0;
}
