/* A runtime root of the test program's own, and a look at what is published there. */
#ifndef TESTS_PPS_ROOT_H
#define TESTS_PPS_ROOT_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

/* Made before the first test, emptied for each repetition, removed at the end of the program. */
struct pps_root : ::testing::EmptyTestEventListener {
    std::string path;
    pps_root() {
        char name[] = "/tmp/lyrane-pps-XXXXXX";
        path = mkdtemp(name);
        setenv("VELORAN_RUN", name, 1);
        setenv("VELORAN_SLOG", ("file:" + path + "/log").c_str(), 1);
    }
    ~pps_root() override { std::filesystem::remove_all(path); }
    void OnTestIterationStart(const ::testing::UnitTest&, int) override {
        std::filesystem::remove_all(path + "/pps");
    }
};

inline const pps_root* make_root() {
    auto* root = new pps_root; /* the test framework owns it */
    ::testing::UnitTest::GetInstance()->listeners().Append(root);
    return root;
}
inline const pps_root* const the_root = make_root();

/* The real path of a path below "/pps". */
inline std::string real_path(const std::string& path) {
    return the_root->path + path;
}

inline std::string file_text(const std::string& real) {
    std::ifstream file(real, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/* What an object's file holds. */
inline std::string object_text(const std::string& path) {
    return file_text(real_path(path));
}

inline void plant_file(const std::string& real, const std::string& text) {
    std::ofstream(real, std::ios::binary | std::ios::trunc) << text;
}

#endif
