// Group membership, the outgoing interface and hop limit of multicast
// sockets, and the scope id of link-local groups.
#include <net/if.h>
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

net_options g_opt;

namespace {

// The length of an address for the resolver, silently: the group of a
// membership line may be of any family.
socklen_t group_len(const sockaddr_storage* ss)
{
    switch (ss->ss_family) {
    case AF_INET:
        return sizeof(sockaddr_in);
    case AF_INET6:
        return sizeof(sockaddr_in6);
    default:
        return sizeof(sockaddr_storage);
    }
}

// Join or leave with no particular interface: a record made for the call.
int mcast_any_op(const char* caller, int sockfd, sockaddr_storage* grs, int join)
{
    ifc_info* any = any_ifc_info(grs->ss_family);
    if (any == nullptr)
        return -1;
    const int rc = mcast_group_op(caller, nullptr, 0, grs, &any->ss, join, sockfd);
    free(any);
    return rc;
}

}  // namespace

void set_legacy_mcast_api(int ON)
{
    if (ON)
        g_opt.use_legacy_mcast_api = 1;
}

int mcast_join(int sockfd, sockaddr_storage* grs, ifc_info* mifc)
{
    if (mifc == nullptr)
        return mcast_any_op("mcast_join", sockfd, grs, 1);
    return mcast_group_op("mcast_join", mifc->name, mifc->idx, grs, &mifc->ss, 1, sockfd);
}

int mcast_leave(int sockfd, sockaddr_storage* grs, ifc_info* mifc)
{
    if (mifc == nullptr)
        return mcast_any_op("mcast_leave", sockfd, grs, 0);
    return mcast_group_op("mcast_leave", mifc->name, mifc->idx, grs, &mifc->ss, 0, sockfd);
}

int mcast_group_op(const char* caller, const char* ifc_name, unsigned int ifc_idx, sockaddr_storage* grp,
                   sockaddr_storage* ifc, int join, int sock)
{
    static const char* const fn = "mcast_group_op";
    const char* action = join ? "MCAST_JOIN" : "MCAST_LEAVE";
    LOG_AT(DEBUG_level, "%s: ifc-name=%s, idx=%u ifc=%p\n", caller, ifc_name ? ifc_name : "<none>", ifc_idx,
           static_cast<void*>(ifc));

    // An interface chosen by name or address goes by index through the
    // generic interface; the any-interface through the per-protocol one.
    const bool generic = !is_anyaddr(ifc_name) && !g_opt.use_legacy_mcast_api;
    char gbuf[80];
    const char* gstr = saddr_str(reinterpret_cast<sockaddr*>(grp), group_len(grp), gbuf, sizeof(gbuf));
    LOG_AT(INFO_level, "%s: using %s mulitcast API to %s group %s\n", caller, generic ? "GENERIC" : "protocol-specific",
           action, gstr ? gstr : "");

    const int family = grp->ss_family;
    int rc = -1;
    if (generic) {
        group_req gr{};
        gr.gr_interface = ifc_idx;
        memcpy(&gr.gr_group, grp, sizeof(gr.gr_group));
        const int level = family == AF_INET ? IPPROTO_IP : family == AF_INET6 ? IPPROTO_IPV6 : -1;
        rc = W_setsockopt(fn, sock, level, join ? MCAST_JOIN_GROUP : MCAST_LEAVE_GROUP, &gr, sizeof(gr));
    } else if (family == AF_INET6) {
        ipv6_mreq mr{};
        mr.ipv6mr_multiaddr = reinterpret_cast<sockaddr_in6*>(grp)->sin6_addr;
        mr.ipv6mr_interface = ifc_idx;
        rc = W_setsockopt(fn, sock, IPPROTO_IPV6, join ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP, &mr, sizeof(mr));
    } else if (family == AF_INET) {
        LOG_ASSERT(ifc);
        if (ifc->ss_family == 0) {
            if (!is_anyaddr(ifc_name)) {
                const int lrc = ifc_addr_lookup(AF_INET, ifc_name, reinterpret_cast<sockaddr*>(ifc), sizeof(*ifc));
                if (lrc != 0)
                    return lrc;
            } else {
                memset(ifc, 0, sizeof(*ifc));
                ifc->ss_family = AF_INET;
            }
        }
        ip_mreq mr{};
        mr.imr_multiaddr = reinterpret_cast<sockaddr_in*>(grp)->sin_addr;
        mr.imr_interface = reinterpret_cast<sockaddr_in*>(ifc)->sin_addr;
        rc = W_setsockopt(fn, sock, IPPROTO_IP, join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &mr, sizeof(mr));
    } else {
        LOG_AT(ERR_level, "%s: unsupported family %d\n", caller, family);
        errno = EAFNOSUPPORT;
    }

    if (rc != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: %s fd=%d: %s\n", caller, action, sock, strerror(err));
        errno = err;
        return rc;
    }
    return 0;
}

