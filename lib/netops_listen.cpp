// The service side of the socket layer: listening sockets, local-domain
// sockets, and a few options of a connected socket.
#include "netops.h"

#include <netinet/tcp.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <strings.h>

#include "log.h"
#include "platform.h"
#include "syswrap.h"
#include "util.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

constexpr int k_backlog = 128;

// The port and the family are only checked: a bad one is told and the
// attempt goes on, deliberately.
void put_port(const sockaddr_storage* ss, const char* port, const char* caller)
{
    const int n = atoi(port);
    if (n < 1 || n > 65535)
        LOG_AT(ERR_level, "%s: invalid port number: %s\n", caller, port);
    auto* sa = const_cast<sockaddr_storage*>(ss);
    if (sa->ss_family == AF_INET)
        reinterpret_cast<sockaddr_in*>(sa)->sin_port = htons((uint16_t)n);
    else if (sa->ss_family == AF_INET6)
        reinterpret_cast<sockaddr_in6*>(sa)->sin6_port = htons((uint16_t)n);
    else
        LOG_AT(ERR_level, "%s: invalid network family: %d\n", caller, (int)sa->ss_family);
}

int bound_socket(const char* caller, const sockaddr_storage* ss, int type)
{
    const int fd = W_socket(caller, ss->ss_family, type, 0);
    if (fd < 0)
        return -1;
    if (plat_sock_defaults(fd, ss->ss_family) != 0 ||
        reuse_and_bind(fd, (sockaddr*)const_cast<sockaddr_storage*>(ss), saddr_size((const sockaddr*)ss)) != 0 ||
        set_nblock(fd, 1) != 0) {
        W_close(caller, fd);
        return -1;
    }
    return fd;
}

const char* on_off(int is_on)
{
    return is_on ? "ON" : "OFF";
}

}  // namespace

int open_listener(const sockaddr_storage* ss, const char* port, int defer_listen)
{
    put_port(ss, port, "open_listener");
    const int fd = bound_socket("open_listener", ss, SOCK_STREAM);
    if (fd < 0)
        return -1;
    if (!defer_listen && W_listen("open_listener", fd, k_backlog) != 0) {
        W_close("open_listener", fd);
        return -1;
    }
    return fd;
}

int open_udp_listener(const sockaddr_storage* ss, const char* port)
{
    if (port != nullptr)
        put_port(ss, port, "open_udp_listener");
    return bound_socket("open_udp_listener", ss, SOCK_DGRAM);
}

int open_anyaddr_listener(int af, const char* port, int defer_listen)
{
    socket_spec req{};
    req.passive = 1;
    req.non_blocking = 1;
    req.defer_listen = defer_listen ? 1 : 0;
    req.family = af;
    req.socktype = SOCK_STREAM;
    return open_socket(nullptr, port, &req, nullptr, nullptr);
}

int open_domain_listener(const char* path)
{
    const int fd = W_socket("open_domain_listener", AF_UNIX, SOCK_STREAM, 0);
    bool ok = fd >= 0;
    if (ok && unlink(path) != 0 && errno != ENOENT) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: unlink ERROR(%d): %s\n", "open_domain_listener", err, strerror(err));
        ok = false;
    }
    if (ok) {
        sockaddr_un sun{};
        sun.sun_family = AF_UNIX;
        strncpy(sun.sun_path, path, MAX_DOMAIN_PATH);
        ok = set_nblock(fd, 1) == 0 && W_bind("open_domain_listener", fd, (sockaddr*)&sun, sizeof(sun)) == 0 &&
             W_listen("open_domain_listener", fd, k_backlog) == 0;
    }
    if (!ok) {
        if (fd >= 0)
            W_close("open_domain_listener", fd);
        LOG_AT(ERR_level, "%s: failed for path=[%s]\n", "open_domain_listener", path);
        return -1;
    }
    LOG_AT(DEBUG_level, "%s: fd=%d is listening on [%s]\n", "open_domain_listener", fd, path);
    return fd;
}

