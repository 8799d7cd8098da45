// Socket addresses: families, tests, copies and numeric texts.
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "netops.h"
#include "platform.h"
#include "syswrap.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

// Sizes of the numeric texts getnameinfo fills.
constexpr size_t NI_HOST_LEN = 1025;
constexpr size_t NI_SERV_LEN = 32;
// The longest local-socket path that stands in for a host.
constexpr size_t LOCAL_PATH_MAX = 1024;

constexpr int NI_NUMERIC = NI_NUMERICHOST | NI_NUMERICSERV;

socklen_t family_len(const char* caller, const sockaddr* sa)
{
    switch (sa->sa_family) {
    case AF_INET:
        return sizeof(sockaddr_in);
    case AF_INET6:
        return sizeof(sockaddr_in6);
    default:
        LOG_AT(ERR_level, "%s: unrecognized socket family: %d\n", caller, sa->sa_family);
        return static_cast<socklen_t>(-1);
    }
}

// Address bytes and their count for the two families handled; null for
// any other, after the line.
const uint8_t* addr_bytes(const char* caller, const sockaddr* sa, size_t* n)
{
    switch (sa->sa_family) {
    case AF_INET:
        *n = sizeof(in_addr);
        return reinterpret_cast<const uint8_t*>(&reinterpret_cast<const sockaddr_in*>(sa)->sin_addr);
    case AF_INET6:
        *n = sizeof(in6_addr);
        return reinterpret_cast<const uint8_t*>(&reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr);
    default:
        LOG_AT(ERR_level, "%s: unrecognized family: %d\n", caller, sa->sa_family);
        return nullptr;
    }
}

// Non-empty and read by strtol to its end.
bool plain_number(const char* s)
{
    if (s == nullptr || *s == '\0')
        return false;
    char* end = nullptr;
    (void)strtol(s, &end, 10);
    return *end == '\0';
}

}  // namespace

const char* af_name(int af)
{
    switch (af) {
    case AF_UNSPEC:
        return "UNSPEC";
    case AF_INET:
        return "IPv4";
    case AF_INET6:
        return "IPv6";
    default:
        return "#??#";
    }
}

const char* anyaddr_str(int af)
{
    switch (af) {
    case AF_INET:
        return "0.0.0.0";
    case AF_INET6:
        return "::";
    default:
        return "#error#";
    }
}

int is_multicast(sockaddr* sa)
{
    size_t n = 0;
    const uint8_t* b = addr_bytes("is_multicast", sa, &n);
    if (b == nullptr)
        return -1;
    if (sa->sa_family == AF_INET)
        return (b[0] & 0xf0) == 0xe0;  // 224.0.0.0 to 239.255.255.255
    return b[0] == 0xff;
}

int is_unspecified(sockaddr* sa)
{
    size_t n = 0;
    const uint8_t* b = addr_bytes("is_unspecified", sa, &n);
    if (b == nullptr)
        return -1;
    for (size_t i = 0; i < n; ++i)
        if (b[i] != 0)
            return 0;
    return 1;
}

socklen_t saddr_len(const sockaddr* sa)
{
    return family_len("saddr_len", sa);
}

socklen_t saddr_size(const sockaddr* sa)
{
    return family_len("saddr_size", sa);
}

void cpy_sockaddr(const sockaddr* src, sockaddr* dst, socklen_t len)
{
    // An unknown family reads as the largest size and stops here as well.
    const socklen_t n = saddr_len(src);
    LOG_ASSERT(n != 0 && n <= len);
    memcpy(dst, src, n);
}

char* saddr_str(sockaddr* sa, socklen_t salen, char* buf, size_t len)
{
    if (len > 0)
        buf[0] = '\0';
    char host[NI_HOST_LEN] = {};
    char serv[NI_SERV_LEN] = {};

    if (sa->sa_family == AF_UNIX) {
        // A local address has no numeric host: its path stands in. The
        // target's resolver refuses the family; glibc's answers "localhost",
        // so the resolver isn't asked at all.
        const auto* su = reinterpret_cast<const sockaddr_un*>(sa);
        const size_t off = offsetof(sockaddr_un, sun_path);
        size_t room = salen > off ? salen - off : 0;
        if (room > sizeof(su->sun_path))
            room = sizeof(su->sun_path);
        if (room > LOCAL_PATH_MAX)
            room = LOCAL_PATH_MAX;
        memcpy(host, su->sun_path, strnlen(su->sun_path, room));
        snprintf(buf, len, "DOMAIN %s:%s", host, serv);
        return buf;
    }

    const int rc = getnameinfo(sa, salen, host, sizeof(host), serv, sizeof(serv), NI_NUMERIC);
    if (rc != 0) {
        LOG_AT(ERR_level, "%s: getnameinfo error (%d): %s\n", "saddr_str", rc, gai_strerror(rc));
        return nullptr;
    }
    switch (sa->sa_family) {
    case AF_INET6:
        snprintf(buf, len, "[%s]:%s", host, serv);
        return buf;
    case AF_INET:
        snprintf(buf, len, "%s:%s", host, serv);
        return buf;
    default:
        return nullptr;
    }
}

