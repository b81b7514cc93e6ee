/* A runtime root of the test program's own, and a look at what is published there. */
#ifndef TESTS_PPS_ROOT_H
#define TESTS_PPS_ROOT_H

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>

#include <veloran/pps.h>

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

using object_owner = std::unique_ptr<pps_object, decltype(&pps_close)>;

constexpr int32_t NEW_OBJECT = O_WRONLY | O_CREAT | O_TRUNC;

inline object_owner open_object(const std::string& path, int32_t flags) {
    return {pps_open(path.c_str(), flags, 0666), &pps_close};
}

/* Updates an object: 0, or errno. */
inline int32_t update(const object_owner& object, const std::string& text) {
    return pps_write(object.get(), text.data(), text.size()) == 0 ? 0 : errno;
}

/* A directory of the test's own below /pps/services. */
inline std::string make_directory(const char* name) {
    const std::string path = std::string("/pps/services/") + name;
    EXPECT_EQ(pps_mkdir(path.c_str(), 0777), 0) << errno;
    return path;
}

/* What an object's file holds. */
inline std::string object_text(const std::string& path) {
    return file_text(real_path(path));
}

inline void plant_file(const std::string& real, const std::string& text) {
    std::ofstream(real, std::ios::binary | std::ios::trunc) << text;
}

#endif
