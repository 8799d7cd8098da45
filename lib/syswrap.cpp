// Checked system calls. On success a wrapper costs the call and one
// comparison; only a failure is formatted, and errno leaves every wrapper as
// the wrapped call left it, whatever the logger did in between.
#include "syswrap.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "platform.h"

LOG_UNIT(LLMOD_SYSWRAP);

// Logs the failure line of a wrapper: fmt takes the caller, the call's
// arguments, then the error number and its text. The caller's errno is put
// back afterwards.
#define SYSW_FAIL(err, fmt, ...)                                           \
    do {                                                                   \
        LOG_AT(ERR_level, fmt, caller, __VA_ARGS__, (err), strerror(err)); \
        errno = (err);                                                     \
    } while (0)

// The ordinary events of I/O, by name: their numbers differ between
// platforms (EAGAIN and ECONNRESET above all).
bool no_fault(int err, uint32_t guilty)
{
    if (guilty != 0)
        return false;
    return err == EINTR || err == EPIPE || err == EAGAIN || err == EWOULDBLOCK || err == ECONNRESET;
}

int W_close(const char* caller, int fd)
{
    const int rc = close(fd);
    const int err = errno;
    if (rc != 0)
        SYSW_FAIL(err, "%s: close(fd%d) ERROR(%d): %s\n", fd);
    else {
        LOG_AT(DEBUG_level, "%s: CLOSED(fd%d)\n", caller, fd);
        errno = err;
    }
    return rc;
}

void* W_calloc(const char* caller, size_t nmemb, size_t size)
{
    void* p = calloc(nmemb, size);
    if (p == nullptr) {
        const int err = errno;
        SYSW_FAIL(err, "%s: calloc(%ld, %ld) ERROR(%d): %s\n", (long)nmemb, (long)size);
    }
    return p;
}

void* W_realloc(const char* caller, void* ptr, size_t size)
{
    void* p = realloc(ptr, size);
    if (p == nullptr) {
        const int err = errno;
        SYSW_FAIL(err, "%s: realloc(%p, %ld) ERROR(%d): %s\n", ptr, (long)size);
    }
    return p;
}

off_t W_lseek(const char* caller, int fd, off_t offset, int whence)
{
    const off_t rc = lseek(fd, offset, whence);
    if (rc == -1) {
        const int err = errno;
        SYSW_FAIL(err, "%s: lseek(%d, %ld, %d) ERROR(%d): %s\n", fd, (long)offset, whence);
    }
    return rc;
}

int W_unlink(const char* caller, const char* pathname)
{
    const int rc = unlink(pathname);
    if (rc == -1) {
        const int err = errno;
        SYSW_FAIL(err, "%s: unlink(%s) ERROR(%d): %s\n", pathname);
    }
    return rc;
}

int W_ftruncate(const char* caller, int fd, off_t length)
{
    const int rc = ftruncate(fd, length);
    if (rc == -1) {
        const int err = errno;
        SYSW_FAIL(err, "%s: ftruncate(%d, %ld) ERROR(%d): %s\n", fd, (long)length);
    }
    return rc;
}

// Callers that create files mostly have no mode to give: 0 stands for the
// usual rw-r--r--. The line shows the mode as the caller gave it.
int W_open(const char* caller, const char* pathname, int flags, mode_t mode)
{
    const int rc = open(pathname, flags, mode ? mode : 0644);
    if (rc == -1) {
        const int err = errno;
        SYSW_FAIL(err, "%s: open('%s', %d, 0x%lx) ERROR(%d): %s\n", pathname, flags, (unsigned long)mode);
    }
    return rc;
}

// A non-blocking connect that is under way is no failure; it is told once,
// under this wrapper's own name.
int W_connect(const char* caller, int sockfd, const sockaddr* addr, socklen_t addrlen)
{
    const int rc = connect(sockfd, addr, addrlen);
    if (rc != 0) {
        const int err = errno;
        if (err == EINPROGRESS) {
            LOG_AT(INFO_level, "%s: non-blocking connect in progress for fd%d\n", "W_connect", sockfd);
            errno = err;
        } else
            SYSW_FAIL(err, "%s: connect(%d, %p, %ld) ERROR(%d): %s\n", sockfd, (const void*)addr,
                      (long)addrlen);
    }
    return rc;
}

ssize_t W_write_f(const char* caller, int fd, const void* buf, size_t count, uint32_t flags)
{
    const ssize_t rc = write(fd, buf, count);
    if (rc == -1) {
        const int err = errno;
        if (!no_fault(err, flags))
            SYSW_FAIL(err, "%s: write(%d, %p, %ld) ERROR(%d): %s\n", fd, buf, (long)count);
    }
    return rc;
}

