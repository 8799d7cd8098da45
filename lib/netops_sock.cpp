// Options of one socket descriptor: blocking mode, dual stack, reuse and
// bind, time-outs, buffer sizes.
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "log.h"
#include "netops.h"
#include "platform.h"
#include "syswrap.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

// The descriptor's flags; a failure reads as all bits set.
int get_socket_flags(int sockfd)
{
    const int flags = fcntl(sockfd, F_GETFL, 0);
    if (flags == -1) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: fcntl(%d, F_GETFL, %d) ERROR(%d): %s\n", "get_socket_flags", sockfd, 0, err,
               strerror(err));
        errno = err;
    }
    return flags;
}

int set_socket_timeout(int sockfd, int optname, int ms)
{
    timeval tv{};
    tv.tv_sec = ms / 1000;
    tv.tv_usec = (ms % 1000) * 1000;
    plat_sock_timeout_value(&tv);
    return W_setsockopt("set_socket_timeout", sockfd, SOL_SOCKET, optname, &tv, sizeof(tv)) == 0 ? 0 : -1;
}

// The length goes in as a size_t of eight bytes, not as an int.
int set_socket_buflen(int sockfd, int optname, size_t length)
{
    return W_setsockopt("set_socket_buflen", sockfd, SOL_SOCKET, optname, &length, sizeof(length)) == 0 ? 0 : -1;
}

}  // namespace

int is_non_blocking(int sockfd)
{
    const int flags = fcntl(sockfd, F_GETFL, 0);
    if (flags == -1) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: fcntl(%d, F_GETFL, %d) ERROR(%d): %s\n", "is_non_blocking", sockfd, 0, err,
               strerror(err));
        errno = err;
        return -1;
    }
    return flags & O_NONBLOCK;
}

int set_nblock(int sockfd, int nblock)
{
    const bool want = nblock == 1;
    const int flags = get_socket_flags(sockfd);
    if (((flags & O_NONBLOCK) != 0) == want)
        return 0;
    const int nflags = want ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
    if (fcntl(sockfd, F_SETFL, nflags) == -1) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: fcntl(%d, F_SETFL, %d) ERROR(%d): %s\n", "set_nblock", sockfd, nflags, err,
               strerror(err));
        errno = err;
        return -1;
    }
    LOG_AT(DEBUG_level, "%s: fd%d set as %sblocking\n", "set_nblock", sockfd, want ? "non-" : "");
    return 0;
}

void set_ipv6only(int fd, int on)
{
    static const char* const fn = "set_ipv6only";
    int cur = -1;
    socklen_t len = sizeof(cur);
    if (getsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &cur, &len) != 0)
        perror("getsockopt IPV6_V6ONLY");

    if (cur == on)
        LOG_AT(INFO_level, "%s: IPV6_V6ONLY for fd=%d is already %s\n", fn, fd, on ? "ON" : "OFF");
    else if (W_setsockopt(fn, fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on)) != 0)
        LOG_AT(ERR_level, "%s: setsockopt IPV6_V6ONLY: %s\n", fn, strerror(errno));

    // Also after a successful switch to dual stack: the value read first decides.
    if (on == 0 && cur != 0)
        LOG_AT(WARN_level, "%s: server will not accept IPv4 requests\n", fn);
}

int reuse_and_bind(int sock, sockaddr* addr, socklen_t addrlen)
{
    static const char* const fn = "reuse_and_bind";
    const int on = 1;
    if (W_setsockopt(fn, sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0)
        return errno;
    // Several readers of one group and port; where the option is missing or
    // refused the address reuse above still lets them share it.
    (void)setsockopt(sock, SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on));

    if (W_bind(fn, sock, addr, addrlen) != 0 && errno != 0)
        return errno;

    // 32 bytes: a long IPv6 form is cut short in this line.
    char buf[32];
    const char* s = saddr_str(addr, addrlen, buf, sizeof(buf));
    LOG_AT(DEBUG_level, "%s: fd=%d %s OK\n", fn, sock, s ? s : "");
    if (g_mod_ll[g_llctx.mod] >= DEBUG_level)
        dump_sa_info(log_fp(&g_log), fn, addr, addrlen);
    return 0;
}

int set_rcv_timeout(int sockfd, int ms)
{
    return set_socket_timeout(sockfd, SO_RCVTIMEO, ms);
}

int set_send_timeout(int sockfd, int ms)
{
    return set_socket_timeout(sockfd, SO_SNDTIMEO, ms);
}

int set_socket_sendbuf(int sockfd, size_t length)
{
    return set_socket_buflen(sockfd, SO_SNDBUF, length);
}

int set_socket_rcvbuf(int sockfd, size_t length)
{
    return set_socket_buflen(sockfd, SO_RCVBUF, length);
}
