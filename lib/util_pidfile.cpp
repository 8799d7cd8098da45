// Pid files. The lock is the protocol: a pid file counts as live while its
// owner holds a write lock on it, whatever it holds, so a crashed owner
// never blocks a restart.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "log.h"
#include "syswrap.h"
#include "util.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

constexpr size_t PID_TEXT_MAX = 21;

// Truncates the locked file and writes the pid; 0 or the failing result.
int write_pid(int fd, pid_t pid)
{
    static const char* const fn = "create_pidfile_extra";
    if (const int rc = W_ftruncate(fn, fd, 0); rc != 0)
        return rc;
    char text[PID_TEXT_MAX + 1];
    const int n = snprintf(text, PID_TEXT_MAX, "%ld", (long)pid);
    if (n <= 0 || n >= (int)PID_TEXT_MAX) {
        LOG_AT(ERR_level, "%s: ERROR(%d) or not enough space for pid\n", fn, n);
        return -1;
    }
    const ssize_t w = W_write_f(fn, fd, text, (size_t)n, 0);
    return (w == n) ? 0 : -1;
}

}  // namespace

int create_pidfile_extra(const char* fpath, pid_t pid, ino_t* inode, unsigned flags)
{
    static const char* const fn = "create_pidfile_extra";
    LOG_ASSERT(pid >= 1 && fpath != nullptr);
    if (fpath[0] == '\0') {
        LOG_AT(ERR_level, "%s: no path specified\n", fn);
        return -1;
    }
    const bool hush = (flags & CPFX_HUSH) != 0;
    errno = 0;
    // Not truncated before the lock is held: a running owner's file stays whole.
    const int fd = W_open(fn, fpath, O_WRONLY | O_CREAT | O_NOCTTY, 0644);
    if (fd < 0)
        return -1;

    int rc = 0;
    flock lk{};
    lk.l_type = F_WRLCK;
    lk.l_whence = SEEK_SET;
    if (fcntl(fd, F_SETLK, &lk) != 0) {
        const int err = errno;
        if (err == EACCES || err == EAGAIN) {
            if (hush)
                LOG_AT(ERR_level, "Another instance is already running\n");
            else
                LOG_AT(ERR_level, "%s: file [%s] is locked (another instance of daemon must be running)\n", fn,
                       fpath);
        } else {
            LOG_AT(ERR_level, "fcntl write-lock ERROR(%d): %s\n", err, strerror(err));
        }
        rc = -1;
    }
    if (rc == 0)
        rc = write_pid(fd, pid);
    if (rc == 0 && inode != nullptr) {
        struct stat st;
        if (fstat(fd, &st) != 0) {
            const int err = errno;
            LOG_AT(ERR_level, "%s: fstat(fd%d,..) ERROR(%d): %s\n", fn, fd, err, strerror(err));
            rc = -1;
        } else {
            *inode = st.st_ino;
        }
    }
    if (rc != 0) {
        (void)W_close(fn, fd);
        if (!hush)
            LOG_AT(ERR_level, "%s: failed to create pidfile [%s] with pid=%ld.\n", fn, fpath, (long)pid);
        return rc;
    }
    // The descriptor stays open: closing it would drop the lock.
    if (!hush)
        LOG_AT(INFO_level, "Created pidfile [%s] with pid=%ld.\n", fpath, (long)pid);
    return 0;
}

char* mk_pidfile_name(const char* dir, const char* app, const char* strid, long numid, char* buf, size_t buflen)
{
    static const char* const fn = "mk_pidfile_name";
    if (access(dir, W_OK) != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: directory [%s] is not writable: ERROR(%d): %s\n", fn, dir, err, strerror(err));
        return nullptr;
    }
    int n;
    if (strid == nullptr)
        n = snprintf(buf, buflen, "%s/%s-%ld.pid", dir, app, numid);
    else if (numid < 0)
        n = snprintf(buf, buflen, "%s/%s-%s.pid", dir, app, strid);
    else
        n = snprintf(buf, buflen, "%s/%s-%s%ld.pid", dir, app, strid, numid);
    if (n >= 1 && (size_t)n < buflen) {
        buf[n] = '\0';
        return buf;
    }
    LOG_AT(ERR_level, "%s: %d bytes needed for filename, only %ld available.\n", fn, n, (long)buflen);
    return nullptr;
}
