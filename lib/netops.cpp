// The one socket factory: a UDP receiver or sender, a TCP client, a TCP or
// UDP listener, a multicast reader or writer, chosen by the bits of the
// request and by what the address turns out to be.
#include <netinet/in.h>
#include <sys/socket.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "netops.h"
#include "platform.h"
#include "syswrap.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

constexpr int LISTEN_BACKLOG = 128;

// A record that means an interface chosen by the user, not the any-record.
bool named_ifc(const ifc_info* rec)
{
    return rec != nullptr && !is_anyaddr(rec->name);
}

bool plain_number(const char* s)
{
    char* end = nullptr;
    (void)strtol(s, &end, 10);
    return *end == '\0';
}

int setup_client(int fd, addrinfo* ai, socket_spec* sspec)
{
    static const char* const fn = "setup_client";
    if (sspec->socktype == SOCK_DGRAM) {
        // A sender is neither bound nor connected: it sends to addr_ss. A
        // receiver listens on the address it was given, connected to no peer.
        if (sspec->writer)
            return 0;
        return reuse_and_bind(fd, ai->ai_addr, ai->ai_addrlen);
    }

    if (sspec->non_blocking)
        LOG_AT(DEBUG_level, "%s: non-blocking CONNECT on fd%d\n", fn, fd);
    if (W_connect(fn, fd, ai->ai_addr, ai->ai_addrlen) == 0) {
        LOG_AT(DEBUG_level, "%s: %s CONNECT [fd%d]\n", fn, "IMMEDIATE", fd);
        return 0;
    }
    if (errno != EINPROGRESS)
        return -1;
    // Whoever uses the socket waits for it to become writable.
    sspec->async_connect = 1;
    LOG_AT(DEBUG_level, "%s: %s CONNECT [fd%d]\n", fn, "ASYNC", fd);
    return 0;
}

int setup_listener(int fd, addrinfo* ai, socket_spec* sspec)
{
    static const char* const fn = "setup_listener";
    if (ai->ai_family == AF_INET6 && is_unspecified(ai->ai_addr) == 1)
        set_ipv6only(fd, 0);
    if (reuse_and_bind(fd, ai->ai_addr, ai->ai_addrlen) != 0)
        return -1;

    if (sspec->socktype == SOCK_STREAM) {
        if (!sspec->defer_listen && W_listen(fn, fd, LISTEN_BACKLOG) != 0)
            return -1;
    } else if (sspec->socktype != SOCK_DGRAM) {
        if (W_connect(fn, fd, ai->ai_addr, ai->ai_addrlen) != 0)
            return -1;
        LOG_AT(DEBUG_level, "%s: CONNECT [%d]\n", fn, fd);
    }
    return 0;
}

int setup_mcast_reader(int sockfd, addrinfo* ai, ifc_info* rec)
{
    static const char* const fn = "setup_mcast_reader";
    LOG_AT(DEBUG_level, "%s: fd=%d, ifc=[%s]:%p\n", fn, sockfd, rec ? rec->name : "<any>", static_cast<void*>(rec));

    if (is_ipv6_mc_local(ai->ai_addr)) {
        if (named_ifc(rec)) {
            sync_ipv6addr_scope_id(ai->ai_addr, rec->name, &rec->ss);
        } else {
            // The open goes on all the same. On Linux the bind to a
            // link-local group without a scope id then fails with EINVAL,
            // where the target binds and joins on the default interface.
            LOG_AT(ERR_level, "%s: network interface must be specified to use link/local-scope multicast\n", fn);
        }
    }

    (void)plat_mcast_reader_opts(sockfd, ai->ai_family);
    // Bound to the group and port, not to the any-address.
    if (reuse_and_bind(sockfd, ai->ai_addr, ai->ai_addrlen) != 0)
        return -1;

    sockaddr_storage grp{};
    cpy_sockaddr(ai->ai_addr, reinterpret_cast<sockaddr*>(&grp), sizeof(grp));
    LOG_ASSERT(grp.ss_family == ai->ai_family);
    return mcast_join(sockfd, &grp, rec);
}

int setup_mcast_writer(int sockfd, addrinfo* ai, ifc_info* rec)
{
    static const char* const fn = "setup_mcast_writer";
    LOG_AT(DEBUG_level, "%s: fd=%d, ifc=[%s]:%p\n", fn, sockfd, rec ? rec->name : "<any>", static_cast<void*>(rec));

    if (ai->ai_family == AF_INET6) {
        if (!named_ifc(rec)) {
            LOG_AT(ERR_level, "%s: network interface must be specified to send mulitcast datagrams\n", fn);
            return -1;
        }
        return set_ipv6_sock_ifc(sockfd, rec->idx);
    }
    if (ai->ai_family == AF_INET) {
        // Without a named interface the system's default route decides.
        if (!named_ifc(rec))
            return 0;
        const in_addr ifaddr = reinterpret_cast<const sockaddr_in*>(&rec->ss)->sin_addr;
        LOG_ASSERT(ifaddr.s_addr != 0);
        return W_setsockopt(fn, sockfd, IPPROTO_IP, IP_MULTICAST_IF, &ifaddr, sizeof(ifaddr)) == 0 ? 0 : -1;
    }
    return -1;
}

