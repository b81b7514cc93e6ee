#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <veloran/paths.h>

namespace fs = std::filesystem;

namespace {

struct scratch {
    scratch() : path(fs::temp_directory_path() / "paths-XXXXXX") {
        if (mkdtemp(path.data()) == nullptr) {
            abort();
        }
    }
    ~scratch() { fs::remove_all(path); }
    std::string path;
};

std::string resolved(const std::string& path, size_t size = PATH_MAX) {
    char buffer[PATH_MAX] = "";
    const int32_t length = paths_resolve(path.c_str(), buffer, size);
    return length < 0 ? "error" : std::string(buffer, static_cast<size_t>(length));
}

/* The roots are resolved once in a process, so each environment gets a process of its own. The
 * body answers by its exit status. */
int status_of_child(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(paths, the_roots_follow_the_environment) {
    const bool root = geteuid() == 0;
    const std::string uid = std::to_string(geteuid());
    const std::string cwd = fs::current_path();
    const struct {
        const char* run;
        const char* state;
        const char* session;
        const char* state_home;
        const char* home;
        std::string pps;
        std::string db;
    } cases[] = {
        {"/r", "/s", "/x", "/y", "/h", "/r/pps", "/s/db"},
        {"/r//", "/s/", nullptr, nullptr, nullptr, "/r/pps", "/s/db"},
        {"r", "s/t", nullptr, nullptr, nullptr, cwd + "/r/pps", cwd + "/s/t/db"},
        {"", "", "/x", "/y", "/h", root ? "/run/veloran/pps" : "/x/veloran/pps",
         root ? "/var/lib/veloran/db" : "/y/veloran/db"},
        {nullptr, nullptr, nullptr, nullptr, "/h",
         root ? "/run/veloran/pps" : "/tmp/veloran-" + uid + "/pps",
         root ? "/var/lib/veloran/db" : "/h/.local/state/veloran/db"},
    };
    const auto set = [](const char* name, const char* value) {
        value != nullptr ? setenv(name, value, 1) : unsetenv(name);
    };
    for (const auto& c : cases) {
        EXPECT_EQ(status_of_child([&] {
                      set("VELORAN_RUN", c.run);
                      set("VELORAN_STATE", c.state);
                      set("XDG_RUNTIME_DIR", c.session);
                      set("XDG_STATE_HOME", c.state_home);
                      set("HOME", c.home);
                      const bool right = resolved("/pps") == c.pps && resolved("/db") == c.db;
                      setenv("VELORAN_RUN", "/later", 1);
                      return right && resolved("/pps") == c.pps ? 0 : 1;
                  }),
                  0)
            << c.pps << " " << c.db;
    }
}

TEST(paths, only_whole_components_of_the_table_are_moved) {
    const struct {
        const char* path;
        const char* real;
    } cases[] = {
        {"/pps/services/lyrane", "/r/pps/services/lyrane"},
        {"/sys/csm/lyrane.sys/default", "/r/sys/csm/lyrane.sys/default"},
        {"/dev/sqldb/x", "/r/dev/sqldb/x"},
        {"/dev/authman", "/r/dev/authman"},
        {"/fs/tmpfs/x", "/r/fs/tmpfs/x"},
        {"/db/lyrane.db", "/s/db/lyrane.db"},
        {"/var/db/x", "/s/var/db/x"},
        {"/ppsx", "/ppsx"},
        {"/dev/null", "/dev/null"},
        {"/var/dbx", "/var/dbx"},
        {"pps/x", "pps/x"},
        {"", ""},
    };
    EXPECT_EQ(status_of_child([&] {
                  setenv("VELORAN_RUN", "/r", 1);
                  setenv("VELORAN_STATE", "/s", 1);
                  for (const auto& c : cases) {
                      if (resolved(c.path) != c.real) {
                          fprintf(stderr, "%s\n", c.path);
                          return 1;
                      }
                  }
                  const bool edge = resolved("/pps", 7) == "/r/pps" && errno == 0;
                  return edge && resolved("/pps", 6) == "error" && errno == ENAMETOOLONG ? 0 : 2;
              }),
              0);
}

TEST(paths, a_root_longer_than_any_path_resolves_nothing) {
    EXPECT_EQ(status_of_child([] {
                  setenv("VELORAN_RUN", ("/" + std::string(PATH_MAX, 'x')).c_str(), 1);
                  char failed[8];
                  return resolved("/pps/x") == "error" && errno == ENAMETOOLONG &&
                                 resolved("/etc") == "/etc" &&
                                 paths_make_roots(failed, sizeof failed) == -1
                             ? 0
                             : 1;
              }),
              0);
}

/* Makes the roots below `base` with the permissions of the service. The error number, or 0. */
int make_roots_in(const std::string& base, char* failed = nullptr, size_t size = 0) {
    setenv("VELORAN_RUN", (base + "/a/run").c_str(), 1);
    setenv("VELORAN_STATE", (base + "/b/state").c_str(), 1);
    umask(0);
    return paths_make_roots(failed, size) == 0 ? 0 : errno;
}

mode_t mode_of(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST(paths, roots_and_parents_are_made_with_narrow_modes) {
    const scratch base;
    EXPECT_EQ(status_of_child([&] {
                  return make_roots_in(base.path) + make_roots_in(base.path) +
                         (paths_make_parents((base.path + "/a/run/x/y/z").c_str()) == 0 ? 0 : 1);
              }),
              0);
    EXPECT_EQ(mode_of(base.path + "/a"), 0755u);
    EXPECT_EQ(mode_of(base.path + "/a/run"), 0755u);
    EXPECT_EQ(mode_of(base.path + "/b/state"), 0700u);
    EXPECT_EQ(mode_of(base.path + "/a/run/x/y"), 0755u);
    EXPECT_FALSE(fs::exists(base.path + "/a/run/x/y/z"));
}

TEST(paths, a_root_that_is_no_directory_of_ours_is_refused) {
    const scratch file;
    fs::create_directory(file.path + "/a");
    std::ofstream(file.path + "/a/run") << "x";
    const scratch link;
    fs::create_directory(link.path + "/a");
    fs::create_directory(link.path + "/elsewhere");
    fs::create_symlink(link.path + "/elsewhere", link.path + "/a/run");
    for (const scratch* base : {&file, &link}) {
        EXPECT_EQ(status_of_child([&] {
                      char failed[PATH_MAX];
                      const int error = make_roots_in(base->path, failed, sizeof failed);
                      return failed == base->path + "/a/run" ? error : -1;
                  }),
                  ENOTDIR);
    }
    const scratch open_to_all;
    fs::create_directories(open_to_all.path + "/a/run");
    ASSERT_EQ(chmod((open_to_all.path + "/a/run").c_str(), 0777), 0);
    EXPECT_EQ(status_of_child([&] { return make_roots_in(open_to_all.path); }), EPERM);
    if (geteuid() == 0) {
        const scratch foreign;
        fs::create_directories(foreign.path + "/a/run");
        ASSERT_EQ(chown((foreign.path + "/a/run").c_str(), 12345, 12345), 0);
        EXPECT_EQ(status_of_child([&] { return make_roots_in(foreign.path); }), EPERM);
        EXPECT_EQ(status_of_child([&] {
                      paths_set_owner(12345, 12346);
                      return make_roots_in(foreign.path);
                  }),
                  0);
    }
}

TEST(paths, what_root_makes_belongs_to_the_later_user) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    const scratch base;
    EXPECT_EQ(status_of_child([&] {
                  paths_set_owner(12345, 12346);
                  const int error = make_roots_in(base.path);
                  paths_make_parents((base.path + "/a/run/x/y").c_str());
                  const int fd = open((base.path + "/a/run/f").c_str(), O_CREAT | O_RDWR, 0600);
                  return error + (paths_hand_over(fd) == 0 ? 0 : 1);
              }),
              0);
    for (const char* path : {"/a/run", "/a/run/x", "/a/run/f", "/b/state"}) {
        struct stat status = {};
        ASSERT_EQ(stat((base.path + path).c_str(), &status), 0) << path;
        EXPECT_EQ(status.st_uid, 12345u) << path;
        EXPECT_EQ(status.st_gid, 12346u) << path;
    }
}

/* What an earlier run as root has left is given as well, but nothing that a link leads to. */
TEST(paths, what_root_left_belongs_to_the_later_user) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    const scratch base;
    fs::create_directories(base.path + "/a/run/x/y");
    fs::create_directories(base.path + "/outside/z");
    fs::create_symlink(base.path + "/outside", base.path + "/a/run/link");
    for (const char* path : {"/a/run/x/y/f", "/a/run/x/y/twice", "/outside/f", "/outside/z/f"}) {
        std::ofstream(base.path + path) << "x";
    }
    fs::create_hard_link(base.path + "/a/run/x/y/twice", base.path + "/outside/twice");
    fs::create_symlink(base.path + "/outside/f", base.path + "/a/run/x/y/to");
    EXPECT_EQ(status_of_child([&] {
                  paths_set_owner(12345, 12346);
                  int error = make_roots_in(base.path);
                  for (const char* path : {"x/y/f", "x/y/twice", "x/y/to", "link/f", "link/z/f"}) {
                      error += paths_hand_over_file((base.path + "/a/run/" + path).c_str());
                  }
                  return error;
              }),
              0);
    const struct {
        const char* path;
        uid_t owner;
    } cases[] = {{"/a", 0},         {"/a/run/x", 12345}, {"/a/run/x/y", 12345},
                 {"/outside", 0},   {"/outside/z", 0},   {"/a/run/x/y/f", 12345},
                 {"/outside/f", 0}, {"/outside/z/f", 0}, {"/a/run/x/y/twice", 0}};
    for (const auto& item : cases) {
        struct stat status = {};
        ASSERT_EQ(stat((base.path + item.path).c_str(), &status), 0) << item.path;
        EXPECT_EQ(status.st_uid, item.owner) << item.path;
    }
}

} // namespace
