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
 * which everybody may write, and so plant links (EPERM). Root's own directory is given to that
 * owner when it is empty, and refused otherwise (EPERM): what others have put into it is nobody's
 * to give. On the way there root follows root's links only. 0, or -1 with errno set and the
 * culprit with the reason, as in `"/run/x" (Not a directory)`, cut to fit, in `why` unless that is
 * null. */
int32_t paths_make_roots(char* why, size_t size) noexcept;

/* Makes the directories above a real path (mode 0755). Below the roots none of them may be a
 * symbolic link (ENOTDIR) or ".." (EINVAL). 0, or -1 with errno set. */
int32_t paths_make_parents(const char* real_path) noexcept;

/* The same, and opens (O_PATH) the directory that holds the last part of the path; *last is where
 * that part begins in `real_path`. The descriptor belongs to the caller. -1 with errno set. */
int32_t paths_open_parent(const char* real_path, const char** last) noexcept;

/* For a process that starts as root and goes on as somebody else: names that user, the group and
 * the `count` supplementary groups. From now on paths_make_roots gives the roots away. Without
 * effect in a process that is not root. 0, or -1 with errno set. [main], before any other
 * thread */
int32_t paths_set_owner(uid_t uid, gid_t gid, const gid_t* groups, size_t count) noexcept;

/* Between these two the calling thread, and each that it starts, opens, makes, renames and removes
 * files as the owner of paths_set_owner would, without root's power: what that user has put below
 * the roots leads root nowhere. A thread that is started in between stays so until the process
 * changes its user. The first one returns 0, or -1 with errno set and nothing changed. Both do
 * nothing without an owner, and once the process is not root's any more. */
int32_t paths_act_as_owner(void) noexcept;
void paths_act_as_self(void) noexcept;

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
