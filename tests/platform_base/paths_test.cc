#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

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
        std::vector<const char*> variables;
        std::string pps;
        std::string db;
    } cases[] = {
        {{"VELORAN_RUN=/r", "VELORAN_STATE=/s", "XDG_RUNTIME_DIR=/x", "XDG_STATE_HOME=/y",
          "HOME=/h"},
         "/r/pps",
         "/s/db"},
        {{"VELORAN_RUN=/r//", "VELORAN_STATE=/s/"}, "/r/pps", "/s/db"},
        {{"VELORAN_RUN=r", "VELORAN_STATE=s/t"}, cwd + "/r/pps", cwd + "/s/t/db"},
        {{"VELORAN_RUN=", "VELORAN_STATE=", "XDG_RUNTIME_DIR=/x", "XDG_STATE_HOME=/y", "HOME=/h"},
         root ? "/run/veloran/pps" : "/x/veloran/pps",
         root ? "/var/lib/veloran/db" : "/y/veloran/db"},
        {{"HOME=/h"},
         root ? "/run/veloran/pps" : "/tmp/veloran-" + uid + "/pps",
         root ? "/var/lib/veloran/db" : "/h/.local/state/veloran/db"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(status_of_child([&] {
                      clearenv();
                      for (const char* variable : c.variables) {
                          putenv(const_cast<char*>(variable));
                      }
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

/* What is no mask must not open the tree. */
TEST(paths, modes_lose_the_mask_of_the_name_space) {
    const struct {
        const char* value;
        mode_t mode; /* of the 0777 that was asked for */
        bool refused;
    } cases[] = {
        {"", 0755, false},   {"0", 0777, false},   {"027", 0750, false},
        {"77", 0700, false}, {"100", 0755, true},  {"089", 0755, true},
        {"-1", 0755, true},  {"022 ", 0755, true}, {"open", 0755, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(status_of_child([&] {
                      setenv("VELORAN_UMASK", c.value, 1);
                      const bool right = paths_mode(0777) == c.mode && paths_mode(0600) == 0600;
                      return right && (paths_umask_refused() != nullptr) == c.refused ? 0 : 1;
                  }),
                  0)
            << c.value;
    }
}

/* Somebody makes the place first where another user's clients look for the service. */
TEST(paths, clients_trust_no_root_of_somebody_else) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    constexpr uid_t USER = 12345;
    const scratch base;
    fs::permissions(base.path, fs::perms{0755});
    const std::string own = base.path + "/veloran";
    const auto chosen = [&] {
        return status_of_child([&] {
            clearenv();
            setenv("XDG_RUNTIME_DIR", base.path.c_str(), 1);
            char real[PATH_MAX] = "";
            if (setresuid(USER, USER, USER) != 0 ||
                paths_resolve_existing("/sys/csm/x", real, sizeof real) < 0) {
                return 2;
            }
            return real == own + "/sys/csm/x"                      ? 1
                   : real == std::string("/run/veloran/sys/csm/x") ? 0
                                                                   : 3;
        });
    };
    EXPECT_EQ(chosen(), 0) << "no root";
    fs::create_directories(own + "/sys/csm/x");
    EXPECT_EQ(chosen(), 0) << "a stranger's";
    ASSERT_EQ(chown(own.c_str(), USER, USER), 0);
    EXPECT_EQ(chosen(), 1);
    fs::permissions(own, fs::perms::all);
    EXPECT_EQ(chosen(), 0) << "open to all";
    fs::permissions(own, fs::perms{0755});
    fs::rename(own, base.path + "/behind");
    fs::create_symlink(base.path + "/behind", own);
    EXPECT_EQ(chosen(), 0) << "a link";
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
    const struct {
        const char* what;
        std::function<void(const std::string&)> plant;
        int error;
        const char* reason = "Not a directory";
    } cases[] = {
        {"file", [](const std::string& run) { std::ofstream(run) << "x"; }, ENOTDIR},
        {"link", [](const std::string& run) { fs::create_symlink("..", run); }, ENOTDIR},
        {"open to all",
         [](const std::string& run) {
             fs::create_directory(run);
             fs::permissions(run, fs::perms::all);
         },
         EPERM, "everybody may write"},
        {"foreign",
         [](const std::string& run) {
             fs::create_directory(run);
             ASSERT_EQ(chown(run.c_str(), 12345, 12345), geteuid() == 0 ? 0 : -1);
         },
         geteuid() == 0 ? EPERM : 0, "belongs to another user"},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        const scratch base;
        const std::string run = base.path + "/a/run";
        fs::create_directory(base.path + "/a");
        item.plant(run);
        EXPECT_EQ(status_of_child([&] {
                      char why[PATH_MAX] = "";
                      const int error = make_roots_in(base.path, why, sizeof why);
                      const std::string said = why;
                      const bool is_told = said.starts_with('"' + run + '"') &&
                                           said.find(item.reason) != std::string::npos;
                      return error == 0 || is_told ? error : -1;
                  }),
                  item.error);
    }
}

struct stat status_at(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

/* Root gives away what is empty, makes the rest as the user, and goes through no link of theirs. */
TEST(paths, root_works_below_the_roots_as_the_later_user) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    const scratch base;
    const std::string run = base.path + "/a/run";
    const std::string state = base.path + "/b/state";
    fs::create_directories(run);
    fs::permissions(base.path, fs::perms::others_exec, fs::perm_options::add);
    fs::create_directory(base.path + "/vault");
    std::ofstream(base.path + "/vault/f") << "x";
    EXPECT_EQ(status_of_child([&] {
                  const gid_t groups[] = {12346, 12347};
                  int error = paths_set_owner(12345, 12346, groups, 2);
                  error += make_roots_in(base.path);
                  error += symlink((base.path + "/vault").c_str(), (run + "/link").c_str());
                  error += paths_act_as_owner();
                  error += paths_make_parents((run + "/new/x").c_str());
                  error += paths_make_parents((run + "/link/x").c_str()) == -1 ? 0 : 10;
                  error += paths_make_parents((run + "/new/../x").c_str()) == -1 ? 0 : 20;
                  error += unlink((base.path + "/vault/f").c_str()) == -1 ? 0 : 40;
                  paths_act_as_self();
                  return error + unlink((base.path + "/vault/f").c_str());
              }),
              0);
    for (const std::string& given : {run, state, run + "/new"}) {
        EXPECT_EQ(status_at(given).st_uid, 12345u) << given;
        EXPECT_EQ(status_at(given).st_gid, 12346u) << given;
    }
    EXPECT_EQ(status_at(base.path + "/a").st_uid, 0u);

    ASSERT_EQ(chown(run.c_str(), 0, 0), 0); /* with what others have in it */
    EXPECT_EQ(status_of_child([&] {
                  char why[PATH_MAX] = "";
                  (void)paths_set_owner(12345, 12346, nullptr, 0);
                  const int error = make_roots_in(base.path, why, sizeof why);
                  return std::string(why).find("not empty") != std::string::npos ? error : -1;
              }),
              EPERM);
    EXPECT_EQ(status_at(run).st_uid, 0u);
}

} // namespace
