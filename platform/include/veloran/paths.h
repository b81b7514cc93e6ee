/* The table of the platform's path names.
 *
 * "/pps", "/sys/csm", "/dev/sqldb", "/dev/authman" and "/fs/tmpfs" lie under the runtime root,
 * "/db" and "/var/db" under the state root; any other path is taken as it stands.
 *
 * Runtime root: $VELORAN_RUN, else /run/veloran for root, else $XDG_RUNTIME_DIR/veloran, else
 * /tmp/veloran-UID. State root: $VELORAN_STATE, else /var/lib/veloran for root, else
 * $XDG_STATE_HOME/veloran, else ~/.local/state/veloran. Both are resolved once, at the first use,
 * and stay, whatever the process's identity becomes later. [any thread] */
#ifndef VELORAN_PATHS_H
#define VELORAN_PATHS_H

#include <cstddef>
#include <cstdint>

extern "C" {

/* The real path of a platform path. Returns its length; -1 with errno ENAMETOOLONG when it does
 * not fit with its NUL. */
int32_t paths_resolve(const char* path, char* buffer, size_t size) noexcept;

/* The same for a client that looks for something a service made: the path under the own runtime
 * root when that exists, else the one under /run/veloran when that exists, else the former. */
int32_t paths_resolve_existing(const char* path, char* buffer, size_t size) noexcept;

/* Makes the runtime root (mode 0755) and the state root (mode 0700) with their parents. Refuses a
 * root that another user owns (EPERM). 0, or -1 with errno set and the culprit in `failed`, which
 * holds at least 256 bytes or is null. */
int32_t paths_make_roots(char* failed, size_t size) noexcept;

/* Makes the directories above a real path (mode 0755). 0, or -1 with errno set. */
int32_t paths_make_parents(const char* real_path) noexcept;

const char* paths_runtime_root(void) noexcept;
const char* paths_state_root(void) noexcept;
}

#endif