void dump_ai(FILE* out, const addrinfo* ai)
{
    if (out == nullptr)
        return;
    char host[NI_HOST_LEN] = {};
    char serv[NI_SERV_LEN] = {};
    const int rc = getnameinfo(ai->ai_addr, ai->ai_addrlen, host, sizeof(host), serv, sizeof(serv), NI_NUMERIC);
    if (rc != 0) {
        fprintf(out, "%s: getnameinfo error (%d): %s\n", "dump_ai", rc, gai_strerror(rc));
        return;
    }
    fprintf(out, "PF_INET = %d, PF_INET6 = %d, SOCK_STREAM = %d, SOCK_DGRAM = %d\n", PF_INET, PF_INET6,
            SOCK_STREAM, SOCK_DGRAM);
    fprintf(out,
            "ai_flags    =\t0x%02x\nai_family   =\t%d\nai_socktype =\t%d\nai_protocol =\t%d\n"
            "ai_addrlen  =\t%ld\nai_addr     =\t%s:%s\nai_canonname=\t%s\n",
            static_cast<unsigned>(ai->ai_flags), ai->ai_family, ai->ai_socktype, ai->ai_protocol,
            static_cast<long>(ai->ai_addrlen), host, serv, ai->ai_canonname ? ai->ai_canonname : "NULL");
}

void dump_sa_info(FILE* fp, const char* msg, const sockaddr* sa, socklen_t addrlen)
{
    if (fp == nullptr)
        return;
    char host[NI_HOST_LEN] = {};
    char serv[NI_SERV_LEN] = {};
    const int rc = getnameinfo(sa, addrlen, host, sizeof(host), serv, sizeof(serv), NI_NUMERIC);
    if (rc != 0) {
        fprintf(fp, "%s: getnameinfo error (%d): %s\n", "dump_sa_info", rc, gai_strerror(rc));
        return;
    }
    fprintf(fp, "%s %s %s:%s\n", msg ? msg : "", af_name(sa->sa_family), host, serv);
}

int mk_sockaddr(const char* addr_port, int stype, int proto, sockaddr_storage* ss, socklen_t* slen)
{
    static const char* const fn = "mk_sockaddr";
    LOG_ASSERT(stype == SOCK_STREAM || stype == SOCK_DGRAM);
    LOG_AT(DEBUG_level, "%s: %s(%d) address for [%s]\n", fn, stype == SOCK_DGRAM ? "DGRAM" : "STREAM", stype,
           addr_port);

    char addr[128] = {};
    strncpy(addr, addr_port, sizeof(addr) - 1);
    char* colon = strrchr(addr, ':');
    if (colon == nullptr) {
        LOG_AT(ERR_level, "%s: invalid address/port: %s\n", fn, addr_port);
        return EINVAL;
    }
    *colon = '\0';
    const char* port = colon + 1;

    // Seven characters is the shortest dotted IPv4 address; shorter IPv6
    // forms such as the loopback address are refused along with them.
    constexpr size_t ADDR_MIN_LEN = 7;
    if (plain_number(addr) || strlen(addr) < ADDR_MIN_LEN) {
        LOG_AT(ERR_level, "%s: cannot accept plain number [%s] as IP address\n", fn, addr);
        return EINVAL;
    }
    if (!plain_number(port)) {
        LOG_AT(ERR_level, "%s: port must be plain decimal number [%s]\n", fn, port);
        return EINVAL;
    }

    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = stype;
    hints.ai_protocol = proto;
    addrinfo* res = nullptr;
    if (W_getaddrinfo(fn, addr, port, &hints, &res) != 0)
        return -1;

    int rc = -1;
    for (const addrinfo* ai = res; ai != nullptr; ai = ai->ai_next) {
        const int fd = W_socket(fn, ai->ai_family, ai->ai_socktype, ai->ai_protocol);
        if (fd >= 0)
            (void)plat_sock_defaults(fd, ai->ai_family);
        LOG_AT(DEBUG_level, "%s: %s af=%s (%d), proto = %d\n", fn, fd >= 0 ? "OK" : "BAD", af_name(ai->ai_family),
               ai->ai_family, ai->ai_protocol);
        if (fd < 0)
            continue;
        memcpy(ss, ai->ai_addr, ai->ai_addrlen);
        *slen = ai->ai_addrlen;
        W_close(fn, fd);
        rc = 0;
        break;
    }
    freeaddrinfo(res);
    if (rc != 0)
        LOG_AT(ERR_level, "%s: failed for [%s]\n", fn, addr_port);
    return rc;
}
