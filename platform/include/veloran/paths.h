/* The table of the platform's path names.
 *
 * "/pps", "/sys/csm", "/dev/sqldb", "/dev/authman" and "/fs/tmpfs" lie under the runtime root,
 * "/db" and "/var/db" under the state root; any other path is taken as it stands.
 *
 * Runtime root: $VELORAN_RUN, else /run/veloran for root, else $XDG_RUNTIME_DIR/veloran, else
 * /tmp/veloran-UID. State root: $VELORAN_STATE, else /var/lib/veloran for root, else
 * $XDG_STATE_HOME/veloran, else ~/.local/state/veloran. A variable that is set to a relative path
 * counts from the working directory. Both roots are resolved once, at the first use, and stay,
 * whatever the process's identity, directory or environment becomes later. [any thread] */
#ifndef VELORAN_PATHS_H
#define VELORAN_PATHS_H

#include <cstddef>
#include <cstdint>

#include <sys/types.h>

extern "C" {

/* The real path of a platform path. Returns its length; -1 with errno ENAMETOOLONG when it does
 * not fit with its NUL. */
int32_t paths_resolve(const char* path, char* buffer, size_t size) noexcept;

/* The same for a client that looks for something a service made: the path under the own runtime
 * root when that is a directory of the effective user's, no link, in which not everybody may write,
 * and the path exists there or nowhere; else the one under /run/veloran, so that nobody can put a
 * service of his own before it. With $VELORAN_RUN set only the own root counts: whoever names a root
 * means that one. */
int32_t paths_resolve_existing(const char* path, char* buffer, size_t size) noexcept;

/* Makes the runtime root (mode 0755) and the state root (mode 0700) with their parents. Refuses a
 * root that is no directory (ENOTDIR), that is a symbolic link in the last place (ENOTDIR), that
 * belongs to somebody other than the effective user or the owner of paths_set_owner (EPERM), or in
 * which everybody may write, and so plant links (EPERM). 0, or -1 with errno set and the culprit,
 * cut to fit, in `failed` unless that is null. */
int32_t paths_make_roots(char* failed, size_t size) noexcept;

/* Makes the directories above a real path (mode 0755). 0, or -1 with errno set. */
int32_t paths_make_parents(const char* real_path) noexcept;

/* For a process that starts as root and goes on as somebody else: from now on the roots, every
 * directory made here, and root's own directories below the roots that are passed on the way are
 * given to that user and group, so that they can be used and removed after the change. Nothing is
 * given behind a symbolic link. Without effect in a process that is not root. [main], before any
 * other thread */
void paths_set_owner(uid_t uid, gid_t gid) noexcept;

/* Gives an open file that the process has made to the owner of paths_set_owner; does nothing
 * without one. 0, or -1 with errno set. */
int32_t paths_hand_over(int fd) noexcept;

/* The same for a file that an earlier run as root has left, by its real path: a regular file of
 * root's with one name, in a directory of that owner, who might replace it anyway. Any other one
 * stays as it is. The file is not opened: locks of this process on it stay. Directories above it
 * are made. 0, also when it stays as it is; -1 with errno set, ENOENT when there is none. */
int32_t paths_hand_over_file(const char* real_path) noexcept;

/* What the name space makes of a mode that is asked for there: it loses the bits of $VELORAN_UMASK,
 * octal up to 077, 022 unless given, read once like the roots. With 022 nobody but the service's
 * user changes what it publishes; 0 is for a system whose every process is trusted. For folders,
 * objects and databases; not for sockets, whose mode is the door. */
mode_t paths_mode(mode_t asked) noexcept;

/* The value of $VELORAN_UMASK when it is no such number, and 022 holds; null when all is well. */
const char* paths_umask_refused(void) noexcept;

/* The user to whom belongs what this thread makes in the name space: the one of paths_set_owner,
 * else the one of the thread's file identity. */
uid_t paths_user(void) noexcept;

/* The roots, without a slash at the end; empty when the variable's value is longer than any path
 * may be, and then nothing below it resolves. */
const char* paths_runtime_root(void) noexcept;
const char* paths_state_root(void) noexcept;
}

#endif