ssize_t W_read_f(const char* caller, int fd, void* buf, size_t count, uint32_t flags)
{
    const ssize_t rc = read(fd, buf, count);
    if (rc == -1) {
        const int err = errno;
        if (!no_fault(err, flags))
            SYSW_FAIL(err, "%s: read(%d, %p, %ld) ERROR(%d): %s\n", fd, buf, (long)count);
    }
    return rc;
}

ssize_t W_pread_f(const char* caller, int fd, void* buf, size_t count, off_t offset, uint32_t flags)
{
    const ssize_t rc = pread(fd, buf, count, offset);
    if (rc == -1) {
        const int err = errno;
        if (!no_fault(err, flags))
            SYSW_FAIL(err, "%s: pread(%d, %p, %ld, %ld) ERROR(%d): %s\n", fd, buf, (long)count, (long)offset);
    }
    return rc;
}

int W_socket(const char* caller, int domain, int type, int protocol)
{
    const int rc = socket(domain, type, protocol);
    const int err = errno;
    if (rc == -1)
        SYSW_FAIL(err, "%s: socket(%d, %d, %d) ERROR(%d): %s\n", domain, type, protocol);
    else {
        LOG_AT(DEBUG_level, "%s opened socket fd=%d (%d, %d, %d)\n", caller, rc, domain, type, protocol);
        errno = err;
    }
    return rc;
}

int W_getsockopt(const char* caller, int sockfd, int level, int optname, void* optval, socklen_t* optlen)
{
    const int rc = getsockopt(sockfd, level, optname, optval, optlen);
    if (rc == -1) {
        const int err = errno;
        SYSW_FAIL(err, "%s: getsockopt(%d, %d, %d, %p, %ld) ERROR(%d): %s\n", sockfd, level, optname, optval,
                  optlen ? (long)*optlen : 0L);
    }
    return rc;
}

int W_setsockopt(const char* caller, int sockfd, int level, int optname, const void* optval, socklen_t optlen)
{
    const int rc = setsockopt(sockfd, level, optname, optval, optlen);
    if (rc == -1) {
        const int err = errno;
        SYSW_FAIL(err, "%s: setsockopt(%d, %d, %d, %p, %ld) ERROR(%d): %s\n", sockfd, level, optname, optval,
                  (long)optlen);
    }
    return rc;
}

int W_bind(const char* caller, int sockfd, const sockaddr* addr, socklen_t addrlen)
{
    const int rc = bind(sockfd, addr, addrlen);
    if (rc == -1) {
        const int err = errno;
        SYSW_FAIL(err, "%s: bind(%d, %p, %ld): ERROR(%d): %s\n", sockfd, (const void*)addr, (long)addrlen);
    }
    return rc;
}

int W_listen(const char* caller, int sockfd, int backlog)
{
    const int rc = listen(sockfd, backlog);
    if (rc == -1) {
        const int err = errno;
        SYSW_FAIL(err, "%s: listen(%d, %d) ERROR(%d): %s\n", sockfd, backlog);
    }
    return rc;
}

// Only a result of -1 is told here; the resolver's other answers (no such
// name and the like) are for the caller to word. With glibc's negative codes
// -1 is EAI_BADFLAGS, a fault of the calling code.
int W_getaddrinfo(const char* caller, const char* node, const char* service, const addrinfo* hints,
                  addrinfo** res)
{
    const int rc = plat_getaddrinfo(node, service, hints, res);
    if (rc == -1) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: getaddrinfo(%s, %s, %p, %p): ERROR(%d:%d): %s\n", caller, node, service,
               (const void*)hints, (void*)res, rc, err, gai_strerror(rc));
        errno = err;
    }
    return rc;
}

// An interrupted select is the usual way a signal ends a wait: it is told
// only when this module is at DEBUG.
int W_select(const char* caller, int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
             timeval* timeout)
{
    const int rc = select(nfds, readfds, writefds, exceptfds, timeout);
    if (rc == -1) {
        const int err = errno;
        if (err != EINTR || g_mod_ll[LLMOD_SYSWRAP] >= DEBUG_level)
            SYSW_FAIL(err, "%s: select(%d, %p, %p, %p, %p) ERROR(%d): %s\n", nfds, (void*)readfds,
                      (void*)writefds, (void*)exceptfds, (void*)timeout);
    }
    return rc;
}