int set_ipv6_sock_ifc(int sock, uint32_t index)
{
    static const char* const fn = "set_ipv6_sock_ifc";
    if (index == 0) {
        LOG_AT(ERR_level, "%s: network interface must be specified\n", fn);
        return -1;
    }
    const unsigned int idx = index;
    if (W_setsockopt(fn, sock, IPPROTO_IPV6, IPV6_MULTICAST_IF, &idx, sizeof(idx)) != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: setsockopt IPV6_MULTICAST_IF failed (%d): %s\n", fn, err, strerror(err));
        return err;
    }
    return 0;
}

// All three lines of this function go out at ERR_level, the two that tell
// no fault as well.
void sync_ipv6addr_scope_id(sockaddr* sa, const char* ifc_name, const sockaddr_storage* ifc_ss)
{
    if (sa->sa_family != AF_INET6)
        return;
    auto* sa6 = reinterpret_cast<sockaddr_in6*>(sa);
    if (sa6->sin6_scope_id == 0) {
        // The interface's address is looked up into a copy: the record the
        // caller passed stays as it was.
        sockaddr_storage ss = *ifc_ss;
        bool have = true;
        if (ss.ss_family == 0) {
            if (ifc_name == nullptr) {
                LOG_AT(ERR_level, "%s: cannot set scope id, interface or link-specific address must be selected\n",
                       "sync_ipv6addr_scope_id");
                return;
            }
            have = ifc_addr_lookup(AF_INET6, ifc_name, reinterpret_cast<sockaddr*>(&ss), sizeof(ss)) == 0;
        }
        if (have) {
            const uint32_t found =
                ss.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6*>(&ss)->sin6_scope_id : 0;
            const uint32_t scope = plat_ipv6_scope_id(found, ifc_name);
            if (scope != 0) {
                sa6->sin6_scope_id = scope;
                LOG_AT(ERR_level, "updated IPv6 address scope ID to %ld\n", static_cast<long>(scope));
                return;
            }
        }
    }
    LOG_AT(ERR_level, "IPv6 address scope ID %ld left unchanged\n", static_cast<long>(sa6->sin6_scope_id));
}

int set_mcast_ttl(int family, int fd, int ttl)
{
    static const char* const fn = "set_mcast_ttl";
    LOG_ASSERT(family == AF_INET || family == AF_INET6);
    const bool v4 = family == AF_INET;
    const int rc = v4 ? W_setsockopt(fn, fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl))
                      : W_setsockopt(fn, fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &ttl, sizeof(ttl));
    const int err = rc == 0 ? 0 : errno;
    // Logged at ERR_level whatever the outcome.
    LOG_AT(ERR_level, "%s: %s mcast fd=%d, op=%s: %s\n", fn, v4 ? "IP" : "IPv6", fd,
           v4 ? "MULTICAST_TTL" : "MULTICAST_HOPS", rc == 0 ? "OK" : strerror(err));
    return err;
}