int open_domain_client(const char* path, size_t max_attempts, long int pause_msec)
{
    LOG_ASSERT(strlen(path) < MAX_DOMAIN_PATH + 1);
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    strncpy(sun.sun_path, path, sizeof(sun.sun_path) - 1);
    size_t attempt = 0;
    while (attempt < max_attempts && !g_quit) {
        ++attempt;
        LOG_AT(DEBUG_level, "%s: attempt %ld out of %ld to connect to [%s]\n", "open_domain_client", (long)attempt,
               (long)max_attempts, path);
        const int fd = W_socket("open_domain_client", AF_UNIX, SOCK_STREAM, 0);
        if (fd < 0)
            break;
        if (connect(fd, (sockaddr*)&sun, sizeof(sun)) == 0) {
            LOG_AT(INFO_level, "%s: fd=%d connected to [%s]\n", "open_domain_client", fd, path);
            return fd;
        }
        close(fd);
        if (pause_msec > 0 && attempt < max_attempts) {
            const timespec ts{pause_msec / 1000, (pause_msec % 1000) * 1000000L};
            if (nanosleep(&ts, nullptr) != 0)
                break;
        }
    }
    LOG_AT(ERR_level, "%s: failed to connect to [%s] after %ld attempt(s)\n", "open_domain_client", path,
           (long)attempt);
    return -1;
}

int set_tcp_nodelay(int sockfd, int is_on)
{
    if (W_setsockopt("set_tcp_nodelay", sockfd, IPPROTO_TCP, TCP_NODELAY, &is_on, sizeof(is_on)) != 0)
        return -1;
    LOG_AT(INFO_level, "TCP_NODELAY turned %s for [fd=%d]\n", on_off(is_on), sockfd);
    return 0;
}

int set_tcp_nopush(int sockfd, int is_on)
{
    if (plat_tcp_nopush(sockfd, is_on) != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: setsockopt(%d, TCP_NOPUSH, %d) ERROR(%d): %s\n", "set_tcp_nopush", sockfd, is_on, err,
               strerror(err));
        errno = err;
        return -1;
    }
    LOG_AT(INFO_level, "TCP_NOPUSH turned %s for [fd=%d]\n", on_off(is_on), sockfd);
    return 0;
}

int set_keepalive(int sockfd, int optval)
{
    if (setsockopt(sockfd, SOL_SOCKET, SO_KEEPALIVE, &optval, sizeof(optval)) != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: setsockopt(fd%d, SOL_SOCKET, SO_KEEPALIVE, %d,..) ERROR(%d): %s\n", "set_keepalive",
               sockfd, optval, err, strerror(err));
        errno = err;
        return -1;
    }
    LOG_AT(DEBUG_level, "%s: [%s] for fd%d\n", "set_keepalive", on_off(optval), sockfd);
    return 0;
}

int name2af(const char* name)
{
    static constexpr const char* k_inet[] = {"inet4", "inet", "ipv4", "af_inet", "pf_inet"};
    static constexpr const char* k_inet6[] = {"inet6", "ipv6", "af_inet6", "pf_inet6"};
    static constexpr const char* k_any[] = {"", "any", "unspec", "anyaddr", "all"};
    for (const char* w : k_inet)
        if (strcasecmp(name, w) == 0)
            return AF_INET;
    for (const char* w : k_inet6)
        if (strcasecmp(name, w) == 0)
            return AF_INET6;
    for (const char* w : k_any)
        if (strcasecmp(name, w) == 0)
            return AF_UNSPEC;
    LOG_AT(ERR_level, "%s: unsupported address family [%s] in configuration.", "name2af", name);
    return -1;
}

int socket_error(int sockfd)
{
    int err = 0;
    socklen_t len = sizeof(err);
    if (getsockopt(sockfd, SOL_SOCKET, SO_ERROR, &err, &len) != 0)
        err = errno;
    if (err != 0) {
        LOG_AT(ERR_level, "%s(fd%d) ERROR(%d): %s\n", "socket_error", sockfd, err, strerror(err));
        errno = err;
    }
    return err;
}

const char* get_peer_ipaddr(int sockfd, char* buf, size_t buflen)
{
    sockaddr_storage ss{};
    socklen_t len = sizeof(ss);
    if (getpeername(sockfd, (sockaddr*)&ss, &len) != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: getpeername(fd%d,...) ERROR(%d): %s\n", "get_peer_ipaddr", sockfd, err,
               strerror(err));
        errno = err;
        return nullptr;
    }
    return saddr_str((sockaddr*)&ss, len, buf, buflen);
}