// A non-blocking listener with nobody waiting is no failure.
int W_accept(const char* caller, int s, sockaddr* addr, socklen_t* addrlen)
{
    const int rc = accept(s, addr, addrlen);
    if (rc == -1) {
        const int err = errno;
        if (err != EAGAIN && err != EWOULDBLOCK)
            SYSW_FAIL(err, "%s: accept(%d, %p, %ld) ERROR(%d): %s\n", s, (void*)addr,
                      addrlen ? (long)*addrlen : 0L);
    }
    return rc;
}

int W_poll(const char* caller, pollfd* fds, nfds_t nfds, int timeout)
{
    const int rc = poll(fds, nfds, timeout);
    const int err = errno;
    if (rc == -1)
        SYSW_FAIL(err, "%s: poll(%p, %ld, %d) ERROR(%d): %s\n", (void*)fds, (long)nfds, timeout);
    else if (rc == 0) {
        LOG_AT(WARN_level, "%s: poll() has timed out after %d ms\n", caller, timeout);
        errno = err;
    }
    return rc;
}

// A non-blocking send that moved part of the data is no failure: it comes
// back as -1 with errno 0, and the caller takes the count from *sbytes.
int W_sendfile_f(const char* caller, int out_fd, int in_fd, off_t offset, size_t count, sf_hdtr_t* hdtr,
                 off_t* sbytes, int flags, uint32_t fflags)
{
    const int rc = plat_sendfile(in_fd, out_fd, offset, count, hdtr, sbytes, flags);
    if (rc == -1) {
        const int err = errno;
        if (err == EAGAIN && sbytes && *sbytes > 0) {
            errno = 0;
            return rc;
        }
        if (no_fault(err, fflags))
            return rc;
        SYSW_FAIL(err, "%s: BSD sendfile(%d<-%d, %ld, %ld, %p, %ld, 0x%x) ERROR(%d): %s\n", out_fd, in_fd,
                  (long)offset, (long)count, (void*)hdtr, sbytes ? (long)*sbytes : 0L, (unsigned)flags);
    }
    return rc;
}

int W_dup2(const char* caller, int oldfd, int newfd)
{
    const int rc = dup2(oldfd, newfd);
    if (rc == -1) {
        const int err = errno;
        SYSW_FAIL(err, "%s: dup2(%d, %d) ERROR(%d): %s\n", oldfd, newfd);
    }
    return rc;
}

int W_pipe(const char* caller, int pipefd[2])
{
    const int rc = pipe(pipefd);
    if (rc == -1) {
        const int err = errno;
        SYSW_FAIL(err, "%s: pipe([%d,%d]) ERROR(%d): %s\n", pipefd[0], pipefd[1]);
    }
    return rc;
}

pid_t W_fork(const char* caller)
{
    const pid_t rc = fork();
    if (rc == -1) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: fork() ERROR(%d): %s\n", caller, err, strerror(err));
        errno = err;
    }
    return rc;
}

int W_kill(const char* caller, pid_t pid, int sig)
{
    const int rc = kill(pid, sig);
    if (rc != 0) {
        const int err = errno;
        SYSW_FAIL(err, "%s: kill(%ld, %d) ERROR(%d): %s\n", (long)pid, sig);
    }
    return rc;
}

// Nothing sent counts as a failure too; errno then holds whatever it held.
ssize_t W_sendto(const char* caller, int sockfd, const void* buf, size_t len, int flags,
                 const sockaddr* dest_addr, socklen_t addrlen)
{
    const ssize_t rc = sendto(sockfd, buf, len, flags, dest_addr, addrlen);
    if (rc <= 0) {
        const int err = errno;
        SYSW_FAIL(err, "%s: sendto(%d, %p, %lu, %d, ...) ERROR(%d): %s\n", sockfd, buf, (unsigned long)len,
                  flags);
    }
    return rc;
}

// An empty datagram counts as a failure too; errno then holds whatever it held.
ssize_t W_recvfrom(const char* caller, int sockfd, void* buf, size_t len, int flags, sockaddr* src_addr,
                   socklen_t* addrlen)
{
    const ssize_t rc = recvfrom(sockfd, buf, len, flags, src_addr, addrlen);
    if (rc <= 0) {
        const int err = errno;
        SYSW_FAIL(err, "%s: recvfrom(%d, %p, %lu, %d, ...) ERROR(%d): %s\n", sockfd, buf, (unsigned long)len,
                  flags);
    }
    return rc;
}
