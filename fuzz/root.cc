#include <filesystem>

#include <veloran/paths.h>
#include <veloran/slog.h>

#include "input.h"

const std::string& fuzz_root(void) {
    static const std::string root = [] {
        std::string pattern = std::filesystem::temp_directory_path() / "lyrane-fuzz-XXXXXX";
        require(mkdtemp(pattern.data()) != nullptr, "a folder for the run");
        setenv("VELORAN_RUN", (pattern + "/run").c_str(), 1);
        setenv("VELORAN_STATE", (pattern + "/state").c_str(), 1);
        setenv("VELORAN_SLOG", ("unix:" + pattern + "/nobody").c_str(), 1);
        slog_open("fuzz");
        require(paths_make_roots(nullptr, 0) == 0, "the roots of the name space");
        return pattern;
    }();
    static const int removal = atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(fuzz_root(), ignored);
    });
    (void)removal;
    return root;
}