// The interface record for a multicast address of family af. A tag that
// names nothing has been logged and leaves a null record: any interface.
ifc_info* mcast_ifc_record(int af, const char* ifc_tag)
{
    if (is_anyaddr(ifc_tag))
        return any_ifc_info(af);
    return get_ifc_info(af, ifc_tag);
}

}  // namespace

int open_socket(const char* addr, const char* port, socket_spec* sspec, const char* ifc_tag, ifc_info** ifi)
{
    static const char* const fn = "open_socket";
    LOG_AT(DEBUG_level, "%s: %s %s [%s (%d)] socket for [%s:%s], ifc=%s\n", fn,
           sspec->socktype == SOCK_DGRAM ? "UDP" : "TCP", sspec->passive ? "LISTENER" : "CLIENT", af_name(sspec->family),
           sspec->family, addr ? addr : "all", port ? port : "", ifc_tag ? ifc_tag : "none");

    if (sspec->socktype == SOCK_STREAM || sspec->socktype == SOCK_DGRAM)
        LOG_ASSERT(port);
    // A number in front passes (the resolver judges the rest); a word alone
    // doesn't, so no service name is ever looked up.
    if (port != nullptr && (port[0] == '\0' || (atoi(port) == 0 && strcmp(port, "0") != 0))) {
        LOG_AT(ERR_level, "%s: empty or invalid port [%s]\n", fn, port);
        return -1;
    }

    addrinfo hints{};
    hints.ai_family = sspec->family;
    hints.ai_socktype = sspec->socktype;
    hints.ai_protocol = 0;
    hints.ai_flags = sspec->passive ? AI_PASSIVE : 0;

    if (addr == nullptr)
        addr = sspec->family == AF_INET6 ? "::" : "0.0.0.0";
    else if (addr[0] != '\0' && plain_number(addr)) {
        LOG_AT(ERR_level, "%s: cannot accept plain number [%s] as IP address\n", fn, addr);
        return -1;
    }

    addrinfo* res = nullptr;
    if (W_getaddrinfo(fn, addr, port, &hints, &res) != 0)
        return -1;
    errno = 0;

    int fd = -1;
    // What the caller asked for; an address that fails gives it back, so a
    // socket that never joined a group is never taken for one that did.
    const unsigned asked_multicast = sspec->multicast;
    for (addrinfo* ai = res; ai != nullptr; ai = ai->ai_next) {
        LOG_AT(DEBUG_level, "af=%s (%d), proto = %d\n", af_name(ai->ai_family), ai->ai_family, ai->ai_protocol);
        fd = W_socket(fn, ai->ai_family, ai->ai_socktype, ai->ai_protocol);
        if (fd < 0)
            continue;
        (void)plat_sock_defaults(fd, ai->ai_family);

        sspec->family = ai->ai_family;
        if (is_multicast(ai->ai_addr) == 1)
            sspec->multicast = 1;

        if (sspec->non_blocking && set_nblock(fd, 1) != 0) {
            const int err = errno;
            LOG_AT(ERR_level, "%s: failed to make fd=%d non-blocking ERROR(%d): %s\n", fn, fd, err, strerror(err));
            W_close(fn, fd);
            freeaddrinfo(res);
            return -1;
        }

        ifc_info* rec = nullptr;
        int rc;
        if (sspec->multicast) {
            // A listener on a multicast address is a fault of the calling code.
            LOG_ASSERT(!sspec->passive);
            rec = mcast_ifc_record(ai->ai_family, ifc_tag);
            rc = sspec->writer ? setup_mcast_writer(fd, ai, rec) : setup_mcast_reader(fd, ai, rec);
        } else if (sspec->passive)
            rc = setup_listener(fd, ai, sspec);
        else
            rc = setup_client(fd, ai, sspec);

        if (rc != 0) {
            free(rec);
            W_close(fn, fd);
            fd = -1;
            sspec->multicast = asked_multicast;
            continue;
        }

        memcpy(&sspec->addr_ss, ai->ai_addr, ai->ai_addrlen);
        sspec->addr_len = ai->ai_addrlen;
        if (ifi != nullptr)
            *ifi = rec;
        else
            free(rec);
        if (g_mod_ll[g_llctx.mod] >= DEBUG_level)
            dump_ai(log_fp(&g_log), ai);
        break;
    }
    freeaddrinfo(res);
    if (fd < 0)
        return -1;

    LOG_AT(DEBUG_level, "%s: %s %s socket fd=[%d]\n", fn, sspec->passive ? "SERVER" : "CLIENT",
           sspec->multicast ? "multicast" : "unicast", fd);
    return fd;
}
