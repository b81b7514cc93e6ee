/* What one update of an object costs.
 *
 * publish_write  over a bare open, write and rename of the same bytes in the same directories; the
 *                object has the attributes of the one that changes most, the position of a track
 */
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <lyrane/plugin.h>
#include <unistd.h>

#include "bench.h"
#include "ppsdir.h"

namespace {

constexpr int PAIRS = 101;
constexpr int ROUNDS = 200;

struct bare_place {
    int stage;
    int place;
    std::string text;
};

/* The reference: the bytes that the object's file holds, by hand. */
void bare_update(const bare_place& bare) {
    const int fd = openat(bare.stage, "bare", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0777);
    if (fd < 0 || write(fd, bare.text.data(), bare.text.size()) < 0 || close(fd) != 0 ||
        renameat(bare.stage, "bare", bare.place, "bare") != 0) {
        bench_give_up("cannot write");
    }
}

void update(lyr_ppswriter* object, int64_t position) {
    lyr_ppswriter_write_attr(object, "position", (":n:" + std::to_string(position)).c_str());
    (void)lyr_ppswriter_flush(object);
}

} // namespace

int main(int argc, char** argv) {
    bench_begin(argc, argv);
    bench_pin();
    bench_use_memory();
    const std::string root = bench_folder();
    setenv("VELORAN_RUN", root.c_str(), 1);
    int32_t error = 0;
    lyr_ppsdir* dir = lyr_ppsdir_makeroot("/pps/services/bench", &error);
    lyr_ppswriter* object = lyr_ppswriter_create(dir, "status", -1, &error);
    int64_t position = 100000;
    update(object, position);
    const bare_place bare = {open((root + "/pps/.stage").c_str(), O_RDONLY | O_DIRECTORY),
                             open((root + "/pps/services/bench").c_str(), O_RDONLY | O_DIRECTORY),
                             "@status\nposition:n:" + std::to_string(position) + "\n"};
    const double ratio = bench_ratio(
        PAIRS, [&] { return bench_rounds(ROUNDS, [&] { update(object, ++position); }); },
        [&] { return bench_rounds(ROUNDS, [&] { bare_update(bare); }); });
    bench_figure("publish_write", ratio, "ratio");
    unlinkat(bare.place, "bare", 0);
    lyr_ppswriter_remove(object);
    lyr_ppsdir_remove(dir);
    return 0;
}
